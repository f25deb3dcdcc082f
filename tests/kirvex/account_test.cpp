#include "kirvex/account.h"

#include "kirvex/bench.h"
#include "kirvex/web_session.h"

TEST(KirvexAccount, ChecksCharacters) {
    const struct {
        const char *text;
        int account, password;
    } cases[] = {{"", 0, 0},        {"0123456789", 0, 0}, {"azAZ!@#*-_+=,./\t", 0, -1},
                 {"a b", -1, -1},   {"a%", -1, -1},       {"12\n", -1, -1},
                 {"\xFF\"", -1, -1}};
    for (const auto &row : cases) {
        EXPECT_EQ(KIRVEX_CheckAccout(row.text), row.account) << row.text;
        EXPECT_EQ(KIRVEX_CheckPasswd(row.text), row.password) << row.text;
    }
}

// The web server's log: Login, Account table, Change and Kick in this order; small letters for a
// refused login and for a kick without session. A guarded page is refused first, as often as the
// scheme needs.
static std::string WebLog(const std::string &requests, bool digest, const std::string &password) {
    std::string log;
    for (const char request : requests) {
        const std::string path =
            strchr("Ll", request) ? "auth/login"
            : request == 'A'      ? "auth/account.get"
            : request == 'C'
                ? "auth/config.set?ACCOUNTSETUP_PASSWORD1[0]=" + password + "&THREAD_ID=4711"
            : request == 'K' ? "Forcekick.set?ITSELF&THREAD_ID=4711"
                             : "Forcekick.set?ITSELF&THREAD_ID=";
        const std::string line = " GET /" + path + " HTTP/1.1\n";
        const int refusals = path[0] == 'F' ? 0 : digest ? 2 : 1;
        for (int i = 0; i < refusals; ++i) {
            log += "401" + line;
        }
        log += (request == 'l' ? "401" : "200") + line;
    }
    return log;
}

TEST(KirvexAccount, ChangesThePasswordThroughTheWebServer) {
    const std::string full = std::string(47, '1') + "Z";  // fills its area
    const std::string digits(48, '7');
    const struct {
        std::vector<std::string> texts;
        int error;  // -1: a failure without number
        const char *requests;
        const char *session = "";  // somebody else's
    } cases[] = {
        {{"admin", "1234", "a\tb", "5678"}, 0, "LACK"},
        {{"admin", "1234", "", ""}, 0, "LACK"},
        {{"admin", "1234", "", digits}, 0, "LACK"},
        {{"admin", "1234", "", "5678"}, -1, "Lkk", "9999"},
        {{"admin", "wrong", "", "1"}, -1, "lk"},
        {{"ad\"min\r\n%s", "\xFF%n", "", "1"}, -1, "lk"},
        {{full, "", "a b", "x"}, 1002, "k"},
        {{full, "1", "a b", "x"}, 1003, "k"},
        {{"admin", full, "", "x"}, 1012, "k"},
        {{"admin", full, "a", "x"}, 1013, "k"},
        {{"admin", "1234", digits, "1 "}, 1003, "k"},
        {{"admin", "1234", "", full}, 1013, "k"},
    };
    const Child server = StartServer();
    for (const bool digest : {false, true}) {
        for (const auto &row : cases) {
            SCOPED_TRACE(testing::PrintToString(row.texts) + (digest ? "digest" : "basic"));
            Child web = StartPages(digest ? "digest" : "basic");
            WriteFile(kPages + "session", row.session);
            const bool filled = row.error == 1002 || row.error == 1012;
            EXPECT_EQ(
                Ask(Header(0xA4) + Credentials(row.texts)),
                StatusReply(0xA4, row.error != 0, std::max(row.error, 0), 0, 0, filled ? 'Z' : 0));
            web.Stop();
            std::string log = ReadFile(kPages + "log");
            if (log.find("400") != std::string::npos) {
                log.replace(log.find("400"), 3, "401");  // the name with a line end in Digest
            }
            EXPECT_EQ(log, WebLog(row.requests, digest, row.texts[3]));
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
    const std::string longId(70000, 'A');
    const struct {
        std::string answer;
        int error;
        int requests;
        const char *unreleased;  // the session id that could not be released
        size_t repeat = 1;
    } cases[] = {
        {Page(login + table + "<tr><td>guest</td></tr>Success"), 0, 7, nullptr},
        {Page(login + "Success"), 1011, 5, nullptr},
        {Page(login + table), 1011, 7, "7"},
        {Page("Username=[admin] ID=[7</p>\r\nSuccess"), -1, 3, nullptr},
        {Page("Success Username=[admin] ID=[" + longId), -1, 3, nullptr},
        {Page("Username=[admin] ID=[" + longId + "\nThere is another administrator online"), -1, 3,
         "A", 511},
        {Page(std::string(1 << 20, 'x')), -1, 3, ""},
        {Page("ID=[7]</p>\n]</p> and there is ANOTHER administrator online"), -1, 4, ""},
        {challenge + std::string(600, 'n') + "\",realm=\"%s\",qop=\"%n\r\n\r\n", -1, 4, ""},
        {std::string("\0\xFF%n%s\r\n", 8), -1, 3, ""},
        {"", -1, 3, ""},
    };
    const Child server = StartServer();
    const std::string request = Header(0xA4) + Credentials({"admin", "1234", "admin", "5678"});
    const std::string descriptors = "/proc/" + std::to_string(server.pid()) + "/fd";
    EXPECT_EQ(Ask(request), StatusReply(0xA4, 1, 0)) << "no web server at all";
    const std::string open = ListFolder(descriptors);
    for (const auto &row : cases) {
        SCOPED_TRACE(row.answer.substr(0, 80));
        WriteFile(kServerLog, "");
        Child web = StartCanned(8080, row.answer);
        EXPECT_EQ(Ask(request), StatusReply(0xA4, row.error != 0, std::max(row.error, 0)));
        web.Stop();
        const std::string lines = ReadFile(kCannedLog), log = Shorten(ReadFile(kServerLog));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), row.requests) << lines;
        std::string message =
            "KIRVEX_Reply_ChangeIDPwd(): break connection failed - ip[127.0.0.1] "
            "kickArg[ITSELF&THREAD_ID=";
        for (size_t i = 0; row.unreleased && i < row.repeat; ++i) {
            message += row.unreleased;
        }
        EXPECT_EQ(log.find(message + "]\n") != std::string::npos, row.unreleased != nullptr) << log;
    }
    EXPECT_EQ(ListFolder(descriptors), open);
}

TEST(KirvexAccount, ChangesOtherRowsOnTheDefaultPort) {
    const struct {
        const char *body;
        int result;
    } cases[] = {
        {"ACCOUNTSETUP_ACCOUNT[2] success ACCOUNTSETUP_PASSWORD1[2] success", 0},
        {"ACCOUNTSETUP_ACCOUNT[2] ACCOUNTSETUP_PASSWORD1[2] success", -1},
        {"ACCOUNTSETUP_ACCOUNT[2] failed", -2},
        {"success accountsetup_account[2] success", -2},
        {"", -1},
    };
    const std::string line =
        "GET /auth/config.set?ACCOUNTSETUP_ACCOUNT[2]=bob&"
        "ACCOUNTSETUP_PASSWORD1[2]=2&THREAD_ID=7 HTTP/1.1\n";
    for (const auto &row : cases) {
        Child web = StartCanned(80, Page(row.body));
        EXPECT_EQ(KIRVEX_AppwebChangeIDPwd("127.0.0.1", "81", {"admin", "1"}, {"bob", "2"}, 2, "7"),
                  row.result)
            << row.body;
        web.Stop();
        EXPECT_EQ(ReadFile(kCannedLog), line + line);
    }
}

TEST(KirvexAccount, GivesUpOnASilentWebServer) {
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = InternetAddress(htonl(INADDR_LOOPBACK), 8090);
    ASSERT_EQ(bind(listener.get(), AsSockaddr(address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    EXPECT_EQ(KIRVEX_AppwebForceKick("127.0.0.1", "8090", {"admin", ""}, "ITSELF"), -1);
}
