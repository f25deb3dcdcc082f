// One HTTP request over a real connection: the input gives the address, the request and every block
// of the answers, those to the requests for a challenge included.
#include "common/owners.h"
#include "net/http.h"
#include "support.h"

static constexpr char kServer[] = "127.0.0.1:8000/";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static WebServer web(8000);
    Input input(data, size);
    const bool plainUrl = input.ConsumeIntegralInRange(0, 7) != 0;
    const int method = input.ConsumeIntegralInRange(0, 8);
    const auto part = input.ConsumeBool() ? net::HttpPart::kHeaderAndBody : net::HttpPart::kBody;
    const bool withCookie = input.ConsumeBool();
    const bool askScheme = input.ConsumeBool();
    const std::string url = (plainUrl ? kServer : "") + NextText(input);
    const std::string text = NextText(input);
    net::HttpLimits limits;
    limits.socketSeconds = 1;
    limits.answerSize = 1 << 20;
    limits.pause = {0, 0};
    limits.resolverSeconds = 0;
    gBeforeWait = [&](pollfd *, nfds_t, bool) { return web.Serve(input); };
    web.Restart();
    HttpAuthInfo auth{};
    auth.method =
        askScheme ? COM_GetHttpAuthMethod(url.c_str()) : input.ConsumeIntegralInRange(0, 2);
    CopyText(auth.username, text.c_str());
    CopyText(auth.password, text.c_str());
    const net::HttpCommand command{method, text.c_str(), withCookie ? text.c_str() : nullptr,
                                   askScheme};
    char *answer = nullptr;
    const int length = net::RequestHttp(url.c_str(), &answer, &auth, part, command, limits);
    const HeapBlock<char> owner(answer);
    Require(length <= 0 || (answer && answer[length - 1] == '\0'));
    return 0;
}
