// Sessions and accounts of the unit's own web server, which KIRVEX operations reach over HTTP.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/text.h"
#include "frame/message.h"

inline constexpr char kWebServerHost[] = "127.0.0.1";
inline constexpr size_t kSessionIdSize = 512;

// An account of the web server; both texts are zero-terminated and belong to the caller.
struct WebAccount {
    const char *name;
    const char *password;
};

// The port of the web server, as the text that goes into addresses.
struct WebServerPort {
    char text[8];

    // The number that the text begins with, 0 without one.
    uint32_t number() const { return static_cast<uint32_t>(ParseInt(text)); }
};
WebServerPort ReadWebServerPort();

// Logs in and writes the session id. Returns 0, or -1 with whatever came of the id; when another
// administrator is online, the session is released.
int KIRVEX_AppwebLogin(const char *host, const char *port, const WebAccount &account,
                       char *sessionId, size_t sessionIdSize);

// Releases a session; `kickArgument` is the query of the request. Returns 0 when the web server
// reports success, else -1.
int KIRVEX_AppwebForceKick(const char *host, const char *port, const WebAccount &account,
                           const char *kickArgument);

// The account's row in the web server's account table: 0 when that table can be read, else -1.
int KIRVEX_AppWebGetAccountIdx(const char *host, const char *port, const WebAccount &account);

// Sets name and password of a row, of row 0 the password alone. Returns 0 when the web server
// reports success; -2 when it does not for the name of another row than 0, else -1. The values go
// into the request as they are.
int KIRVEX_AppwebChangeIDPwd(const char *host, const char *port, const WebAccount &current,
                             const WebAccount &changed, int row, const char *sessionId);

// Releases the session of a KIRVEX operation, with a message when that fails.
void ReleaseWebSession(const char *port, const WebAccount &account, const char *sessionId,
                       const MessageOrigin &origin);
