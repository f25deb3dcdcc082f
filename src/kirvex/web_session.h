// Sessions and accounts of the unit's own web server, which KIRVEX operations reach over HTTP.
#pragma once

#include <cstddef>

#include "frame/message.h"
#include "kirvex/credentials.h"

namespace kx {

inline constexpr char kWebServerHost[] = "127.0.0.1";
inline constexpr size_t kSessionIdSize = 512;

}  // namespace kx

// Logs in and writes the session id. Returns 0, or -1 with whatever came of the id; when another
// administrator is online, the session is released.
int KIRVEX_AppwebLogin(const char *host, const char *port, const kx::Account &account,
                       char *sessionId, size_t sessionIdSize);

// Releases a session; `kickArgument` is the query of the request. Returns 0 when the web server
// reports success, else -1.
int KIRVEX_AppwebForceKick(const char *host, const char *port, const kx::Account &account,
                           const char *kickArgument);

// The account's row in the web server's account table: 0 when that table can be read, else -1.
int KIRVEX_AppWebGetAccountIdx(const char *host, const char *port, const kx::Account &account);

// Sets name and password of a row, of row 0 the password alone. Returns 0 when the web server
// reports success; -2 when it does not for the name of another row than 0, else -1. The values go
// into the request as they are.
int KIRVEX_AppwebChangeIDPwd(const char *host, const char *port, const kx::Account &current,
                             const kx::Account &changed, int row, const char *sessionId);

namespace kx {

// Releases the session of an operation, with a message when that fails.
void ReleaseWebSession(const char *port, const Account &account, const char *sessionId,
                       MessageOrigin origin);

}  // namespace kx
