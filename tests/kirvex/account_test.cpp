// User verification and the change of a password, with a web server that works, breaks or never
// ends.
#include "kirvex/account.h"

#include <map>

#include "kirvex/support.h"
#include "kirvex/web_session.h"

TEST(KirvexAccount, ChecksCharacters) {
    for (int c = 1; c < 256; ++c) {
        const char text[] = {'1', static_cast<char>(c), '\0'};
        const bool allowed = (c < 128 && isalnum(c)) || strchr("!@#*-_+=,./\t", c);
        EXPECT_EQ(KIRVEX_CheckAccout(text), allowed ? 0 : -1) << c;
        EXPECT_EQ(KIRVEX_CheckPasswd(text), c >= '0' && c <= '9' ? 0 : -1) << c;
    }
}

// The web server's log: Login, Account table, Change and Kick in this order; small letters for a
// refused login and for a kick without session. A guarded page is refused first, as often as the
// scheme needs.
static std::string WebLog(const std::string &requests, int refusals, const std::string &password) {
    const std::map<char, std::string> paths = {
        {'L', "auth/login"},
        {'l', "auth/login"},
        {'A', "auth/account.get"},
        {'C', "auth/config.set?ACCOUNTSETUP_PASSWORD1[0]=" + password + "&THREAD_ID=4711"},
        {'K', "Forcekick.set?ITSELF&THREAD_ID=4711"},
        {'k', "Forcekick.set?ITSELF&THREAD_ID="}};
    std::string log;
    for (const char request : requests) {
        const std::string line = " GET /" + paths.at(request) + " HTTP/1.1\n";
        for (int i = 0; i < refusals && tolower(request) != 'k'; ++i) {
            log += "401" + line;
        }
        log += (request == 'l' ? "401" : "200") + line;
    }
    return log;
}

TEST(KirvexAccount, ChangesThePasswordThroughTheWebServer) {
    const std::string full = std::string(47, '1') + "Z", digits(48, '7');  // they fill their areas
    const struct {
        std::vector<std::string> texts;
        int error;  // -1: a failure without number
        const char *requests;
        const char *session = "";  // somebody else's
    } cases[] = {
        {{"admin", "1234", "a\tb", ""}, 0, "LACK"},
        {{"admin", "1234", "", digits}, 0, "LACK"},
        {{"admin", "1234", "", "5678"}, -1, "Lkk", "9999"},
        {{"admin", "wrong", "", "1"}, -1, "lk"},
        {{"ad\"min\t%s", "\xFF%n", "", "1"}, -1, "lk"},
        {{"admin\r\nGET /reboot HTTP/1.0\r\n\r\n", "1234", "", "1"}, -1, "k"},
        {{full, "", "a b", "x"}, 1002, "k"},
        {{full, "1", "a b", "x"}, 1003, "k"},
        {{"admin", full, "", "x"}, 1012, "k"},
        {{"admin", full, "a", "x"}, 1013, "k"},
        {{"admin", "1234", digits, "1 "}, 1003, "k"},
        {{"admin", "1234", "", full}, 1013, "k"},
    };
    const Server server;
    for (const bool digest : {false, true}) {
        for (const auto &row : cases) {
            SCOPED_TRACE(testing::PrintToString(row.texts) + (digest ? "digest" : "basic"));
            AccountPages web(digest ? "digest" : "basic");
            WriteFile(kPages + "session", row.session);
            const bool filled = row.error == 1002 || row.error == 1012;
            EXPECT_EQ(
                Ask(Header(0xA4) + Credentials(row.texts)),
                StatusReply(0xA4, row.error != 0, std::max(row.error, 0), 0, 0, filled ? 'Z' : 0));
            web.Stop();
            EXPECT_EQ(ReadFile(kPages + "log"), WebLog(row.requests, digest ? 2 : 1, row.texts[3]));
            EXPECT_EQ(ReadFile(kPages + "passwd"),
                      "admin:" + (row.error ? "1234" : row.texts[3]) + "\n");
        }
    }
}

static std::string Page(const std::string &body) {
    return "HTTP/1.1 200 OK\r\n\r\n" + body;
}

TEST(KirvexAccount, OutlivesABrokenWebServer) {
    const std::string login = "Username=[ADMIN] id=[7]</p>\n", table = "Privilege</td></tr>";
    const std::string challenge = "HTTP/1.1 401 No\r\nWWW-Authenticate: Digest nonce=\"";
    const std::string longId(70000, 'A'), none = "none";
    const std::string failed =
        "KIRVEX_Reply_ChangeIDPwd(): break connection failed - ip[127.0.0.1] "
        "kickArg[ITSELF&THREAD_ID=";
    const struct {
        std::string answer;
        int error;
        size_t requests;
        std::string unreleased;  // the session that could not be released, to the log's end
    } cases[] = {
        {Page(login + table + "<tr><td>guest</td></tr>Success"), 0, 7, none},
        {Page(login + "Success"), 1011, 5, none},
        {Page(login + table), 1011, 7, "7]\n"},
        {Page("Username=[admin] ID=[7</p>\r\nSuccess"), -1, 3, none},
        {Page("Success Username=[admin] ID=[" + longId), -1, 3, none},
        {Page("Username=[admin] ID=[" + longId + "\nThere is another administrator online"), -1, 3,
         longId.substr(0, 511) + "]\n"},
        {Page("ID=[7]</p>\n]</p> and there is ANOTHER administrator online"), -1, 4, "]\n"},
        {challenge + std::string(600, 'n') + "\",realm=\"%s\",qop=\"%n\r\n\r\n", -1, 4, "]\n"},
        {"\0\xFF%n%s\r\n"s, -1, 3, "]\n"},
        {"", -1, 3, "]\n"},
    };
    const Server server;
    const std::string request = Header(0xA4) + Credentials({"admin", "1234", "admin", "5678"});
    const std::string descriptors = "/proc/" + std::to_string(server.pid) + "/fd";
    EXPECT_EQ(Ask(request), StatusReply(0xA4, 1, 0)) << "no web server at all";
    const std::string open = ListFolder(descriptors);
    for (const auto &row : cases) {
        SCOPED_TRACE(row.answer.substr(0, 80));
        WriteFile(kServerLog, "");
        ScriptedServer web = Canned(8080, row.answer);
        EXPECT_EQ(Ask(request), StatusReply(0xA4, row.error != 0, std::max(row.error, 0)));
        EXPECT_EQ(web.Requests().size(), row.requests);
        const std::string log = Shorten(ReadFile(kServerLog));
        const size_t at = log.find(failed);
        EXPECT_EQ(at == log.npos ? none : log.substr(at + failed.size()), row.unreleased);
    }
    EXPECT_EQ(ListFolder(descriptors), open);
}

TEST(KirvexAccount, TakesNoEndlessPage) {
    const std::string block(65536, 'x');
    size_t sent = 0;
    ScriptedServer web(
        [&](int peer) {
            SendBytes(peer, "A: b\r\n\r\n");
            while (sent < 64 << 20 && send(peer, block.data(), block.size(), MSG_NOSIGNAL) > 0) {
                sent += block.size();
            }
        },
        8091);
    const time_t start = time(nullptr);
    EXPECT_EQ(KIRVEX_AppwebForceKick("127.0.0.1", "8091", {"admin", ""}, "ITSELF"), -1);
    EXPECT_LT(time(nullptr) - start, 20);
    web.Requests();
    EXPECT_LT(sent, 16u << 20);
}

TEST(KirvexAccount, ChangesOtherRowsOnTheDefaultPort) {
    const std::pair<const char *, int> cases[] = {
        {"ACCOUNTSETUP_ACCOUNT[2] success ACCOUNTSETUP_PASSWORD1[2] success", 0},
        {"ACCOUNTSETUP_ACCOUNT[2] ACCOUNTSETUP_PASSWORD1[2] success", -1},
        {"ACCOUNTSETUP_ACCOUNT[2] failed", -2},
        {"success accountsetup_account[2] success", -2},
        {"", -1}};
    for (const auto &[body, result] : cases) {
        ScriptedServer web = Canned(80, Page(body));
        EXPECT_EQ(KIRVEX_AppwebChangeIDPwd("127.0.0.1", "81", {"admin", "1"}, {"bob", "2"}, 2, "7"),
                  result)
            << body;
        EXPECT_EQ(web.Requests().size(), 2u);
        EXPECT_TRUE(web.Requests().back().starts_with(
            "GET /auth/config.set?ACCOUNTSETUP_ACCOUNT[2]=bob&ACCOUNTSETUP_PASSWORD1[2]=2&"
            "THREAD_ID=7 HTTP/1.1\r\n"));
    }
}

static testing::Environment *const kSilentWeb = testing::AddGlobalTestEnvironment(new Beside([] {
    ScriptedServer web(HoldOpen, 8090);
    EXPECT_EQ(KIRVEX_AppwebForceKick("127.0.0.1", "8090", {"admin", ""}, "ITSELF"), -1);
}));
