#include "ctl/account.h"

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
static Status CheckAccount(const char *account) {
    const size_t length = strlen(account);
    bool printable = true;
    for (const char *at = account; *at != '\0'; ++at) {
        printable &= static_cast<unsigned char>(*at) >= ' ' && *at != 0x7F;
    }
    if (!kx::IsAdministrator(account) || !printable || length > kLongestAccount) {
        return Fail(kUsage,
                    "an administrator's account begins with \"%s\" and has at most %zu characters",
                    kAdministrator, kLongestAccount);
    }
    return kDone;
}

Status ReadCredentials(const Options &options, Secret *password) {
    Status status = CheckAccount(options.account);
    status = status == kDone ? ReadPassword(options, password) : status;
    if (status == kDone && strlen(password->text) > kLongestPassword) {
        return Fail(kUsage, "KIRVEX can't log in with more than %zu characters", kLongestPassword);
    }
    return status;
}

Status FailLogin() {
    return Fail(kRefused,
                "the unit refuses: the account or the password is wrong, or its web server does "
                "not answer, or another administrator is at work there");
}

static Status FailSilence(const Session &session) {
    return Fail(kNotTaken,
                "the unit has not replied within %d s: its web server may be slow or down, or the "
                "reply can't come back to this machine",
                session.options.wait / 1000);
}

// Finds the unit, which must be one that knows accounts.
static Status SelectKirvexUnit(Session &session) {
    Status status = session.Start();
    status = status == kDone ? session.SelectUnit() : status;
    if (status == kDone && !session.unit.kirvex) {
        return Fail(kUsage, "%s speaks the native protocol, which knows no passwords",
                    session.options.unit);
    }
    if (status == kDone) {
        fputs(
            "the unit will log in to its web server; that may end another administrator's "
            "session\n",
            stderr);
    }
    return status;
}

// Whether the unit logs in with a password.
static Status TryPassword(Session &session, const char *password) {
    const Verdict verdict = RequestLogin(session.way(), session.unit,
                                         {session.options.account, password}, session.options.wait);
    if (!verdict.answered) {
        return FailSilence(session);
    }
    if (verdict.code == kx::kSuccess) {
        return Fail(kNotTaken, "the unit does not compare names: its answer proves nothing");
    }
    return verdict.error == kx::kErrorCameraName ? kDone : kRefused;
}

Status CheckPassword(Session &session) {
    Secret password;
    Status status = SelectKirvexUnit(session);
    status = status == kDone ? ReadCredentials(session.options, &password) : status;
    if (status != kDone) {
        return status;
    }
    status = TryPassword(session, password.text);
    if (status == kRefused) {
        return FailLogin();
    }
    if (status == kDone) {
        fprintf(session.out, "%s: the password of %s is right\n", session.unit.info.mac,
                session.options.account);
    }
    return status;
}

static Status CheckNewPassword(const char *password) {
    const size_t length = strlen(password);
    if (length == 0 || length > kLongestPassword || strspn(password, kDigits) != length) {
        return Fail(kUsage,
                    "a new password is 1 to %zu digits: a unit takes nothing else, and could not "
                    "log in with more",
                    kLongestPassword);
    }
    return kDone;
}

static Status ExplainRefusal(const Verdict &verdict) {
    switch (verdict.error) {
        case kx::kErrorNewAccount:
            return Fail(kRefused, "the unit does not take the account's name");
        case kx::kErrorNewPassword:
            return Fail(kRefused, "the unit takes digits alone as a password");
        case kx::kErrorRefused:
            return Fail(kRefused, "the unit logged in, but its web server did not change it");
        case 0:
            return FailLogin();
        default:
            return Fail(kRefused, "the unit refuses with error %u", verdict.error);
    }
}

Status ChangePassword(Session &session) {
    Secret password;
    Secret changed;
    Status status = SelectKirvexUnit(session);
    status = status == kDone ? ReadCredentials(session.options, &password) : status;
    status = status == kDone ? ReadNewPassword(session.options, &changed) : status;
    status = status == kDone ? CheckNewPassword(changed.text) : status;
    if (status != kDone) {
        return status;
    }
    const Verdict verdict =
        RequestPassword(session.way(), session.unit, {session.options.account, password.text},
                        changed.text, session.options.wait);
    if (verdict.answered && verdict.code != kx::kSuccess) {
        return ExplainRefusal(verdict);
    }
    // Also when the reply was lost, or came too late.
    status = TryPassword(session, changed.text);
    if (status == kRefused) {
        return Fail(kNotTaken, "the unit does not log in with the new password%s",
                    verdict.answered ? ", though it says that it has changed it" : "");
    }
    if (status == kDone) {
        fprintf(session.out, "%s: the password of %s is changed, and the new one works\n",
                session.unit.info.mac, session.options.account);
    }
    return status;
}

}  // namespace ctl
