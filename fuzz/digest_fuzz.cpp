// A Digest challenge and the authorization made from it, twice, as a record is used again.
#include <cstring>

#include "net/http_auth.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    HttpAuthInfo auth{};
    auth.method = input.ConsumeIntegralInRange(0, 2);
    const std::string user = NextText(input);
    const std::string url = "127.0.0.1:9/" + NextText(input);
    CopyText(auth.username, user.c_str());
    CopyText(auth.password, user.c_str());
    // Without a nonce from the challenge there is nobody to fetch one from.
    for (int i = 0; i < 2; ++i) {
        COM_GetDigestStringInBuf(NextText(input).c_str(), &auth);
        char out[kHttpAuthStrSize];
        COM_GenHttpAuthStr("GET", url.c_str(), &auth, out);
        Require(strnlen(out, sizeof out) < sizeof out);
        char large[kHttpAuthTextSize];
        Require(net::FormatAuthorization("POST", url.c_str(), &auth, large, sizeof large,
                                         net::kHttpLimits) == 0);
    }
    return 0;
}
