// Basic and Digest authorization as it goes out, and challenges as they come in.
#include "net/http_auth.h"

#include <cstring>
#include <memory>

#include "net/http.h"
#include "support/peers.h"

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
    full->qop[4] = ',';  // cut before the fields that run on into it are read
    ScriptedServer server([](int) {});
    OBSERVE(COM_GetHttpContent(server.Url("/" + std::string(300, 'u')).c_str(), r, full.get()));
    const std::string &request = server.Requests()[0];
    EXPECT_SAYS(request, ",uri=\"/" + std::string(254, 'u') + "\",cnonce=\"");
    EXPECT_SAYS(request, "username=\"" + std::string(28 + 32 + 80 + 4, 'A') + "\",realm=\"");
    EXPECT_SAYS(request, ",opaque=\"" + std::string(80, 'A') + "00000001\"\r\n\r\n");
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
    EXPECT_SAYS(requests[1], "Digest username=\"u\",realm=\"r\",nonce=\"n\",uri=\"/p\",");
    EXPECT_EQ(requests[1], requests[2]);
}
