#include "net/http.h"

// The name under which a request's authorization is computed.
static const char *MethodName(int method) {
    switch (method) {
        case HTTP_CMD_GET:
            return "GET";
        case HTTP_CMD_OPTIONS:
            return "OPTIONS";
        case HTTP_CMD_DESCRIBE:
            return "DESCRIBE";
        case HTTP_CMD_SETUP:
            return "SETUP";
        case HTTP_CMD_PLAY:
            return "PLAY";
        case HTTP_CMD_TEARDOWN:
            return "TEARDOWN";
        default:
            return "POST";
    }
}

static net::HttpPart PartOf(int keepHeader) {
    return keepHeader != 0 ? net::HttpPart::kHeaderAndBody : net::HttpPart::kBody;
}

int COM_SubSendHttpCmd(const struct sockaddr_in *server, const char *host,
                       const char *authorization, const char *path, char **result,
                       HttpAuthInfo * /*auth*/, int method, const char *data, int keepHeader,
                       const char *cookie, int https) {
    const net::HttpCommand command{method, data, cookie, https != 0};
    return net::ExchangeHttp(*server, host, authorization, path, result, PartOf(keepHeader),
                             command, net::kHttpLimits);
}

int net::RequestHttp(const char *url, char **result, HttpAuthInfo *auth, HttpPart part,
                     const HttpCommand &command, const HttpLimits &limits) {
    char authorization[kHttpAuthTextSize];
    FormatAuthorization(MethodName(command.method), url, auth, authorization, sizeof authorization,
                        limits);
    return FetchHttp(url, authorization, result, part, command, limits);
}

int COM_SubGetPostHttpContent(const char *url, char **result, HttpAuthInfo *auth, int method,
                              const char *data, int keepHeader, const char *cookie, int https) {
    const net::HttpCommand command{method, data, cookie, https != 0};
    return net::RequestHttp(url, result, auth, PartOf(keepHeader), command, net::kHttpLimits);
}

int COM_GetHttpContent(const char *url, char **result, HttpAuthInfo *auth) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 0, nullptr, 0);
}

int COM_GetHttpsContent(const char *url, char **result, HttpAuthInfo *auth) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 0, nullptr, 1);
}

int COM_GetHttpContentWithHeader(const char *url, char **result, HttpAuthInfo *auth) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 1, nullptr, 0);
}

int COM_PostHttpContent(const char *url, char **result, HttpAuthInfo *auth, const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 0, nullptr, 0);
}

int COM_PostHttpContentWithHeader(const char *url, char **result, HttpAuthInfo *auth,
                                  const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 1, nullptr, 0);
}

int COM_PostHttpsContentWithHeader(const char *url, char **result, HttpAuthInfo *auth,
                                   const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 1, nullptr, 1);
}

int COM_PostMultipartHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                                 const char *data) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST_MULTIPART, data, 0, nullptr,
                                     0);
}

int COM_GetCookieHttpContent(const char *url, char **result, HttpAuthInfo *auth,
                             const char *cookie) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_GET, nullptr, 0, cookie, 0);
}

int COM_PostCookieHttpContent(const char *url, char **result, HttpAuthInfo *auth, const char *data,
                              const char *cookie) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_POST, data, 0, cookie, 0);
}

int COM_SendUserDefHttpHdr(const char *url, char **result, HttpAuthInfo *auth,
                           const char *request) {
    return COM_SubGetPostHttpContent(url, result, auth, HTTP_CMD_USER_DEFINED, request, 0, nullptr,
                                     0);
}
