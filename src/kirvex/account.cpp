#include "kirvex/account.h"

#include <cstring>

#include "kirvex/credentials.h"
#include "kirvex/endpoint.h"
#include "kirvex/own_unit.h"
#include "kirvex/web_session.h"

static constexpr char kSource[] = "KIRVEX";
static constexpr int kAdministratorRow = 0;  // the only row that is ever found
static constexpr char kDigits[] = "0123456789";
static constexpr char kAccountCharacters[] =
    "0123456789\tabcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!@#*-_+=,./";

// The four texts of a change request, in the order of their areas.
enum ChangeArea : size_t { kCurrentAccount, kCurrentPassword, kNewAccount, kNewPassword, kAreas };
using ChangeCredentials = kx::DecodedCredentials<kAreas>;

int KIRVEX_Reply_UserVerification(const char *device, int sock, const sockaddr_in &sender,
                                  kx::Request request) {
    kx::Reply reply = kx::StartReply(device, sock, request, kx::kVerificationReplySize);
    const kx::DecodedCredentials<2> credentials(request);
    reply.Set(kx::kUserPrivilege,
              kx::IsAdministrator(credentials[0]) ? kx::kAdministrator : kx::kOrdinaryUser);
    return reply.Send(sock, sender, TQ_ORIGIN(__func__));
}

static int CheckCharacters(const char *text, const char *allowed) {
    return text[strspn(text, allowed)] == '\0' ? 0 : -1;
}

int KIRVEX_CheckAccout(const char *text) {
    return CheckCharacters(text, kAccountCharacters);
}

int KIRVEX_CheckPasswd(const char *text) {
    return CheckCharacters(text, kDigits);
}

static void Refuse(kx::Reply &reply, uint32_t error) {
    reply.Set(kx::kMode, kx::kFailure);
    reply.Set(kx::kErrorNumber, error);
}

// Whether a text ends exactly where its area does, so that the area behind it is empty.
static bool FillsArea(const char *text) {
    return strlen(text) == ChangeCredentials::kAreaSize;
}

// Refuses texts that can't be those of an account. Returns whether all of them may pass.
static bool CheckTexts(const ChangeCredentials &texts, kx::Reply &reply) {
    const char *filled = nullptr;
    if (FillsArea(texts[kCurrentAccount])) {
        Refuse(reply, kx::kErrorAccountLength);
        filled = texts[kCurrentAccount];
    } else if (KIRVEX_CheckAccout(texts[kNewAccount]) != 0) {
        Refuse(reply, kx::kErrorNewAccount);
    } else if (FillsArea(texts[kCurrentPassword])) {
        Refuse(reply, kx::kErrorPasswordLength);
        filled = texts[kCurrentPassword];
    } else if (KIRVEX_CheckPasswd(texts[kNewPassword]) != 0) {
        Refuse(reply, kx::kErrorNewPassword);
    } else {
        return true;
    }
    if (filled) {
        reply.Set(kx::kExtension, static_cast<uint8_t>(filled[ChangeCredentials::kAreaSize - 1]));
    }
    return false;
}

// Logs in and submits the change; the session id is the caller's to release.
static void SubmitChange(const char *port, const kx::Account &current, const kx::Account &changed,
                         char (&sessionId)[kx::kSessionIdSize], kx::Reply &reply) {
    if (KIRVEX_AppwebLogin(kx::kWebServerHost, port, current, sessionId, sizeof sessionId) == -1) {
        reply.Set(kx::kMode, kx::kFailure);
        return;
    }
    if (KIRVEX_AppWebGetAccountIdx(kx::kWebServerHost, port, current) != kAdministratorRow ||
        KIRVEX_AppwebChangeIDPwd(kx::kWebServerHost, port, current, changed, kAdministratorRow,
                                 sessionId) != 0) {
        Refuse(reply, kx::kErrorRefused);
    }
}

int KIRVEX_Reply_ChangeIDPwd(const char *device, int sock, const sockaddr_in &sender,
                             kx::Request request) {
    kx::Reply reply = kx::StartReply(device, sock, request, kx::kStatusReplySize);
    const ChangeCredentials texts(request);
    const kx::WebPort port = kx::ReadWebPort();
    const kx::Account current = texts.At(kCurrentAccount);
    char sessionId[kx::kSessionIdSize] = {};
    if (CheckTexts(texts, reply)) {
        SubmitChange(port.text, current, texts.At(kNewAccount), sessionId, reply);
    }
    kx::ReleaseWebSession(port.text, current, sessionId, TQ_ORIGIN(__func__));
    return reply.Send(sock, sender, TQ_ORIGIN(__func__));
}
