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
#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "common/buffer.h"  // COM_ReallocAndCopyBuf
#include "common/socket.h"  // COM_SetSocketTimeout
#include "net/dns.h"
#include "net/http_auth.h"

// The kinds of request. For the RTSP verbs no text is built: only the authorization knows them.
enum HttpCmdType : int32_t {
    HTTP_CMD_GET = 0,
    HTTP_CMD_POST = 1,            // a form
    HTTP_CMD_POST_MULTIPART = 2,  // the caller's data closes the header and brings the body
    HTTP_CMD_USER_DEFINED = 3,    // the caller's data is the request
    HTTP_CMD_OPTIONS = 4,
    HTTP_CMD_DESCRIBE = 5,
    HTTP_CMD_SETUP = 6,
    HTTP_CMD_PLAY = 7,
    HTTP_CMD_TEARDOWN = 8
};

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

// The last Content-Length in a received block of `len` bytes, whatever it stands in; -1 when there
// is none. A number beyond the range of int counts as its greatest.
int COM_GetContentLengthInHttpHeader(const char *buf, int len);

// How long an exchange waits for what.
struct HttpTimings {
    int socketSeconds = 30;       // for the connection, and for the request to be taken
    timeval writable{8, 0};       // for room to send in
    timespec pause{0, 30000000};  // between request and answer
    timeval readable{16, 0};      // for each block of the answer; the second failed wait ends it
    int resolverSeconds = -1;     // for a name server, as DNS_GetA takes it
};
inline constexpr HttpTimings kHttpTimings;

// What COM_SubGetPostHttpContent is asked for, as a record.
struct HttpCommand {
    int method = HTTP_CMD_GET;
    const char *data = nullptr;
    bool keepHeader = false;
    const char *cookie = nullptr;
    bool https = false;
};

// COM_SubGetPostHttpContent with waits of the caller's choice (a challenge is fetched with the
// usual ones).
int COM_RequestHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                           const HttpCommand &command, const HttpTimings &timings);
