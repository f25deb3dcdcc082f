#include "common/address.h"

#include <arpa/inet.h>

#include <cstring>

#include "common/text.h"
#include "frame/message.h"

static constexpr char kSource[] = "COMMON";

bool ParseDottedAddress(const char *text, in_addr *address) {
    // What inet_aton takes: octal, decimal and hexadecimal numbers.
    const char *rest = text + strspn(text, "0123456789abcdefABCDEFxX.");
    return rest[strspn(rest, " \t\v\f\r\n")] == '\0' && inet_aton(text, address) != 0;
}

// printf would cost more than all else that makes an answer out of its facts.
void WriteDottedAddress(in_addr address, char *out) {
    uint8_t bytes[4];
    memcpy(bytes, &address, sizeof bytes);
    for (const uint8_t byte : bytes) {
        if (byte >= 100) {
            *out++ = static_cast<char>('0' + byte / 100);
        }
        if (byte >= 10) {
            *out++ = static_cast<char>('0' + byte / 10 % 10);
        }
        *out++ = static_cast<char>('0' + byte % 10);
        *out++ = '.';
    }
    out[-1] = '\0';
}

// The mask of a prefix length, in the machine's own byte order: on the big-endian board 24 gives
// 0.255.255.255, and nothing there uses the prefix form.
static uint32_t MaskOfPrefix(int length) {
    return length == 0 ? 0 : UINT32_MAX >> (32 - length);
}

static void ParseMask(const char *token, uint32_t *mask) {
    static constexpr MessageOrigin kOrigin = TQ_ORIGIN("COM_ConvertNetworkAddr");
    if (strchr(token, '.')) {
        in_addr dotted;
        if (inet_aton(token, &dotted)) {
            *mask = dotted.s_addr;
        } else {
            TQ_LOG_FOR(kOrigin, "[%s] is not a valid netmask\n", token);
        }
        return;
    }
    const int length = ParseInt(token);
    if (length >= 0 && length <= 32) {
        *mask = MaskOfPrefix(length);
    } else {
        TQ_LOG_FOR(kOrigin, "offset : (%s, %d) : isn't resonable\n", token, length);
    }
}

int COM_ConvertNetworkAddr(const char *text, uint32_t *address, uint32_t *mask) {
    static constexpr char kDelimiters[] = "/ \r\n";
    *address = 0;
    *mask = UINT32_MAX;
    char buffer[256];
    CopyText(buffer, text);
    in_addr dotted;
    char *rest = buffer;
    const char *token = NextToken(&rest, kDelimiters);
    if (!token) {
        return -1;
    }
    if (!inet_aton(token, &dotted)) {
        TQ_LOG_UNNAMED("[%s][%s] is not a valid ip address\n", text, token);
        return -1;
    }
    *address = dotted.s_addr;
    token = NextToken(&rest, kDelimiters);
    if (token) {
        ParseMask(token, mask);
    }
    return 0;
}
