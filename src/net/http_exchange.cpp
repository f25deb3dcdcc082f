#include "net/http_exchange.h"

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

#include "common/address.h"
#include "common/buffer.h"
#include "common/clock.h"
#include "common/identification.h"
#include "common/owners.h"
#include "common/pause.h"
#include "common/socket.h"
#include "common/text.h"
#include "frame/message.h"
#include "net/dns.h"

static constexpr char kSource[] = "COMMON";
static constexpr MessageOrigin kRequest = TQ_ORIGIN("COM_SubGetPostHttpContent");
static constexpr MessageOrigin kSend = TQ_ORIGIN("COM_SubSendHttpCmd");
static constexpr int kHostSize = 80;
static constexpr uint16_t kHttpPort = 80;
static constexpr size_t kReceiveSize = 4096;
static constexpr int kToleratedFailedWaits = 1;
static constexpr int kPauseRetries = 1000;
static constexpr int kUnknownLength = -1;

// The whole request; empty when there is no memory for it.
static HeapBlock<char> BuildRequest(const net::HttpCommand &command, const char *host, int port,
                                    const char *path, const char *authorization) {
    const char *data = command.data ? command.data : "";
    const bool get = command.method == HTTP_CMD_GET;
    const bool form = command.method == HTTP_CMD_POST;
    if (!get && !form && command.method != HTTP_CMD_POST_MULTIPART) {
        return FormatText("%s", command.method == HTTP_CMD_USER_DEFINED ? data : "");
    }
    char formLines[96];
    formLines[0] = '\0';
    if (form) {
        snprintf(formLines, sizeof formLines,
                 "content-length: %d\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                 static_cast<int>(strlen(data)));
    }
    const char *cookie = get || form ? command.cookie : nullptr;
    // "Accept :" with its blank is what the appliances' servers know a unit's requests by.
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

// Calls until no signal has cut it short: with its time-outs, a socket reports even a stop and a
// continue of the process as one.
template <class Call>
static auto CallToTheEnd(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

namespace {

// When an exchange is over, whatever still comes.
class Deadline {
  public:
    explicit Deadline(int seconds) : bounded_(seconds > 0), end_(MonotonicSeconds() + seconds) {}

    // `wait`, or what is left when that is less. In whole seconds, and 0 when it is over.
    timeval Shorten(const timeval &wait) const {
        const time_t left = std::max<time_t>(end_ - MonotonicSeconds(), 0);
        return bounded_ && left <= wait.tv_sec ? timeval{left, 0} : wait;
    }
    bool Passed() const { return bounded_ && MonotonicSeconds() >= end_; }

  private:
    bool bounded_;
    time_t end_;
};

}  // namespace

// Sends the text, in pieces where signals interrupt, but none after `seconds`. Returns false with
// errno set on failure.
static bool SendText(int sock, std::span<const char> text, int seconds) {
    const Deadline deadline(seconds);
    do {
        const ssize_t sent =
            CallToTheEnd([&] { return send(sock, text.data(), text.size(), MSG_NOSIGNAL); });
        if (sent < 0) {
            return false;
        }
        text = text.subspan(static_cast<size_t>(sent));
    } while (!text.empty() && !deadline.Passed());
    return true;
}

static void Receive(int sock, std::span<char> buffer, const net::HttpLimits &limits,
                    const Deadline &deadline, Answer &answer) {
    int failedWaits = 0;
    size_t received = 0;
    bool complete = false;
    while (!complete && !deadline.Passed()) {
        timeval remaining = deadline.Shorten(limits.readable);
        if (WaitForSocket(sock, POLLIN, &remaining) <= 0) {
            if (++failedWaits > kToleratedFailedWaits) {
                return;
            }
            continue;
        }
        const ssize_t count =
            CallToTheEnd([&] { return recv(sock, buffer.data(), buffer.size(), MSG_NOSIGNAL); });
        if (count < 0) {
            TQ_LOG_FOR(kSend, "recv() = %d : %m\n", static_cast<int>(count));
        }
        complete = count <= 0 || answer.Take(buffer.first(static_cast<size_t>(count)));
        received += count > 0 ? static_cast<size_t>(count) : 0;
        complete = complete || (limits.answerSize > 0 && received >= limits.answerSize);
    }
}

// Connects within `seconds`, which then also bound each send and receive.
static bool Connect(int sock, const sockaddr_in &server, const char *shownPath, int seconds) {
    COM_SetSocketTimeout(sock, seconds);
    // Called once more, it goes on waiting for the connection that it has begun.
    if (CallToTheEnd([&] { return connect(sock, AsSockaddr(server), sizeof server); }) == 0) {
        return true;
    }
    char address[INET_ADDRSTRLEN];
    WriteDottedAddress(server.sin_addr, address);
    TQ_LOG_FOR(kSend, "connect(%s:%d) error : %m\n", address, ntohs(server.sin_port));
    TQ_LOG_FOR(kSend, "Fail to send [%s]\n", shownPath);
    return false;
}

// Waits for room to send in. Returns what WaitForSocket does.
static int WaitForRoom(int sock, const char *shownPath, timeval remaining) {
    const int ready = WaitForSocket(sock, POLLOUT, &remaining);
    if (ready == 0) {
        TQ_LOG_FOR(kSend, "select([%s], %d) timeout\n", shownPath, sock);
    } else if (ready < 0) {
        TQ_LOG_FOR(kSend, "select([%s], %d, %d.%06d sec) error : %m\n", shownPath, sock,
                   static_cast<int>(remaining.tv_sec), static_cast<int>(remaining.tv_usec));
    }
    return ready;
}

int net::ExchangeHttp(const sockaddr_in &server, const char *host, const char *authorization,
                      const char *path, char **result, HttpPart part, const HttpCommand &command,
                      const HttpLimits &limits) {
    const char *shownPath = path ? path : "(null)";
    const Deadline deadline(limits.totalSeconds);
    UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        TQ_LOG_FOR(kSend, "socket() error : %m\n");
        return 0;
    }
    if (!Connect(sock.get(), server, shownPath, limits.socketSeconds)) {
        return -1;
    }
    if (command.https) {
        TQ_LOG_FOR(kSend, "Warning! trying to send https command w/o ENABLE_SSL_SUPPORT\n");
    }

    Answer answer(result, part == HttpPart::kHeaderAndBody);
    char block[kReceiveSize];
    std::span<char> buffer(block);
    HeapBlock<char> request;
    const int ready = WaitForRoom(sock.get(), shownPath, limits.writable);
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
        if (!SendText(sock.get(), text, limits.socketSeconds)) {
            TQ_LOG_FOR(kSend, "send() failed : %m\n");
        }
        // A form gets its answer in the buffer it was sent from, in blocks of no more than its
        // size.
        buffer = command.method == HTTP_CMD_POST ? text : buffer;
    }
    COM_TakeABreak(limits.pause, kPauseRetries);
    Receive(sock.get(), buffer, limits, deadline, answer);
    return answer.Finish();
}

int net::FetchHttp(const char *url, const char *authorization, char **result, HttpPart part,
                   const HttpCommand &command, const HttpLimits &limits) {
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
    if (DNS_GetA(host, entries, limits.resolverSeconds) != 0) {
        TQ_LOG_FOR(kRequest, "DNS_GetA(%s) return error [%s]\n", host, url);
        return -1;
    }
    int total = -1;
    for (int i = 0; i < kDnsMaxAddresses && total == -1; ++i) {
        if (entries[i].valid == 1) {
            const sockaddr_in server = InternetAddress(entries[i].addr, port);
            total = ExchangeHttp(server, host, authorization, path, result, part, command, limits);
        }
    }
    return total;
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
