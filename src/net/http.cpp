#include "net/http.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "common/clock.h"
#include "common/identification.h"
#include "common/owners.h"
#include "common/pause.h"
#include "common/text.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr MessageOrigin kRequest{kSource, "COM_SubGetPostHttpContent"};
static constexpr MessageOrigin kSend{kSource, "COM_SubSendHttpCmd"};
static constexpr int kHostSize = 80;
static constexpr uint16_t kHttpPort = 80;
static constexpr size_t kReceiveSize = 4096;
static constexpr int kToleratedFailedWaits = 1;
static constexpr int kPauseRetries = 1000;
static constexpr int kUnknownLength = -1;

// The name under which a request's authorization is computed.
static const char *MethodName(int method) {
    switch (method) {
        case HTTP_CMD_GET:
            return "GET";
        case HTTP_CMD_OPTIONS:
            return "OPTIONS";
        case HTTP_CMD_DESCRIBE:
            return "DESCRIBE";
        case HTTP_CMD_SETUP:
            return "SETUP";
        case HTTP_CMD_PLAY:
            return "PLAY";
        case HTTP_CMD_TEARDOWN:
            return "TEARDOWN";
        default:
            return "POST";
    }
}

// The whole request; empty when there is no memory for it.
static HeapBlock<char> BuildRequest(const HttpCommand &command, const char *host, int port,
                                    const char *path, const char *authorization) {
    const char *data = command.data ? command.data : "";
    const bool get = command.method == HTTP_CMD_GET;
    const bool form = command.method == HTTP_CMD_POST;
    if (!get && !form && command.method != HTTP_CMD_POST_MULTIPART) {
        return FormatText("%s", command.method == HTTP_CMD_USER_DEFINED ? data : "");
    }
    char formLines[96] = "";
    if (form) {
        snprintf(formLines, sizeof formLines,
                 "content-length: %d\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                 static_cast<int>(strlen(data)));
    }
    const char *cookie = get || form ? command.cookie : nullptr;
    // "Accept :" with its blank is what the appliances' servers have always been sent.
    return FormatText(
        "%s %s HTTP/1.%d\r\n"
        "Accept : */*\r\n"
        "Accept-Language: *\r\n"
        "Accept-Encoding: *\r\n"
        "User-Agent: %s\r\n"
        "Host: %s:%d\r\n"
        "%s"
        "Connection: Keep-Alive\r\n"
        "%s%s%s"
        "%s%s",
        get ? "GET" : "POST", path, get ? 1 : 0, kCommonHeaderId, host, port, formLines,
        cookie ? "Cookie: " : "", cookie ? cookie : "", cookie ? "\r\n" : "",
        get || form ? authorization : "", get ? "" : data);
}

namespace {

// An answer on its way from received blocks to the caller's buffer.
class Answer {
  public:
    Answer(char **result, bool keepHeader) : result_(result), keepHeader_(keepHeader) {}

    // What is returned unless data arrives after all.
    void Fail() { total_ = -1; }

    // Takes one received block. Returns whether the answer is complete.
    bool Take(std::span<const char> block);

    // Terminates what was stored. Returns what the exchange returns.
    int Finish();

  private:
    bool Append(std::span<const char> bytes);
    bool Store(const char *bytes, int count);

    char **result_;
    bool keepHeader_;
    bool headerSeen_ = false;
    int contentLength_ = kUnknownLength;
    int total_ = 0;   // bytes that should have been stored
    int stored_ = 0;  // the good ones at the buffer's start
};

}  // namespace

// The bytes of a header that ends in this block, 0 when it doesn't. The blank line must be whole in
// one block, and a zero byte ends the search.
static size_t HeaderSize(std::span<const char> block) {
    const size_t length = strnlen(block.data(), block.size());
    for (const char *blankLine : {"\r\n\r\n", "\n\n"}) {
        const size_t size = strlen(blankLine);
        if (const void *found = memmem(block.data(), length, blankLine, size)) {
            return static_cast<size_t>(static_cast<const char *>(found) - block.data()) + size;
        }
    }
    return 0;
}

bool Answer::Take(std::span<const char> block) {
    if (!headerSeen_) {
        if (contentLength_ == kUnknownLength) {
            contentLength_ =
                COM_GetContentLengthInHttpHeader(block.data(), static_cast<int>(block.size()));
        }
        const size_t headerSize = HeaderSize(block);
        headerSeen_ = headerSize > 0;
        if (keepHeader_ && !Append(headerSeen_ ? block.first(headerSize) : block)) {
            return true;
        }
        if (!headerSeen_) {
            return false;
        }
        block = block.subspan(headerSize);
        if (block.empty()) {
            return contentLength_ == 0;
        }
    }
    // A kept header counts towards the announced length.
    return !Append(block) || (contentLength_ >= 0 && total_ >= contentLength_);
}

// Returns false when the answer has become longer than its length can tell.
bool Answer::Append(std::span<const char> bytes) {
    total_ = std::max(total_, 0);
    if (bytes.size() >= static_cast<size_t>(INT_MAX - total_)) {
        return false;
    }
    total_ += static_cast<int>(bytes.size());
    Store(bytes.data(), static_cast<int>(bytes.size()));
    return true;
}

bool Answer::Store(const char *bytes, int count) {
    void *buffer = *result_;
    if (!COM_ReallocAndCopyBuf(total_, &buffer, stored_, bytes, count)) {
        TQ_LOG_FOR(kSend, "COM_ReallocAndCopyBuf(%d) error\n", total_);
        return false;
    }
    *result_ = static_cast<char *>(buffer);
    stored_ = total_;
    return true;
}

int Answer::Finish() {
    if (total_ <= 0) {
        return total_;
    }
    ++total_;
    if (Store("", 1)) {
        return total_;
    }
    // No room for the terminator: the last byte that was stored makes way for it.
    if (stored_ > 0) {
        (*result_)[stored_ - 1] = '\0';
    }
    return stored_;
}

// Sends the text, also in pieces where signals interrupt, but none after `seconds`. Returns false
// with errno set on failure.
static bool SendText(int sock, std::span<const char> text, int seconds) {
    const int64_t end = MonotonicSeconds() + seconds;
    do {
        const ssize_t sent = send(sock, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return false;
        }
        text = text.subspan(static_cast<size_t>(sent));
    } while (!text.empty() && MonotonicSeconds() < end);
    return true;
}

static void Receive(int sock, std::span<char> buffer, const timeval &limit, Answer &answer) {
    int failedWaits = 0;
    bool complete = false;
    while (!complete) {
        timeval remaining = limit;
        if (WaitForSocket(sock, POLLIN, &remaining) <= 0) {
            if (++failedWaits > kToleratedFailedWaits) {
                return;
            }
            continue;
        }
        const ssize_t count = recv(sock, buffer.data(), buffer.size(), MSG_NOSIGNAL);
        if (count < 0) {
            TQ_LOG_FOR(kSend, "recv() = %d : %s\n", static_cast<int>(count), strerror(errno));
        }
        complete = count <= 0 || answer.Take(buffer.first(static_cast<size_t>(count)));
    }
}

// Connects within `seconds`, which then also bound each send and receive.
static bool Connect(int sock, const sockaddr_in &server, const char *shownPath, int seconds) {
    COM_SetSocketTimeout(sock, seconds);
    if (connect(sock, AsSockaddr(server), sizeof server) == 0) {
        return true;
    }
    const int error = errno;
    char address[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &server.sin_addr, address, sizeof address);
    TQ_LOG_FOR(kSend, "connect(%s:%d) error : %s\n", address, ntohs(server.sin_port),
               strerror(error));
    TQ_LOG_FOR(kSend, "Fail to send [%s]\n", shownPath);
    return false;
}

// Waits for room to send in. Returns what WaitForSocket does.
static int WaitForRoom(int sock, const char *shownPath, timeval remaining) {
    const int ready = WaitForSocket(sock, POLLOUT, &remaining);
    if (ready == 0) {
        TQ_LOG_FOR(kSend, "select([%s], %d) timeout\n", shownPath, sock);
    } else if (ready < 0) {
        TQ_LOG_FOR(kSend, "select([%s], %d, %d.%06d sec) error : %s\n", shownPath, sock,
                   static_cast<int>(remaining.tv_sec), static_cast<int>(remaining.tv_usec),
                   strerror(errno));
    }
    return ready;
}

static int Exchange(const sockaddr_in &server, const char *host, const char *authorization,
                    const char *path, char **result, const HttpCommand &command,
                    const HttpTimings &timings) {
    const char *shownPath = path ? path : "(null)";
    UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG_FOR(kSend, "socket() error : %s\n", strerror(errno));
        return 0;
    }
    if (!Connect(sock.get(), server, shownPath, timings.socketSeconds)) {
        return -1;
    }
    if (command.https) {
        TQ_LOG_FOR(kSend, "Warning! trying to send https command w/o ENABLE_SSL_SUPPORT\n");
    }

    Answer answer(result, command.keepHeader);
    char block[kReceiveSize];
    std::span<char> buffer(block);
    HeapBlock<char> request;
    const int ready = WaitForRoom(sock.get(), shownPath, timings.writable);
    if (ready < 0) {
        answer.Fail();
    } else if (ready > 0) {
        request =
            BuildRequest(command, host, ntohs(server.sin_port), path ? path : "/", authorization);
        if (!request) {
            TQ_LOG_FOR(kSend, "malloc pAddDatabuf failed!\n");
            if (command.method == HTTP_CMD_POST) {
                // The peer of a form is not told: its connection stays open.
                static_cast<void>(sock.release());
            }
            return -1;
        }
        const std::span<char> text(request.get(), strlen(request.get()));
        if (!SendText(sock.get(), text, timings.socketSeconds)) {
            TQ_LOG_FOR(kSend, "send() failed : %s\n", strerror(errno));
        }
        // A form gets its answer in the buffer it was sent from, in blocks of no more than its
        // size.
        buffer = command.method == HTTP_CMD_POST ? text : buffer;
    }
    COM_TakeABreak(timings.pause, kPauseRetries);
    Receive(sock.get(), buffer, timings.readable, answer);
    return answer.Finish();
}

int COM_SubSendHttpCmd(const struct sockaddr_in *server, const char *host,
                       const char *authorization, const char *path, char **result,
                       HttpAuthInfo * /*auth*/, int method, const char *data, int keepHeader,
                       const char *cookie, int https) {
    const HttpCommand command{method, data, keepHeader != 0, cookie, https != 0};
    return Exchange(*server, host, authorization, path, result, command, kHttpTimings);
}

int COM_RequestHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                           const HttpCommand &command, const HttpTimings &timings) {
    char authorization[kHttpAuthTextSize];
    COM_GenBoundedHttpAuthStr(MethodName(command.method), url, auth, authorization,
                              sizeof authorization);
    const char *path = strchr(url, '/');
    char host[kHostSize];
    CopyText(host, url);
    if (path) {
        // A host that is cut off would be another host.
        const int length = static_cast<int>(path - url) + 1;
        if (length > kHostSize) {
            TQ_LOG_FOR(kRequest, "buffer overflow : (len, limit) = (%d, %d)\n", length, kHostSize);
        }
        host[length > kHostSize ? 0 : length - 1] = '\0';
    }
    uint16_t port = kHttpPort;
    if (char *colon = strchr(host, ':')) {
        *colon = '\0';
        port = static_cast<uint16_t>(ParseInt(colon + 1));
    }
    DnsAddrEntry entries[kDnsMaxAddresses] = {};
    if (DNS_GetA(host, entries, timings.resolverSeconds) != 0) {
        TQ_LOG_FOR(kRequest, "DNS_GetA(%s) return error [%s]\n", host, url);
        return -1;
    }
    int total = -1;
    for (int i = 0; i < kDnsMaxAddresses && total == -1; ++i) {
        if (entries[i].valid == 1) {
            const sockaddr_in server = InternetAddress(entries[i].addr, port);
            total = Exchange(server, host, authorization, path, result, command, timings);
        }
    }
    return total;
}

int COM_SubGetPostHttpContent(const char *url, char **result, HttpAuthInfo *auth, int method,
                              const char *data, int keepHeader, const char *cookie, int https) {
    const HttpCommand command{method, data, keepHeader != 0, cookie, https != 0};
    return COM_RequestHttpContent(url, result, auth, command, kHttpTimings);
}

int COM_GetHttpContent(const char *url, char **result, HttpAuthInfo *auth) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 0, nullptr, 0);
}

int COM_GetHttpsContent(const char *url, char **result, HttpAuthInfo *auth) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 0, nullptr, 1);
}

int COM_GetHttpContentWithHeader(const char *url, char **result, HttpAuthInfo *auth) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 1, nullptr, 0);
}

int COM_PostHttpContent(const char *url, char **result, HttpAuthInfo *auth, const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 0, nullptr, 0);
}

int COM_PostHttpContentWithHeader(const char *url, char **result, HttpAuthInfo *auth,
                                  const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 1, nullptr, 0);
}

int COM_PostHttpsContentWithHeader(const char *url, char **result, HttpAuthInfo *auth,
                                   const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 1, nullptr, 1);
}

int COM_PostMultipartHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                                 const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST_MULTIPART, data, 0, nullptr,
                                     0);
}

int COM_GetCookieHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                             const char *cookie) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 0, cookie, 0);
}

int COM_PostCookieHttpContent(const char *url, char **result, HttpAuthInfo *auth, const char *data,
                              const char *cookie) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 0, cookie, 0);
}

int COM_SendUserDefHttpHdr(const char *url, char **result, HttpAuthInfo *auth,
                           const char *request) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_USER_DEFINED, request, 0, nullptr,
                                     0);
}

int COM_GetContentLengthInHttpHeader(const char *buf, int len) {
    static constexpr char kName[] = "Content-Length";
    static constexpr int kNameLength = sizeof kName - 1;
    int result = kUnknownLength;
    for (int i = 0; i < len - kNameLength - 1; ++i) {
        if (strncasecmp(buf + i, kName, kNameLength) != 0) {
            continue;
        }
        int at = i;
        while (at < len && !isdigit(static_cast<unsigned char>(buf[at])) &&
               !(buf[at] == '\r' && at + 1 < len && buf[at + 1] == '\n')) {
            ++at;
        }
        int64_t value = 0;
        const int firstDigit = at;
        for (; at < len && isdigit(static_cast<unsigned char>(buf[at])); ++at) {
            value = std::min<int64_t>(value * 10 + (buf[at] - '0'), INT_MAX);
        }
        result = at > firstDigit ? static_cast<int>(value) : result;
    }
    return result;
}
