// The HTTP client's requests, answers in any pieces, and waits.
#include "net/http.h"

#include <signal.h>
#include <sys/resource.h>

#include "support/peers.h"

#ifdef __SANITIZE_ADDRESS__
// Here more than 3 MB can't be had at a time.
static constexpr int kBodySize = (3 << 20) + 65536, kGreatestBody = 3 << 20;
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=3";
}
#else
static constexpr int kBodySize = 100 << 20, kGreatestBody = kBodySize + 1;
#endif

#define CALL(expression) [&](const char *u, char **r) { return (expression); }

// One exchange with the server alone: no name is resolved, no authorization made.
static int SendDirectly(const char *url, char **result) {
    const uint16_t port = static_cast<uint16_t>(atoi(strchr(url, ':') + 1));
    const sockaddr_in server = InternetAddress(htonl(INADDR_LOOPBACK), port);
    return COM_SubSendHttpCmd(&server, "127.0.0.1", "X: y\r\n\r\n", "/p", result, nullptr,
                              HTTP_CMD_POST, "a", 1, "c=d", 1);
}

TEST(Http, RequestTexts) {
    const std::string p(10000, 'p'), d(1 << 20, 'd'), parts = "Content-Length: 3\r\n\r\nabc";
    const std::string tail = "Connection: Keep-Alive\r\n", get = " HTTP/1.1\r\n@" + tail,
                      get0 = "GET /" + get + "\r\n", post = "POST /p HTTP/1.0\r\n@",
                      form = post + "content-length: ", multipart = post + tail,
                      type = "\r\nContent-Type: application/x-www-form-urlencoded\r\n" + tail;
    enum { kBody, kWarns, kHeader, kWarnsHeader };
    using Call = std::function<int(const char *url, char **result)>;
    const struct {
        int shows;
        std::string path;
        Call call;
        std::string wanted;
    } cases[] = {
        {kBody, "/", CALL(COM_GetHttpContent(u, r, nullptr)), get0},
        {kWarns, "", CALL(COM_GetHttpsContent(u, r, nullptr)), get0},
        {kHeader, "/", CALL(COM_GetHttpContentWithHeader(u, r, nullptr)), get0},
        {kBody, "/" + p, CALL(COM_GetCookieHttpContent(u, r, nullptr, p.c_str())),
         "GET /" + p + get + "Cookie: " + p + "\r\n\r\n"},
        {kBody, "/p", CALL(COM_PostHttpContent(u, r, nullptr, "a")), form + "1" + type + "\r\na"},
        {kHeader, "/p", CALL(COM_PostHttpContentWithHeader(u, r, nullptr, "")),
         form + "0" + type + "\r\n"},
        {kWarnsHeader, "/p", CALL(COM_PostHttpsContentWithHeader(u, r, nullptr, "a=1")),
         form + "3" + type + "\r\na=1"},
        {kBody, "/p", CALL(COM_PostCookieHttpContent(u, r, nullptr, d.c_str(), "c=d")),
         form + "1048576" + type + "Cookie: c=d\r\n\r\n" + d},
        {kBody, "/p", CALL(COM_SubGetPostHttpContent(u, r, nullptr, 2, parts.c_str(), 0, "c=d", 0)),
         multipart + parts},
        {kBody, "/p", CALL(COM_SendUserDefHttpHdr(u, r, nullptr, d.c_str())), d},
        {kWarnsHeader, "/p", CALL(SendDirectly(u, r)),
         form + "1" + type + "Cookie: c=d\r\nX: y\r\n\r\na"},
        {kBody, "/p", CALL(COM_SubGetPostHttpContent(u, r, nullptr, 5, "d", 0, "c=d", 0)), ""}};
    const std::string header = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";
    for (const auto &row : cases) {
        ScriptedServer server([&](int peer) {
            SendBytes(peer, header + "ok");
            HoldOpen(peer);
        });
        const Outcome got = OBSERVE(row.call(server.Url(row.path).c_str(), r));
        EXPECT_EQ(got.bytes, (row.shows >= kHeader ? header : "") + "ok");
        const char *warning = "Warning! trying to send https command w/o ENABLE_SSL_SUPPORT\n";
        EXPECT_EQ(row.shows % 2, Holds(got.messages, "COM_SubSendHttpCmd(): "s + warning));
        std::string request = server.Requests()[0];
        const std::string lines =
            "Accept : */*\r\nAccept-Language: *\r\nAccept-Encoding: *\r\n"
            "User-Agent: $Id: COMMON.h 9516 2013-04-10 12:07:55Z tq $\r\nHost: " +
            server.Url("\r\n");
        if (const size_t at = request.find(lines); at != std::string::npos) {
            request.replace(at, lines.size(), "@");
        }
        EXPECT_TRUE(request == row.wanted) << request.substr(0, 1000);
    }
}

TEST(Http, Answers) {
    enum { kHeld, kSilent, kKept, kKeptSilent, kClosed, kReset };
    const net::HttpLimits limits{.readable = {1, 0}};
    const std::string ok = "HTTP/1.1 200 OK\r\n", five = ok + "Content-Length: 5\r\n\r\n";
    const std::string three = "Content-Length: 3\r\n\r\nabc", endless(1 << 20, 'h');
    const std::tuple<std::vector<std::string>, std::string, int> cases[] = {
        {{five + "hello"}, "hello", kHeld},
        {{five + "hello, world"}, "hello, world", kHeld},
        {{five, "h", "e", "l", "l", "o"}, "hello", kHeld},
        {{five, "he", "llo"}, five + "he", kKept},
        {{five}, five, kKeptSilent},
        {{ok + "Content-Length: 0\r\n\r\n"}, "", kHeld},
        {{ok + "\r\nab", "cd"}, "abcd", kClosed},
        {{ok + "\r\nab"}, "ab", kSilent},
        {{ok + "Content-Length: 9\r\nX-" + three}, "abc", kHeld},
        {{ok + "Content-Length: 99999999999999999999\r\n\r\nabc"}, "abc", kClosed},
        // A length without digits on its line; 15 bytes before the block's end, and 16.
        {{ok + "Content-Length:\r\nX: 1\r\n\r\nabc"}, "abc", kSilent},
        {{"A: b\n\nContent-Length1"}, "Content-Length1", kSilent},
        {{"A: b\n\nContent-Length:1"}, "Content-Length:1", kHeld},
        // Split between lines, in the name, and in the blank line, which then isn't one.
        {{ok, three}, "abc", kHeld},
        {{three.substr(0, 19), "Content-Length: 9\r\n\r\nabc"}, "abc", kHeld},
        {{ok + "Con", three.substr(3)}, "abc", kSilent},
        {{ok + three.substr(0, 20), three.substr(20)}, ok + three, kKeptSilent},
        // A blank line of line feeds alone, but one of CR and LF behind it goes first.
        {{"HTTP/1.0 200 OK\nContent-Length: 2\n\nhi"}, "hi", kHeld},
        {{"A: b\n\none\r\n\r\ntwo"}, "two", kClosed},
        {{"Content-Length: 3\r\n\r\na\0b"s}, "a\0b"s, kHeld},
        {{"A: \0b\r\n\r\nabc"s}, "", kClosed},
        {{"\xFF\xFE%s%n\r\n"}, "\xFF\xFE%s%n\r\n", kKeptSilent},
        {{endless}, endless, kKeptSilent},
        {{}, "", kSilent},
        {{five + "he"}, "he", kReset}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        const auto &[blocks, stored, kind] = c;
        ScriptedServer server([&, &parts = blocks, ending = kind](int peer) {
            for (const std::string &block : parts) {
                SendBytes(peer, block);
                usleep(100000);
            }
            const linger abort{ending == kReset, 0};
            setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            if (ending < kClosed) {
                HoldOpen(peer);
            }
        });
        const net::HttpPart part = kind == kKept || kind == kKeptSilent
                                       ? net::HttpPart::kHeaderAndBody
                                       : net::HttpPart::kBody;
        const Outcome got = OBSERVE(
            net::RequestHttp(server.Url("").c_str(), r, nullptr, part, net::kHttpPage, limits));
        EXPECT_TRUE(got.bytes == stored) << got.bytes.substr(0, 1000);
        EXPECT_EQ(kind == kReset, Holds(got.messages, "recv() = -1 : Connection reset by peer\n"));
        // Two failed waits where the peer is silent, none else; a busy machine may add to both.
        const bool silent = kind == kSilent || kind == kKeptSilent;
        EXPECT_GE(got.seconds, silent ? 2 : 0);
        EXPECT_LT(got.seconds, silent ? 4 : 2);
    }
}

// Servers that never end an answer or a header, or that fall silent.
TEST(Http, Bounds) {
    const net::HttpLimits brief{.totalSeconds = 2}, small{.answerSize = 20000};
    const auto drip = [](int peer) {
        for (; send(peer, "x", 1, MSG_NOSIGNAL) == 1; usleep(50000)) {
        }
    };
    const auto flood = [block = std::string(4096, 'x')](int peer) {
        while (send(peer, block.data(), block.size(), MSG_NOSIGNAL) > 0) {
        }
    };
    const struct {
        const char *start;
        std::function<void(int peer)> goOn;
        net::HttpLimits limits;
        size_t least, most;
    } cases[] = {{"A: b\r\n\r\n", drip, brief, 1, 100},
                 {"A: b\r\n", drip, brief, 0, 0},
                 {"A: b\r\n\r\n", HoldOpen, brief, 0, 0},
                 {"A: b\r\n\r\n", flood, small, 16000, 24096}};
    for (const auto &row : cases) {
        ScriptedServer server([&](int peer) {
            SendBytes(peer, row.start);
            row.goOn(peer);
        });
        const Outcome got = OBSERVE(net::RequestHttp(
            server.Url("").c_str(), r, nullptr, net::HttpPart::kBody, net::kHttpPage, row.limits));
        EXPECT_EQ(got.bytes, std::string(got.bytes.size(), 'x'));
        EXPECT_GE(got.bytes.size(), row.least);
        EXPECT_LE(got.bytes.size(), row.most);
        EXPECT_LT(got.seconds, 4);
    }
}

// With a time-out, the system ends a connect that waits when the process stops and goes on.
TEST(Http, SurvivesAStop) {
    const BoundSocket server(SOCK_STREAM);
    listen(server.fd.get(), 0);
    const UniqueFd first(socket(AF_INET, SOCK_STREAM, 0));  // fills the queue
    EXPECT_EQ(connect(first.get(), AsSockaddr(server.address), sizeof server.address), 0);
    const std::string url = "127.0.0.1:" + std::to_string(ntohs(server.address.sin_port));
    const pid_t client = fork();
    if (client == 0) {
        char *result = nullptr;
        _exit(COM_GetHttpContent(url.c_str(), &result, nullptr));
    }
    usleep(200000);
    kill(client, SIGSTOP);
    usleep(50000);
    kill(client, SIGCONT);
    UniqueFd(accept(server.fd.get(), nullptr, nullptr)).reset();
    timeval patience{10, 0};
    if (WaitForSocket(server.fd.get(), POLLIN, &patience) == 1) {
        SendBytes(UniqueFd(accept(server.fd.get(), nullptr, nullptr)).get(), "A: b\r\n\r\nok");
    }
    int status = 0;
    waitpid(client, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST(Http, Failures) {
    const BoundSocket unheard(SOCK_STREAM);
    const std::string h(80, 'h'), port = std::to_string(ntohs(unheard.address.sin_port));
    const struct {
        std::string url, first, second;
    } cases[] = {
        {"127.0.0.1:" + port + "/x", "COM_SubSendHttpCmd(): Fail to send [/x]\n",
         "COM_SubSendHttpCmd(): connect(127.0.0.1:" + port + ") error : Connection refused\n"},
        {h + "/x", "COM_SubGetPostHttpContent(): buffer overflow : (len, limit) = (81, 80)\n",
         "COM_SubGetPostHttpContent(): DNS_GetA() return error [" + h + "/x]\n"},
        {"unit:80", "invalid pDomainName [unit]\n", "DNS_GetA(unit) return error [unit:80]\n"}};
    for (const auto &row : cases) {
        const Outcome got = OBSERVE(COM_GetHttpContent(row.url.c_str(), r, nullptr));
        EXPECT_EQ(got.result, -1);
        EXPECT_TRUE(Holds(got.messages, row.first) && Holds(got.messages, row.second))
            << got.messages;
    }
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{3, limit.rlim_max};
    const Outcome got = Observe([&](char **r) {
        setrlimit(RLIMIT_NOFILE, &none);
        const int result = COM_GetHttpContent("127.0.0.1", r, nullptr);
        setrlimit(RLIMIT_NOFILE, &limit);
        return result;
    });
    EXPECT_EQ(got.result, 0);
    EXPECT_SAYS(got.messages, "COM_SubSendHttpCmd(): socket() error : Too many open files");
}

TEST(Http, TriesAddressesUntilOneAnswers) {
    WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    ServeNames();
    ScriptedServer one([](int peer) { SendBytes(peer, "A: b\r\n\r\nok"); }, 0, INADDR_LOOPBACK),
        both([](int) {});
    for (int i = 0; i < 4; ++i) {  // the name server hands its addresses out in turn
        const std::string url = one.Url("", "nvr.test"), emptyUrl = both.Url("", "nvr.test");
        EXPECT_EQ(OBSERVE(COM_GetHttpContent(url.c_str(), r, nullptr)).bytes, "ok");
        EXPECT_EQ(OBSERVE(COM_GetHttpContent(emptyUrl.c_str(), r, nullptr)).result, 0);
    }
    EXPECT_EQ(one.Requests().size(), 4u);
    EXPECT_EQ(both.Requests().size(), 4u) << "an empty answer is one";
}

// What there is memory for ends in a zero byte, also where there is none for more.
TEST(Http, LongBody) {
    ScriptedServer server([&](int peer) {
        SendBytes(peer, "HTTP/1.0 200 OK\r\n\r\n");
        for (int sent = 0; sent < kBodySize; sent += 65536) {
            SendBytes(peer, std::string(65536, 'b'));
        }
    });
    const Outcome got = OBSERVE(COM_GetHttpContent(server.Url("").c_str(), r, nullptr));
    EXPECT_NEAR(got.result, kGreatestBody - 2048, 2048);
    EXPECT_EQ(got.bytes.find_first_not_of('b'), std::string::npos);
    EXPECT_EQ(kGreatestBody < kBodySize,
              Holds(got.messages, "COM_SubSendHttpCmd(): COM_ReallocAndCopyBuf("));
}

// The usual waits for an answer.
static testing::Environment *const kSilentServer = testing::AddGlobalTestEnvironment(new Beside([] {
    ScriptedServer server(HoldOpen);
    const time_t start = time(nullptr);
    char *result = nullptr;
    EXPECT_EQ(COM_GetHttpContent(server.Url("").c_str(), &result, nullptr), 0);
    EXPECT_NEAR(time(nullptr) - start, 32.5, 0.6);
}));
