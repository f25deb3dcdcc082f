#include "net/http_auth.h"

#include <strings.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/base64.h"
#include "common/owners.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";
static constexpr size_t kUriSize = 256;
static constexpr size_t kCredentialsSize = 80;
static constexpr size_t kSchemeSize = 256;
static constexpr size_t kHashedTextSize = 4 * sizeof(HttpAuthInfo);
static constexpr char kNonceCount[] = "00000001";
static constexpr MessageOrigin kGenerate = TQ_ORIGIN("COM_GenHttpAuthStr");

namespace {

// A field as a reader of C texts finds it at this moment: where a challenge filled it, it reads on
// into its neighbours, at most to the end of the record.
struct FieldText {
    FieldText(const HttpAuthInfo &auth, const char *field) {
        const char *record = reinterpret_cast<const char *>(&auth);
        const size_t offset = static_cast<size_t>(field - record);
        const size_t length = strnlen(record + offset, sizeof auth - offset);
        memcpy(text, record + offset, length);
        text[length] = '\0';
    }
    char text[sizeof(HttpAuthInfo) + 1];
};

// The hexadecimal MD5 of a text, with the terminator that COM_MakeStrMD5 leaves out.
struct HexText {
    explicit HexText(const char *format, ...) __attribute__((format(printf, 2, 3)));
    // Leaves the characters, and nothing behind them, in a field of the record.
    void Store(char *field) const { memcpy(field, text, kMd5HexLength); }
    char text[kMd5HexLength + 1] = {};
};

HexText::HexText(const char *format, ...) {
    char hashed[kHashedTextSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(hashed, sizeof hashed, format, arguments);
    va_end(arguments);
    COM_MakeStrMD5(text, hashed);
}

}  // namespace

// Fetches a page without authorization, header included. Returns what the exchange does.
static int FetchUnauthorized(const char *url, const net::HttpLimits &limits,
                             HeapBlock<char> &answer) {
    char *text = nullptr;
    const int result = net::FetchHttp(url, net::kNoAuthorization, &text,
                                      net::HttpPart::kHeaderAndBody, net::kHttpPage, limits);
    answer.reset(text);
    return result;
}

int COM_GetHttpAuthMethod(const char *url) {
    return net::FindAuthMethod(url, net::kHttpLimits);
}

int net::FindAuthMethod(const char *url, const HttpLimits &limits) {
    HeapBlock<char> answer;
    char scheme[kSchemeSize];
    if (FetchUnauthorized(url, limits, answer) < 1 || !answer ||
        !COM_GetStrBeforeNewLine(answer.get(), "WWW-Authenticate: ", scheme, sizeof scheme)) {
        return HTTP_AUTH_NONE;
    }
    if (strncasecmp(scheme, "Basic", 5) == 0) {
        return HTTP_AUTH_BASIC;
    }
    return strncasecmp(scheme, "Digest", 6) == 0 ? HTTP_AUTH_DIGEST : HTTP_AUTH_NONE;
}

static int FormatBasic(const HttpAuthInfo &auth, char *out, size_t size) {
    char credentials[kCredentialsSize];
    const int length =
        snprintf(credentials, sizeof credentials, "%s:%s", FieldText(auth, auth.username).text,
                 FieldText(auth, auth.password).text);
    char encoded[Base64TextSize(kCredentialsSize)];
    COM_Base64Encode(encoded, credentials, std::min<int>(length, sizeof credentials - 1));
    return snprintf(out, size, "Authorization: Basic %s\r\n\r\n", encoded);
}

// Cuts the list of offered qualities after its first one, in the record for good.
static void CutQop(HttpAuthInfo &auth) {
    char *qop = reinterpret_cast<char *>(&auth) + offsetof(HttpAuthInfo, qop);
    if (void *comma = memchr(qop, ',', strlen(FieldText(auth, qop).text))) {
        *static_cast<char *>(comma) = '\0';
    }
}

static int FormatDigest(const char *methodName, const char *uri, HttpAuthInfo &auth, char *out,
                        size_t size) {
    const HexText ha1("%s:%s:%s", FieldText(auth, auth.username).text,
                      FieldText(auth, auth.realm).text, FieldText(auth, auth.password).text);
    ha1.Store(auth.ha1);
    const HexText ha2("%s:%s", methodName, uri);
    ha2.Store(auth.ha2);
    if (auth.qop[0] == '\0') {
        const FieldText nonce(auth, auth.nonce);
        const HexText response("%s:%s:%s", ha1.text, nonce.text, ha2.text);
        response.Store(auth.response);
        return snprintf(out, size,
                        "Authorization: Digest username=\"%s\",realm=\"%s\",nonce=\"%s\","
                        "uri=\"%s\",response=\"%s\"\r\n\r\n",
                        FieldText(auth, auth.username).text, FieldText(auth, auth.realm).text,
                        nonce.text, uri, response.text);
    }
    char date[32] = "";
    const time_t now = time(nullptr);
    ctime_r(&now, date);
    const HexText cnonce("%s", date);
    memset(auth.cnonce, 0, sizeof auth.cnonce);
    cnonce.Store(auth.cnonce);
    CutQop(auth);
    CopyText(auth.nc, kNonceCount);
    // Read only now: the cut and the count may stand in what a full field reads on into.
    const FieldText username(auth, auth.username);
    const FieldText realm(auth, auth.realm);
    const FieldText qop(auth, auth.qop);
    const FieldText nonce(auth, auth.nonce);
    const FieldText opaque(auth, auth.opaque);
    const HexText response("%s:%s:%s:%s:%s:%s", ha1.text, nonce.text, auth.nc, cnonce.text,
                           qop.text, ha2.text);
    response.Store(auth.response);
    // Servers of this system's users know the line like this, "algorithms" and quoted qop included.
    return snprintf(out, size,
                    "Authorization: Digest username=\"%s\",realm=\"%s\",nonce=\"%s\",uri=\"%s\","
                    "cnonce=\"%s\",nc=%s,algorithms=\"MD5\",response=\"%s\",qop=\"%s\","
                    "opaque=\"%s\"\r\n\r\n",
                    username.text, realm.text, nonce.text, uri, cnonce.text, auth.nc, response.text,
                    qop.text, opaque.text);
}

static int FetchChallenge(const char *url, HttpAuthInfo *auth, const net::HttpLimits &limits) {
    HeapBlock<char> answer;
    const int result = FetchUnauthorized(url, limits, answer);
    if (result > 0 && answer) {
        COM_GetDigestStringInBuf(answer.get(), auth);
    }
    auth->method = HTTP_AUTH_DIGEST;
    return result;
}

int COM_GenHttpAuthStr(const char *methodName, const char *url, HttpAuthInfo *auth, char *out) {
    return net::FormatAuthorization(methodName, url, auth, out, kHttpAuthStrSize, net::kHttpLimits);
}

int net::FormatAuthorization(const char *methodName, const char *url, HttpAuthInfo *auth, char *out,
                             size_t size, const HttpLimits &limits) {
    char uri[kUriSize];
    const char *path = strchr(url, '/');
    CopyText(uri, path ? path : "/");
    int length = 0;
    if (auth && auth->method == HTTP_AUTH_BASIC) {
        length = FormatBasic(*auth, out, size);
    } else if (auth && auth->method == HTTP_AUTH_DIGEST) {
        if (auth->nonce[0] == '\0') {
            FetchChallenge(url, auth, limits);
        }
        if (auth->nonce[0] != '\0') {
            length = FormatDigest(methodName, uri, *auth, out, size);
        }
    }
    const int limit = static_cast<int>(size);
    if (length >= limit) {
        TQ_LOG_FOR(kGenerate, "Warning! overflow (len, size) = (%d, %d)\n", length, limit);
    }
    // A line that is cut off would be taken for a part of the next one.
    if (length == 0 || length >= limit) {
        CopyText(out, size, kNoAuthorization);
    }
    return length < limit ? 0 : -1;
}

int COM_GetDigestString(const char *url, HttpAuthInfo *auth) {
    return FetchChallenge(url, auth, net::kHttpLimits);
}

int COM_GetDigestStringInBuf(const char *text, HttpAuthInfo *auth) {
    const char *challenge = COM_StrNCaseStr(text, "WWW-Authenticate: Digest");
    if (!challenge) {
        return -1;
    }
    // In this order: a value that is cut ends on the first byte of the next field, which that
    // field's own value then overwrites.
    struct Value {
        char key[8];
        size_t offset;
        int size;
    };
    static constexpr Value kValues[] = {
        {"realm=", offsetof(HttpAuthInfo, realm), sizeof auth->realm},
        {"qop=", offsetof(HttpAuthInfo, qop), sizeof auth->qop},
        {"nonce=", offsetof(HttpAuthInfo, nonce), sizeof auth->nonce},
        {"opaque=", offsetof(HttpAuthInfo, opaque), sizeof auth->opaque}};
    char *record = reinterpret_cast<char *>(auth);
    for (const Value &value : kValues) {
        COM_GetStrInDoubleQuotes(challenge, value.key, record + value.offset, value.size);
    }
    return 0;
}
