#include "net/http.h"

#include <gtest/gtest.h>

#include "net/peers.h"

using std::string_literals::operator""s;

#ifdef __SANITIZE_ADDRESS__
// Bodies beyond this find no memory.
static constexpr int kMegabytesToBeHad = 3;
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=3";
}
#endif

static const std::string kLines =
    "Accept : */*\r\nAccept-Language: *\r\nAccept-Encoding: *\r\n"
    "User-Agent: $Id: COMMON.h 9516 2013-04-10 12:07:55Z tq $\r\n";
static const std::string kTwoBytes = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";

static void AnswerOk(int peer) {
    SendBytes(peer, kTwoBytes + "ok");
    HoldOpen(peer);
}

// The standard output of some work.
static std::string Output(const std::function<void()> &work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

TEST(Http, RequestTexts) {
    const std::string form = "a=1&b=2", longText(10000, 'p'), megabyte(1 << 20, 'd');
    const char *parts = "Content-Length: 3\r\n\r\nabc", *tail = "Connection: Keep-Alive\r\n";
    const auto get = [&](const std::string &path, const std::string &host,
                         const std::string &cookie = "") {
        return "GET " + path + " HTTP/1.1\r\n" + kLines + host + tail + cookie + "\r\n";
    };
    const auto post = [&](const std::string &host, const std::string &data,
                          const std::string &cookie = "") {
        return "POST /p HTTP/1.0\r\n" + kLines + host +
               "content-length: " + std::to_string(data.size()) +
               "\r\nContent-Type: application/x-www-form-urlencoded\r\n" + tail + cookie + "\r\n" +
               data;
    };
    using Call = std::function<int(const char *url, char **result)>;
    const auto sub = [&](int method, const char *data) -> Call {
        return [=](const char *url, char **result) {
            return COM_SubGetPostHttpContent(url, result, nullptr, method, data, 0, "c=d", 0);
        };
    };
    const struct {
        const char *what;
        std::string path;
        Call call;
        std::function<std::string(const std::string &host)> request;
        bool keepsHeader, warns;
    } cases[] = {
        {"get", "/auth/login?x=y", [](auto u, auto r) { return COM_GetHttpContent(u, r, nullptr); },
         [&](auto &h) { return get("/auth/login?x=y", h); }, false, false},
        {"https", "", [](auto u, auto r) { return COM_GetHttpsContent(u, r, nullptr); },
         [&](auto &h) { return get("/", h); }, false, true},
        {"with header", "/p",
         [](auto u, auto r) { return COM_GetHttpContentWithHeader(u, r, nullptr); },
         [&](auto &h) { return get("/p", h); }, true, false},
        {"cookie", "/" + longText,
         [&](auto u, auto r) { return COM_GetCookieHttpContent(u, r, nullptr, longText.c_str()); },
         [&](auto &h) { return get("/" + longText, h, "Cookie: " + longText + "\r\n"); }, false,
         false},
        {"post", "/p",
         [&](auto u, auto r) { return COM_PostHttpContent(u, r, nullptr, form.c_str()); },
         [&](auto &h) { return post(h, form); }, false, false},
        {"post with header", "/p",
         [&](auto u, auto r) { return COM_PostHttpContentWithHeader(u, r, nullptr, ""); },
         [&](auto &h) { return post(h, ""); }, true, false},
        {"https post", "/p",
         [&](auto u, auto r) {
             return COM_PostHttpsContentWithHeader(u, r, nullptr, form.c_str());
         },
         [&](auto &h) { return post(h, form); }, true, true},
        {"post with cookie", "/p",
         [&](auto u, auto r) {
             return COM_PostCookieHttpContent(u, r, nullptr, megabyte.c_str(), "c=d");
         },
         [&](auto &h) { return post(h, megabyte, "Cookie: c=d\r\n"); }, false, false},
        {"multipart", "/p",
         [&](auto u, auto r) { return COM_PostMultipartHttpContent(u, r, nullptr, parts); },
         [&](auto &h) { return "POST /p HTTP/1.0\r\n" + kLines + h + tail + parts; }, false, false},
        {"multipart ignores the cookie", "/p", sub(HTTP_CMD_POST_MULTIPART, megabyte.c_str()),
         [&](auto &h) { return "POST /p HTTP/1.0\r\n" + kLines + h + tail + megabyte; }, false,
         false},
        {"user-defined", "/p",
         [&](auto u, auto r) { return COM_SendUserDefHttpHdr(u, r, nullptr, megabyte.c_str()); },
         [&](auto &) { return megabyte; }, false, false},
        {"RTSP", "/p", sub(HTTP_CMD_DESCRIBE, "data"), [](auto &) { return ""; }, false, false}};
    for (const auto &c : cases) {
        ScriptedServer server(AnswerOk);
        char *result = nullptr;
        int size = 0;
        const std::string messages =
            Output([&] { size = c.call(server.Url(c.path).c_str(), &result); });
        const HeapBlock<char> owner(result);
        const std::string wanted = c.keepsHeader ? kTwoBytes + "ok" : "ok";
        ASSERT_EQ(size, wanted.size() + 1) << c.what;
        EXPECT_EQ(result, wanted) << c.what;
        const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
        EXPECT_TRUE(server.Requests()[0] == c.request(host))
            << c.what << ": " << server.Requests()[0].substr(0, 2000);
        EXPECT_EQ(c.warns, messages.find("COM_SubSendHttpCmd(): Warning! trying to send https "
                                         "command w/o ENABLE_SSL_SUPPORT\n") != std::string::npos);
    }
}

enum Ending { kClose, kHold, kReset };

TEST(Http, Answers) {
    constexpr double kWait = 0.5;
    HttpTimings timings;
    timings.readable = {0, 500000};
    const std::string five = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n";
    const std::string endless = "X: " + std::string(1 << 20, 'h');
    const struct {
        const char *what;
        std::vector<std::string> blocks;
        Ending ending;
        bool keepHeader;
        std::string stored;
        int failedWaits;
    } cases[] = {
        {"length 5", {five + "hello"}, kHold, false, "hello", 0},
        {"more than announced", {five + "hello, world"}, kHold, false, "hello, world", 0},
        {"drip", {five, "h", "e", "l", "l", "o"}, kHold, false, "hello", 0},
        {"kept header counts", {five, "he", "llo"}, kHold, true, five + "he", 0},
        {"kept header alone ends nothing", {five}, kHold, true, five, 2},
        {"length 0", {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}, kHold, false, "", 0},
        {"length 0 with a body", {"A: b\r\nContent-Length: 0\r\n\r\nx"}, kHold, false, "x", 0},
        {"no length, closed", {"HTTP/1.0 200 OK\r\n\r\nab", "cd"}, kClose, false, "abcd", 0},
        {"no length, held", {"HTTP/1.0 200 OK\r\n\r\nab"}, kHold, false, "ab", 2},
        {"last length of a block",
         {"Content-Length: 90\r\nX-Content-Length-Y: 3\r\n\r\nabc"},
         kHold,
         false,
         "abc",
         0},
        {"huge length",
         {"Content-Length: 99999999999999999999\r\n\r\nabc"},
         kClose,
         false,
         "abc",
         0},
        {"split between lines",
         {"HTTP/1.1 200 OK\r\n", "Content-Length: 3\r\n\r\nabc"},
         kHold,
         false,
         "abc",
         0},
        {"split in the name", {"A: b\r\nCont", "ent-Length: 3\r\n\r\nabc"}, kHold, false, "abc", 2},
        {"split in the blank line", {"Content-Length: 3\r\n\r", "\nabc"}, kClose, false, "", 0},
        {"the same, kept",
         {"Content-Length: 3\r\n\r", "\nabc"},
         kHold,
         true,
         "Content-Length: 3\r\n\r\nabc",
         2},
        {"line feeds only", {"HTTP/1.0 200 OK\nContent-Length: 2\n\nhi"}, kHold, false, "hi", 0},
        {"CRLF wins", {"A: b\n\none\r\n\r\ntwo"}, kClose, false, "two", 0},
        {"zero byte in the body", {"Content-Length: 3\r\n\r\na\0b"s}, kHold, false, "a\0b"s, 0},
        {"zero byte in the header", {"A: \0b\r\n\r\nabc"s}, kClose, false, "", 0},
        {"garbage", {"\xFF\xFE%s%n\r\n"}, kClose, false, "", 0},
        {"endless header", {endless}, kClose, false, "", 0},
        {"endless header, kept", {endless}, kClose, true, endless, 0},
        {"silence", {}, kHold, false, "", 2},
        {"closed", {}, kClose, false, "", 0},
        {"reset", {five + "he"}, kReset, false, "he", 0}};
    for (const auto &c : cases) {
        ScriptedServer server([&](int peer) {
            for (const std::string &block : c.blocks) {
                SendBytes(peer, block);
                Sleep(100);
            }
            const linger abort{1, 0};
            if (c.ending == kReset) {
                setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            } else if (c.ending == kHold) {
                HoldOpen(peer);
            }
        });
        char *result = nullptr;
        int size = 0;
        double elapsed = 0;
        const std::string messages = Output([&] {
            elapsed = Seconds([&] {
                size = COM_RequestHttpContent(server.Url("/").c_str(), &result, nullptr,
                                              {.keepHeader = c.keepHeader}, timings);
            });
        });
        const HeapBlock<char> owner(result);
        EXPECT_EQ(size, c.stored.empty() ? 0 : c.stored.size() + 1) << c.what;
        EXPECT_EQ(result == nullptr, c.stored.empty()) << c.what;
        EXPECT_TRUE(!result || size < 1 || std::string(result, size) == c.stored + '\0') << c.what;
        EXPECT_EQ(c.ending == kReset,
                  messages.find("recv() = -1 : Connection reset by peer\n") != std::string::npos);
        EXPECT_GE(elapsed, 0.03 + c.failedWaits * kWait) << c.what;
        EXPECT_LT(elapsed, 0.9 + c.failedWaits * kWait) << c.what;
    }
}

TEST(Http, ContentLengthOfABlock) {
    const struct {
        std::string block;
        int length;
    } cases[] = {{"Content-Length:5", 5},
                 {"Content-Length5", -1},
                 {"content-length: 12\r\n", 12},
                 {"Content-Length: 1234567", 1234567},
                 {"Content-Length:\r\nX: 7", -1},
                 {"Content-Length: -8\r\n", 8},
                 {"Content-Length: \r", -1},
                 {"XContent-Length is 4", 4},
                 {"Content-Length: 9\nContent-Length: x\r\n6", 9},
                 {"", -1},
                 {"Content-Length: 4294967297\r\n", 2147483647}};
    for (const auto &c : cases) {
        EXPECT_EQ(COM_GetContentLengthInHttpHeader(Exactly(c.block).get(),
                                                   static_cast<int>(c.block.size())),
                  c.length)
            << c.block;
    }
}

TEST(Http, Failures) {
    const std::string longHost(80, 'h');
    BoundSocket unheard(SOCK_STREAM);
    const std::string port = std::to_string(ntohs(unheard.address.sin_port));
    const struct {
        std::string url, messages;
    } cases[] = {
        {"127.0.0.1:" + port + "/x",
         "connect(127.0.0.1:" + port + ") error : Connection refused\n|Fail to send [/x]\n"},
        {"127.0.0.1:" + port, "Fail to send [(null)]\n"},
        {longHost + "/x",
         "buffer overflow : (len, limit) = (81, 80)\n|invalid pDomainName []\n|"
         "DNS_GetA() return error [" +
             longHost + "/x]\n"},
        {"unit:80/x", "DNS_GetA(unit) return error [unit:80/x]\n"}};
    for (const auto &c : cases) {
        char *result = nullptr;
        const std::string messages = Output(
            [&] { EXPECT_EQ(COM_GetHttpContent(c.url.c_str(), &result, nullptr), -1) << c.url; });
        EXPECT_EQ(result, nullptr);
        std::istringstream wanted(c.messages);
        for (std::string message; std::getline(wanted, message, '|');) {
            EXPECT_NE(messages.find(message), std::string::npos) << messages;
        }
    }
}

// As much as is stored is the caller's; where memory runs out, it ends in a zero byte all the same.
TEST(Http, LongBody) {
#ifdef __SANITIZE_ADDRESS__
    constexpr int kSent = (kMegabytesToBeHad << 20) + 65536;
    constexpr int kStored = kMegabytesToBeHad << 20;
#else
    constexpr int kSent = 100 << 20;
    constexpr int kStored = kSent + 1;
#endif
    const std::string piece(1 << 16, 'b');
    ScriptedServer server([&](int peer) {
        SendBytes(peer, "HTTP/1.0 200 OK\r\n\r\n");
        for (int sent = 0; sent < kSent; sent += static_cast<int>(piece.size())) {
            SendBytes(peer, piece);
        }
    });
    char *result = nullptr;
    int size = 0;
    const std::string messages =
        Output([&] { size = COM_GetHttpContent(server.Url("/").c_str(), &result, nullptr); });
    const HeapBlock<char> owner(result);
    ASSERT_NE(result, nullptr);
    EXPECT_GT(size, kStored - 4096);
    EXPECT_LE(size, kStored);
    EXPECT_EQ(strlen(result), size - 1);
    EXPECT_EQ(kStored < kSent,
              messages.find("COM_SubSendHttpCmd(): COM_ReallocAndCopyBuf(") != std::string::npos);
}

namespace {

// The waits that nobody shortens, beside all other tests: 2 * 16 s for a silent web server, 20 s
// for the first of three questions to a name server.
class LongWaits : public testing::Environment {
  public:
    void SetUp() override {
        if (testing::GTEST_FLAG(filter) != "*") {
            return;
        }
        web_ = std::thread([this] {
            ScriptedServer server(HoldOpen);
            char *result = nullptr;
            webSeconds_ = Seconds([&] {
                webResult_ = COM_GetHttpContent(server.Url("/").c_str(), &result, nullptr);
            });
        });
        names_ = std::thread([this] {
            BoundSocket server(SOCK_DGRAM), client(SOCK_DGRAM);
            std::thread answer([&] {
                char query[512];
                recv(server.fd.get(), query, sizeof query, 0);
                recv(server.fd.get(), query, sizeof query, 0);
                const std::string reply = "\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\4\x0A\0\0\1"s;
                sendto(server.fd.get(), reply.data(), reply.size(), 0, AsSockaddr(client.address),
                       sizeof client.address);
            });
            DnsAddrEntry entries[kDnsMaxAddresses] = {};
            nameSeconds_ = Seconds([&] {
                nameResult_ = DNS_SendAQuery(client.fd.get(), &server.address, "a.b", entries, -1);
            });
            answer.join();
        });
    }
    void TearDown() override {
        if (web_.joinable()) {
            web_.join();
            names_.join();
            EXPECT_EQ(webResult_, 0);
            EXPECT_NEAR(webSeconds_, 32.1, 0.4);
            EXPECT_EQ(nameResult_, 0);
            EXPECT_NEAR(nameSeconds_, 20.1, 0.4);
        }
    }

  private:
    std::thread web_, names_;
    int webResult_ = -1, nameResult_ = -1;
    double webSeconds_ = 0, nameSeconds_ = 0;
};

}  // namespace

static testing::Environment *const kLongWaits = testing::AddGlobalTestEnvironment(new LongWaits);
