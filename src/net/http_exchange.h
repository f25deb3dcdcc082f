// One HTTP/1.x request over plain TCP and its answer. Whatever authorizes the request comes from
// above, as the text that closes its header.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

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

// The last Content-Length in a received block of `len` bytes, whatever it stands in; -1 when there
// is none. A number beyond the range of int counts as its greatest.
int COM_GetContentLengthInHttpHeader(const char *buf, int len);

namespace net {

// The text that closes a header without authorization.
inline constexpr char kNoAuthorization[] = "\r\n";

// What is asked for.
struct HttpCommand {
    int method = HTTP_CMD_GET;
    const char *data = nullptr;
    const char *cookie = nullptr;
    bool https = false;
};
// A page. Whoever asks for nothing else does so with this very object: then the compiler leaves out
// all that other requests need.
inline constexpr HttpCommand kHttpPage;

// What of the answer is kept.
enum class HttpPart { kBody, kHeaderAndBody };

// How long an exchange waits for what, and how much it takes.
struct HttpLimits {
    int socketSeconds = 30;       // for the connection, and for the request to be taken
    timeval writable{8, 0};       // for room to send in
    timespec pause{0, 30000000};  // between request and answer
    timeval readable{16, 0};      // for each block of the answer; the second failed wait ends it
    int resolverSeconds = -1;     // for a name server, as DNS_GetA takes it
    // Bounds of an answer that never pauses for long enough; 0 for none. What came until then is
    // the answer.
    int totalSeconds = 0;   // from the first try to connect on
    size_t answerSize = 0;  // bytes, header included
};
inline constexpr HttpLimits kHttpLimits;

// One exchange with one server: `host` is its name without port, `authorization` closes the header,
// `path` may be null for "/". *result and what is returned are as in net/http.h; 0, not -1, when no
// socket can be had or the server stays silent.
int ExchangeHttp(const sockaddr_in &server, const char *host, const char *authorization,
                 const char *path, char **result, HttpPart part, const HttpCommand &command,
                 const HttpLimits &limits);

// Resolves the host of `url` (as in net/http.h) and tries its addresses in turn until one can be
// connected to.
int FetchHttp(const char *url, const char *authorization, char **result, HttpPart part,
              const HttpCommand &command, const HttpLimits &limits);

}  // namespace net
