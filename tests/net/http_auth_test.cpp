#include "net/http_auth.h"

#include <cstring>
#include <memory>

#include "net/http.h"
#include "net/peers.h"

static HttpAuthInfo Record(int method, const char *user, const char *password) {
    HttpAuthInfo auth{};
    auth.method = method;
    CopyText(auth.username, user);
    CopyText(auth.password, password);
    return auth;
}

static std::string Header(const char *url, HttpAuthInfo *auth, int result = 0) {
    std::vector<char> out(kHttpAuthStrSize);
    EXPECT_EQ(COM_GenHttpAuthStr("GET", url, auth, out.data()), result);
    return out.data();
}

// The example of RFC 2617, section 3.5, with its client nonce replaced by the time.
TEST(HttpAuth, DigestHeader) {
    const std::string nonce = "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\"",
                      realm = "realm=\"testrealm@host.com\"", opaque = "opaque=\"5ccc069c403e\"",
                      start = "Authorization: Digest username=\"Mufasa\"," + realm + "," + nonce +
                              ",uri=\"/dir/index.html\",",
                      challenge = "x\r\nwww-authenticate: digest " + realm +
                                  ",\r\n qop=\"auth,auth-int\"," + nonce + "\r\nX: " + opaque;
    HttpAuthInfo auth = Record(HTTP_AUTH_DIGEST, "Mufasa", "Circle Of Life");
    EXPECT_EQ(COM_GetDigestStringInBuf(challenge.c_str(), &auth), 0);
    char date[32], cnonce[kMd5HexLength + 1] = {}, response[kMd5HexLength + 1] = {};
    std::string header;
    time_t now;
    do {
        now = time(nullptr);
        header = Header("h.x/dir/index.html", &auth);
    } while (now != time(nullptr));
    COM_MakeStrMD5(cnonce, ctime_r(&now, date));
    const std::string hashed = "939e7578ed9e3c518a452acee763bce9:"s + auth.nonce +
                               ":00000001:" + cnonce + ":auth:39aff3a2bab6126f332b942af96d3366";
    COM_MakeStrMD5(response, hashed.c_str());
    EXPECT_EQ(header, start + "cnonce=\"" + cnonce +
                          "\",nc=00000001,algorithms=\"MD5\",response=\"" + response +
                          "\",qop=\"auth\"," + opaque + "\r\n\r\n");
    EXPECT_EQ(auth.ha1 + " "s + auth.ha2 + " " + auth.response + " " + auth.qop,
              hashed.substr(0, 32) + " 39aff3a2bab6126f332b942af96d3366 " + response + " auth");
    auth.qop[0] = '\0';
    EXPECT_EQ(Header("h.x/dir/index.html", &auth),
              start + "response=\"670fd8c2df070c60b045671b8b24ff02\"\r\n\r\n");
}

TEST(HttpAuth, Challenges) {
    const std::string r80(80, 'r'), longer(5000, 'r');
    const std::tuple<std::string, std::vector<std::string>> cases[] = {
        {"nonce=\"n\"\r\nrealm=\"later\"", {"later", "", "n", ""}},
        {"realm=\"" + r80 + "\",qop=\"auth\",nonce=\"n\"", {r80 + "auth", "auth", "n", ""}},
        {"realm=\"" + longer + "\",nonce=\"n\"", {r80, "", "n", ""}},
        {"qop=\"auth-int,auth,xy\",nonce=\"n\"", {"", "auth-int,auth,xyn", "n", ""}},
        {"nonce=\"n\",opaque=\"" + longer + "\"", {"", "", "n", r80}},
        {"qop=auth,nonce=\"n\"", {"", "n", "n", ""}},
        {"realm=\"r", {"", "", "", ""}}};
    for (const auto &[text, values] : cases) {
        const auto auth = std::make_unique<HttpAuthInfo>();
        const std::string challenge = "WWW-Authenticate: Digest " + text;
        EXPECT_EQ(COM_GetDigestStringInBuf(challenge.c_str() + 1, auth.get()), -1);
        EXPECT_EQ(COM_GetDigestStringInBuf(challenge.c_str(), auth.get()), 0);
        const char *realm = reinterpret_cast<char *>(auth.get()) + offsetof(HttpAuthInfo, realm);
        EXPECT_EQ(values, (std::vector<std::string>{realm, realm + 80, realm + 96, realm + 176}));
    }
}

// A line that COM_GenHttpAuthStr has no room for is sent whole by the engine.
TEST(HttpAuth, OtherHeaders) {
    HttpAuthInfo other = Record(7, "u", "p"), unnamed = Record(HTTP_AUTH_BASIC, "", "secret");
    EXPECT_EQ(Header("h/x", nullptr), "\r\n");
    EXPECT_EQ(Header("h/x", &other), "\r\n");
    EXPECT_EQ(Header("h/x", &unnamed), "Authorization: Basic OnNlY3JldA==\r\n\r\n");
    const auto full = std::make_unique<HttpAuthInfo>();
    memset(full.get(), 'A', sizeof *full);
    full->method = HTTP_AUTH_BASIC;
    const std::string line = Header("h/x", full.get());
    EXPECT_EQ(line.substr(std::min<size_t>(line.size(), 21 + 100)), "QUFBQQ==\r\n\r\n");
    full->method = HTTP_AUTH_DIGEST;
    EXPECT_EQ(Header("h/x", full.get(), -1), "\r\n");
    ScriptedServer server([](int) {});
    OBSERVE(COM_GetHttpContent(server.Url("/" + std::string(300, 'u')).c_str(), r, full.get()));
    const std::string &request = server.Requests()[0];
    EXPECT_TRUE(Holds(request, ",uri=\"/" + std::string(254, 'u') + "\",cnonce=\"")) << request;
    EXPECT_TRUE(Holds(request, "\"" + std::string(316, 'A') + "00000001\",realm=\"")) << request;
    EXPECT_TRUE(Holds(request, ",opaque=\"" + std::string(80, 'A') + "00000001\"\r\n\r\n"));
}

// The challenge is fetched with GET whatever is to be authorized, and once for a record.
TEST(HttpAuth, FetchesOneChallenge) {
    const std::string challenge = "WWW-Authenticate: Digest realm=\"r\",nonce=\"n\"\r\n\r\n";
    ScriptedServer server([&](int peer) { SendBytes(peer, challenge); });
    HttpAuthInfo auth = Record(HTTP_AUTH_DIGEST, "u", "p");
    OBSERVE(COM_PostHttpContent(server.Url("/p").c_str(), r, &auth, "d"));
    OBSERVE(COM_PostHttpContent(server.Url("/p").c_str(), r, &auth, "d"));
    const auto &requests = server.Requests();
    EXPECT_TRUE(requests[0].starts_with("GET /p ") && !Holds(requests[0], "Authorization"));
    EXPECT_TRUE(Holds(requests[1], "Digest username=\"u\",realm=\"r\",nonce=\"n\",uri=\"/p\","));
    EXPECT_EQ(requests[1], requests[2]);
}

static const char kLighttpd[] = R"(
server.modules = ("mod_auth", "mod_authn_file", "mod_cgi")
server.document-root = "/tmp"
server.port = 8080
server.bind = "127.0.0.1"
server.http-parseopts = ("header-strict" => "disable")
auth.backend = "htdigest"
auth.backend.htdigest.userfile = "/tmp/users"
auth.require = (
    "/basic" => ("method" => "basic", "realm" => "unit", "require" => "valid-user"),
    "/digest" => ("method" => "digest", "realm" => "unit", "require" => "valid-user"))
cgi.assign = (".sh" => "/bin/sh")
$HTTP["url"] =~ "close$" { server.max-keep-alive-requests = 0 }
)";

// Of the two addresses of the name, only one has a web server.
TEST(HttpAuth, RealServers) {
    const std::string big(300000, 'B'), data(5000, 'd'), site = "nvr.test:8080";
    Shell("cd /tmp && mkdir -p basic digest && touch empty && printf welcome | tee page >close");
    WriteFile("/tmp/basic/big", big);
    WriteFile("/tmp/digest/big", big);
    WriteFile("/tmp/echo.sh",
              "printf 'X: y\\r\\n\\r\\n%s %s|' \"$CONTENT_TYPE\" \"$HTTP_COOKIE\"\ncat\n");
    WriteFile("/tmp/users", "admin:unit:8b31922f03d06e6fc90f6c3edc35b23d\n");  // secret
    WriteFile("/tmp/lighttpd.conf", kLighttpd);
    WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    Shell("/usr/sbin/lighttpd -f /tmp/lighttpd.conf");
    ServeNames();
    const std::tuple<std::string, int, const char *, std::string> cases[] = {
        {"/page", HTTP_AUTH_NONE, "", "welcome"},
        {"/close", HTTP_AUTH_NONE, "", "welcome"},
        {"/absent", HTTP_AUTH_NONE, "", "404 Not Found"},
        {"/empty", HTTP_AUTH_NONE, "", ""},
        {"/basic/big", HTTP_AUTH_BASIC, "secret", big},
        {"/basic/big", HTTP_AUTH_BASIC, "wrong", "401 Unauthorized"},
        {"/digest/big", HTTP_AUTH_DIGEST, "secret", big},
        {"/digest/big", HTTP_AUTH_DIGEST, "wrong", "401 Unauthorized"}};
    for (const auto &[path, method, password, body] : cases) {
        SCOPED_TRACE(path);
        const std::string url = site + path;
        const bool page = isdigit(body[0]);  // one that tells of an error in some more words
        HttpAuthInfo auth = Record(COM_GetHttpAuthMethod(url.c_str()), "admin", password);
        EXPECT_EQ(auth.method, method);
        for (int i = 0; i < (page ? 1 : 3); ++i) {
            auth.qop[0] = i == 2 ? '\0' : auth.qop[0];  // the server takes the short form, too
            const Outcome got = OBSERVE(COM_GetHttpContent(url.c_str(), r, &auth));
            EXPECT_TRUE(page ? Holds(got.bytes, body) : got.bytes == body) << got.bytes;
            EXPECT_LT(got.seconds, 4);
        }
    }
    // An empty answer is one: the other address isn't asked.
    ScriptedServer empty([](int) {});
    EXPECT_LT(OBSERVE(COM_GetHttpContent(empty.Url("", "nvr.test").c_str(), r, nullptr)).seconds,
              4);
    const std::string echo = site + "/echo.sh";
    const char *parts = "Content-Type: x/y\r\nContent-Length: 3\r\n\r\nabc";
    EXPECT_EQ(
        OBSERVE(COM_PostCookieHttpContent(echo.c_str(), r, nullptr, data.c_str(), "c=d")).bytes,
        "application/x-www-form-urlencoded c=d|" + data);
    EXPECT_EQ(OBSERVE(COM_PostMultipartHttpContent(echo.c_str(), r, nullptr, parts)).bytes,
              "x/y |abc");
}
