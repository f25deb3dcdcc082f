// The KIRVEX operations on accounts: user verification and the change of name and password.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "common/base64.h"
#include "kirvex/packet.h"

// The Base64 fields that a request's body begins with, decoded into areas that lie back to back.
// A value that fills its area reads on into the next one; behind the last there is a zero byte.
template <size_t kCount>
class DecodedCredentials {
  public:
    static constexpr size_t kAreaSize = 48;

    explicit DecodedCredentials(const uint8_t *request) {
        const char *fields = reinterpret_cast<const char *>(request + kx::kCredentials);
        for (size_t i = 0; i < kCount; ++i) {
            DecodeBase64(text_ + i * kAreaSize, kAreaSize, fields + i * kx::kCredentialSize,
                         kx::kCredentialSize);
        }
    }
    const char *operator[](size_t i) const { return text_ + i * kAreaSize; }

  private:
    char text_[kCount * kAreaSize + 1] = {};
};

// Whether an account name counts as the administrator's: it begins with "admin".
bool IsAdministrator(const char *account);

// Tells `sender` what privilege an account has, judged by its name alone. Returns 0, or -1 when the
// reply could not be sent.
int KIRVEX_Reply_UserVerification(const char *device, int sock, const sockaddr_in &sender,
                                  const uint8_t *request);

// Changes the password of the web server's first account and tells `sender` what came of it.
// Returns 0, or -1 when the reply could not be sent.
int KIRVEX_Reply_ChangeIDPwd(const char *device, int sock, const sockaddr_in &sender,
                             const uint8_t *request);

// 0 when every character of an account name (of a password: a digit) is allowed, else -1.
int KIRVEX_CheckAccout(const char *text);
int KIRVEX_CheckPasswd(const char *text);
