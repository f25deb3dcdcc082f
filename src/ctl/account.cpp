#include "ctl/account.h"

#include <cstdio>
#include <cstring>

#include "ctl/kirvex_exchange.h"
#include "kirvex/credentials.h"

namespace ctl {

// What a unit can still log in to its own web server with.
static constexpr size_t kLongestAccount = 27;
static constexpr size_t kLongestPassword = 31;

static constexpr char kAdministrator[] = "admin";
static constexpr char kDigits[] = "0123456789";

// Units take settings from accounts that begin with this word, and change the password of the first
// account, the administrator's, whoever asks.
static bool IsUsable(const char *account) {
    bool printable = true;
    for (const char *at = account; *at != '\0'; ++at) {
        printable &= static_cast<unsigned char>(*at) >= ' ' && *at != 0x7F;
    }
    return kx::IsAdministrator(account) && printable && strlen(account) <= kLongestAccount;
}

void ReadCredentials(const Options &options, Secret *password) {
    if (!IsUsable(options.account)) {
        Fail(kUsage, "an account begins with \"%s\" and has at most %zu characters", kAdministrator,
             kLongestAccount);
    }
    ReadPassword(options, password);
    if (strlen(password->text) > kLongestPassword) {
        Fail(kUsage, "KIRVEX can't log in with more than %zu characters", kLongestPassword);
    }
}

void FailLogin() {
    Fail(kRefused,
         "the unit refuses: the account or the password is wrong, its web server does not answer, "
         "or another administrator is at work");
}

// Finds the unit, which must be one that knows accounts.
static void SelectKirvexUnit(Session &session) {
    session.SelectUnit();
    if (!session.unit.kirvex) {
        Fail(kUsage, "%s is a native unit, which knows no passwords", session.options.unit);
    }
    Say("the unit logs in to its web server; that may end another administrator's session");
}

// Whether the unit logs in with a password.
static bool TryPassword(Session &session, const char *password) {
    const Verdict verdict = RequestLogin(
        session.way(), session.unit, {session.options.account, password}, session.options.patience);
    if (!verdict.answered) {
        Fail(
            kNotTaken,
            "no reply within %d s: the unit's web server may be slow or down, or no way leads back "
            "to this machine",
            session.options.patience / 1000);
    }
    if (verdict.code == kx::kSuccess) {
        Fail(kNotTaken, "the unit does not compare names: its answer proves nothing");
    }
    return verdict.error == kx::kErrorCameraName;
}

void CheckPassword(Session &session) {
    Secret password;
    SelectKirvexUnit(session);
    ReadCredentials(session.options, &password);
    if (!TryPassword(session, password.text)) {
        FailLogin();
    }
    printf("%s: the password of %s is right\n", session.unit.info.mac, session.options.account);
}

[[noreturn]] static void FailChange(const Verdict &verdict) {
    switch (verdict.error) {
        case kx::kErrorNewAccount:
            Fail(kRefused, "the unit does not take the account's name");
        case kx::kErrorNewPassword:
            Fail(kRefused, "the unit takes digits alone as a password");
        case kx::kErrorRefused:
            Fail(kRefused, "the unit logged in, but its web server did not change it");
        case 0:
            FailLogin();
        default:
            Fail(kRefused, "the unit refuses with error %u", verdict.error);
    }
}

void ChangePassword(Session &session) {
    Secret password;
    Secret changed;
    SelectKirvexUnit(session);
    ReadCredentials(session.options, &password);
    ReadNewPassword(session.options, &changed);
    const size_t length = strspn(changed.text, kDigits);
    if (length == 0 || length > kLongestPassword || changed.text[length] != '\0') {
        Fail(kUsage, "a new password is 1 to %zu digits: units take nothing else",
             kLongestPassword);
    }
    const Verdict verdict =
        RequestPassword(session.way(), session.unit, {session.options.account, password.text},
                        changed.text, session.options.patience);
    if (verdict.answered && verdict.code != kx::kSuccess) {
        FailChange(verdict);
    }
    // Also when the reply was lost, or came too late.
    if (!TryPassword(session, changed.text)) {
        Fail(kNotTaken, "the unit does not log in with the new password%s",
             verdict.answered ? ", though it says that it has changed it" : "");
    }
    printf("%s: the password of %s is changed, and the new one works\n", session.unit.info.mac,
           session.options.account);
}

}  // namespace ctl
