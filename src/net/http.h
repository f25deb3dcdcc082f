// A small blocking HTTP/1.x client over plain TCP. One call makes one connection, sends one
// request, and reads until the answer is complete, the peer closes or goes quiet.
//
// `url` is a host (a name with a dot, or an address), optionally ":port" (default 80) and "/path";
// no scheme in front. `*result` is null before the call; afterwards it holds the answer's body (or
// header and body) and a zero byte behind it, a malloc block that the caller frees, also when the
// call failed. `auth` may be null; see net/http_auth.h for how to fill it.
//
// All calls return the number of bytes in *result, its zero byte included; 0 when the answer
// brought none, or none came in time; -1 when the name isn't known, nobody could be connected to,
// or there was no memory for the request. An HTTP status makes no difference: an error page is an
// answer.
//
//     char *page = nullptr;
//     HttpAuthInfo auth{};
//     auth.method = COM_GetHttpAuthMethod("nvr.example:8080/status");
//     CopyText(auth.username, "admin");
//     CopyText(auth.password, "secret");
//     if (COM_GetHttpContent("nvr.example:8080/status", &page, &auth) > 0) puts(page);
//     free(page);
#pragma once

#include <netinet/in.h>

#include "common/buffer.h"  // COM_ReallocAndCopyBuf
#include "common/socket.h"  // COM_SetSocketTimeout
#include "net/dns.h"
#include "net/http_auth.h"
#include "net/http_exchange.h"  // HttpCmdType, COM_GetContentLengthInHttpHeader

// GET. The ...WithHeader calls keep the answer's header in *result; theirs end as soon as header
// and body together reach the announced Content-Length. The ...Https... calls warn and speak plain
// HTTP all the same.
int COM_GetHttpContent(const char *url, char **result, HttpAuthInfo *auth);
int COM_GetHttpsContent(const char *url, char **result, HttpAuthInfo *auth);
int COM_GetHttpContentWithHeader(const char *url, char **result, HttpAuthInfo *auth);

// POST of a form: `data` is its encoded text.
int COM_PostHttpContent(const char *url, char **result, HttpAuthInfo *auth, const char *data);
int COM_PostHttpContentWithHeader(const char *url, char **result, HttpAuthInfo *auth,
                                  const char *data);
int COM_PostHttpsContentWithHeader(const char *url, char **result, HttpAuthInfo *auth,
                                   const char *data);

// POST whose `data` is the rest of the header (Content-Type, Content-Length, authorization), the
// blank line and the body.
int COM_PostMultipartHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                                 const char *data);

// The same with a cookie, "name=value".
int COM_GetCookieHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                             const char *cookie);
int COM_PostCookieHttpContent(const char *url, char **result, HttpAuthInfo *auth, const char *data,
                              const char *cookie);

// Sends `request` as it is.
int COM_SendUserDefHttpHdr(const char *url, char **result, HttpAuthInfo *auth, const char *request);

// What all of them come down to: resolves the host, makes the authorization and tries the resolved
// addresses until one can be connected to. `method` is an HttpCmdType; `data` and `cookie` may be
// null; `keepHeader` and `https` are flags.
int COM_SubGetPostHttpContent(const char *url, char **result, HttpAuthInfo *auth, int method,
                              const char *data, int keepHeader, const char *cookie, int https);

// One exchange with one server: `host` is its name without port, `authorization` the text that
// closes the header (COM_GenHttpAuthStr), `path` may be null for "/"; `auth` is not looked at.
// Returns 0, not -1, when no socket can be had or the server stays silent.
int COM_SubSendHttpCmd(const struct sockaddr_in *server, const char *host,
                       const char *authorization, const char *path, char **result,
                       HttpAuthInfo *auth, int method, const char *data, int keepHeader,
                       const char *cookie, int https);

namespace net {

// COM_SubGetPostHttpContent within limits of the caller's choice, which hold for the challenge,
// too.
int RequestHttp(const char *url, char **result, HttpAuthInfo *auth, HttpPart part,
                const HttpCommand &command, const HttpLimits &limits);

}  // namespace net
