// The client's side of HTTP Basic and Digest authentication (RFC 2617).
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/text.h"  // COM_GetStrBeforeNewLine, COM_GetStrInDoubleQuotes, COM_StrNCaseStr
#include "net/http_exchange.h"
#include "net/md5.h"

enum HttpAuthMethod : int32_t { HTTP_AUTH_NONE = 0, HTTP_AUTH_BASIC = 1, HTTP_AUTH_DIGEST = 2 };

// What authorizes a request. The caller zeroes the record, fills in `method` (an HttpAuthMethod,
// for instance from COM_GetHttpAuthMethod), `username` and `password`, and hands it to the calls of
// net/http.h. The rest is the state of Digest: a record that is used again reuses the server's
// nonce. One record must not serve two threads at once.
//
// The texts of the challenge stand back to back: one that fills its field has no terminator and
// reads on into the next field. Nobody reads or writes outside the record.
struct HttpAuthInfo {
    int32_t method;
    char username[28];
    char password[32];
    char realm[80];
    char qop[16];    // cut at its first "," when used
    char nonce[80];  // empty as long as no challenge was fetched
    char opaque[80];
    char nc[16];   // always "00000001"
    char ha1[48];  // this and the following: kMd5HexLength characters
    char cnonce[48];
    char ha2[48];
    char response[48];
};
static_assert(offsetof(HttpAuthInfo, nc) == offsetof(HttpAuthInfo, realm) + 80 + 16 + 80 + 80);
static_assert(sizeof(HttpAuthInfo) == offsetof(HttpAuthInfo, response) + 48);

// Room that COM_GenHttpAuthStr expects, and room that is enough for every record.
inline constexpr size_t kHttpAuthStrSize = 512;
inline constexpr size_t kHttpAuthTextSize = 8 * sizeof(HttpAuthInfo);

// Asks the server for the scheme that it demands for `url` (as in net/http.h). Returns an
// HttpAuthMethod; HTTP_AUTH_NONE also for an unknown scheme and for no answer.
int COM_GetHttpAuthMethod(const char *url);

// Writes the text that closes the header of a request into `out`, kHttpAuthStrSize bytes: an
// Authorization line and a blank line, or a blank line alone (no record, no scheme, no challenge
// to be had). `methodName` is the verb, `auth` may be null; with Digest the first use of a record
// fetches the challenge. Returns 0; -1 with a message and a blank line in `out` when the text is
// too long for it.
int COM_GenHttpAuthStr(const char *methodName, const char *url, HttpAuthInfo *auth, char *out);

// Fetches the server's Digest challenge into the record (always with GET) and sets its `method` to
// HTTP_AUTH_DIGEST. Returns the result of the exchange, as COM_GetHttpContent does.
int COM_GetDigestString(const char *url, HttpAuthInfo *auth);

// Takes realm, qop, nonce and opaque from a Digest challenge in a received header. Returns 0, or -1
// when there is no challenge; a value that is missing leaves its field as it was.
int COM_GetDigestStringInBuf(const char *text, HttpAuthInfo *auth);

namespace net {

// COM_GetHttpAuthMethod within limits of the caller's choice.
int FindAuthMethod(const char *url, const HttpLimits &limits);

// COM_GenHttpAuthStr for a buffer of `size` bytes, at least 3; a challenge is fetched within
// `limits`.
int FormatAuthorization(const char *methodName, const char *url, HttpAuthInfo *auth, char *out,
                        size_t size, const HttpLimits &limits);

}  // namespace net
