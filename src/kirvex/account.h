// The KIRVEX operations on accounts: user verification and the change of name and password.
#pragma once

#include <netinet/in.h>

#include "kirvex/packet.h"

// Tells `sender` what privilege an account has, judged by its name alone. Returns 0, or -1 when the
// reply could not be sent.
int KIRVEX_Reply_UserVerification(const char *device, int sock, const sockaddr_in &sender,
                                  kx::Request request);

// Changes the password of the web server's first account and tells `sender` what came of it.
// Returns 0, or -1 when the reply could not be sent.
int KIRVEX_Reply_ChangeIDPwd(const char *device, int sock, const sockaddr_in &sender,
                             kx::Request request);

// 0 when every character of an account name (of a password: a digit) is allowed, else -1.
int KIRVEX_CheckAccout(const char *text);
int KIRVEX_CheckPasswd(const char *text);
