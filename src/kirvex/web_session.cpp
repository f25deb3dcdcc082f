#include "kirvex/web_session.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "common/owners.h"
#include "common/text.h"
#include "net/http.h"
#include "net/http_auth.h"

static constexpr size_t kLongUrlSize = 576;
static constexpr char kAccountKey[] = "ACCOUNTSETUP_ACCOUNT";
static constexpr char kPasswordKey[] = "ACCOUNTSETUP_PASSWORD1";
static constexpr char kSessionKey[] = "THREAD_ID=";
static constexpr char kSuccessMark[] = "Success";

// Bounds that no page of the web server comes near, so that one that never ends its answer can't
// hold the unit for ever; a silent one is given up after some 32 seconds in any case.
static constexpr net::HttpLimits kLimits{.totalSeconds = 60, .answerSize = size_t{1} << 20};

enum class Scheme { kNone, kAsAnnounced };

// A line end in a name would end the header of a request too early, and what the requester wrote
// behind it would reach the web server as a request from this machine itself. No account can have
// such a name: its login fails. A TAB is a character of account names.
static bool HasControlCharacter(const char *name) {
    while (*name == '\t' || (*name != '\0' && iscntrl(static_cast<unsigned char>(*name)) == 0)) {
        ++name;
    }
    return *name != '\0';
}

// The body of a page, or nothing.
static HeapBlock<char> Fetch(const char *url, const kx::Account &account, Scheme scheme) {
    if (scheme == Scheme::kAsAnnounced && HasControlCharacter(account.name)) {
        return nullptr;
    }
    HttpAuthInfo credentials{};
    credentials.method = scheme == Scheme::kAsAnnounced ? net::FindAuthMethod(url, kLimits) : 0;
    CopyText(credentials.username, account.name);
    CopyText(credentials.password, account.password);
    char *body = nullptr;
    const int size =
        net::RequestHttp(url, &body, &credentials, net::HttpPart::kBody, net::kHttpPage, kLimits);
    HeapBlock<char> page(body);
    if (size <= 0) {
        page.reset();
    }
    return page;
}

namespace {

// The query of a request that releases a session.
struct KickArgument {
    char text[kLongUrlSize];

    explicit KickArgument(const char *sessionId) {
        snprintf(text, sizeof text, "ITSELF&%s%s", kSessionKey, sessionId);
    }
};

}  // namespace

static bool ExtractSessionId(const char *page, char *sessionId, size_t size, bool *cut) {
    if (!COM_GetStrBeforeNewLine(page, "ID=[", sessionId, static_cast<int>(size))) {
        return false;
    }
    char *end = strstr(sessionId, "]</p>");
    *cut = end != nullptr;
    if (end) {
        memset(end, 0, strlen(end));
    }
    return true;
}

int KIRVEX_AppwebLogin(const char *host, const char *port, const kx::Account &account,
                       char *sessionId, size_t sessionIdSize) {
    char url[128];
    snprintf(url, sizeof url, "%s:%s/auth/login", host, port);
    const HeapBlock<char> page = Fetch(url, account, Scheme::kAsAnnounced);
    if (!page) {
        return -1;
    }
    char userMark[48];
    snprintf(userMark, sizeof userMark, "Username=[%s]", account.name);
    bool complete = false;
    if (COM_StrNCaseStr(page.get(), userMark) &&
        ExtractSessionId(page.get(), sessionId, sessionIdSize, &complete)) {
        return complete ? 0 : -1;
    }
    if (COM_StrNCaseStr(page.get(), "There is another administrator online")) {
        KIRVEX_AppwebForceKick(host, port, account, KickArgument(sessionId).text);
    }
    return -1;
}

int KIRVEX_AppwebForceKick(const char *host, const char *port, const kx::Account &account,
                           const char *kickArgument) {
    char url[kLongUrlSize];
    snprintf(url, sizeof url, "%s:%s/Forcekick.set?%s", host, port, kickArgument);
    const HeapBlock<char> page = Fetch(url, account, Scheme::kNone);
    return COM_StrNCaseStr(page.get(), kSuccessMark) ? 0 : -1;
}

int KIRVEX_AppWebGetAccountIdx(const char *host, const char *port, const kx::Account &account) {
    char url[256];
    snprintf(url, sizeof url, "%s:%s/auth/account.get", host, port);
    const HeapBlock<char> page = Fetch(url, account, Scheme::kAsAnnounced);
    // The rows below the header count for nothing: tools rely on every change going to row 0.
    return page && strstr(page.get(), "Privilege</td></tr>") ? 0 : -1;
}

// The "Success" that follows `mark` in a page; null when either is missing.
static const char *FindSuccessOf(const char *page, const char *mark, int row) {
    char text[sizeof kPasswordKey + 16];
    snprintf(text, sizeof text, "%s[%d]", mark, row);
    return COM_StrNCaseStr(strstr(page, text), kSuccessMark);
}

int KIRVEX_AppwebChangeIDPwd(const char *host, const char *port, const kx::Account &current,
                             const kx::Account &changed, int row, const char *sessionId) {
    char url[kLongUrlSize];
    if (row != 0) {
        // Without a port: the web server listens for these on the default one.
        snprintf(url, sizeof url, "%s/auth/config.set?%s[%d]=%s&%s[%d]=%s&%s%s", host, kAccountKey,
                 row, changed.name, kPasswordKey, row, changed.password, kSessionKey, sessionId);
    } else {
        snprintf(url, sizeof url, "%s:%s/auth/config.set?%s[%d]=%s&%s%s", host, port, kPasswordKey,
                 row, changed.password, kSessionKey, sessionId);
    }
    const HeapBlock<char> page = Fetch(url, current, Scheme::kAsAnnounced);
    if (!page) {
        return -1;
    }
    if (row == 0) {
        return COM_StrNCaseStr(page.get(), kSuccessMark) ? 0 : -1;
    }
    const char *named = FindSuccessOf(page.get(), kAccountKey, row);
    if (!named) {
        return -2;
    }
    return FindSuccessOf(named, kPasswordKey, row) ? 0 : -1;
}

void kx::ReleaseWebSession(const char *port, const Account &account, const char *sessionId,
                           MessageOrigin origin) {
    const KickArgument argument(sessionId);
    if (KIRVEX_AppwebForceKick(kWebServerHost, port, account, argument.text) == -1) {
        TQ_LOG_FOR(origin, "break connection failed - ip[%s] kickArg[%s]\n", kWebServerHost,
                   argument.text);
    }
}
