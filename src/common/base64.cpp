#include "common/base64.h"

#include <array>
#include <cstdint>
#include <cstring>

static constexpr char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static constexpr uint8_t kOutside = 64;

// The alphabet lies between these two.
static constexpr unsigned kFirst = '+';
static constexpr size_t kSpread = 'z' - '+' + 1;

static constexpr std::array<uint8_t, kSpread> MakeValues() {
    std::array<uint8_t, kSpread> values{};
    values.fill(kOutside);
    for (uint8_t i = 0; i < 64; ++i) {
        values[static_cast<uint8_t>(kAlphabet[i]) - kFirst] = i;
    }
    return values;
}

static constexpr std::array<uint8_t, kSpread> kValues = MakeValues();

static unsigned ValueOf(unsigned character) {
    const unsigned place = character - kFirst;
    return place < kSpread ? kValues[place] : kOutside;
}

char COM_Base2Chr(int value) {
    return kAlphabet[value & 63];
}

int COM_Chr2Base(int character) {
    return static_cast<int>(ValueOf(static_cast<unsigned>(character)));
}

int COM_Base64Encode(char *out, const void *in, int length) {
    const uint8_t *bytes = static_cast<const uint8_t *>(in);
    char *end = out;
    while (length >= 3) {
        const int group = bytes[0] << 16 | bytes[1] << 8 | bytes[2];
        *end++ = COM_Base2Chr(group >> 18);
        *end++ = COM_Base2Chr(group >> 12);
        *end++ = COM_Base2Chr(group >> 6);
        *end++ = COM_Base2Chr(group);
        bytes += 3;
        length -= 3;
    }
    if (length > 0) {
        const int group = bytes[0] << 16 | (length == 2 ? bytes[1] << 8 : 0);
        *end++ = COM_Base2Chr(group >> 18);
        *end++ = COM_Base2Chr(group >> 12);
        *end++ = length == 2 ? COM_Base2Chr(group >> 6) : '=';
        *end++ = '=';
    }
    *end = '\0';
    return static_cast<int>(end - out);
}

int COM_Base64Decode(void *out, const char *text) {
    return DecodeBase64(out, SIZE_MAX, text, SIZE_MAX);
}

int DecodeBase64(void *out, size_t outSize, const char *text, size_t textSize) {
    uint8_t *bytes = static_cast<uint8_t *>(out);
    size_t written = 0;
    unsigned symbols = 0;
    unsigned carry = 0;
    for (size_t i = 0; written < outSize && i < textSize && text[i] != '\0' && text[i] != '=';
         ++i) {
        const unsigned value = ValueOf(static_cast<uint8_t>(text[i]));
        if (value == kOutside) {
            continue;
        }
        carry = carry << 6 | value;
        // Every symbol but the first of four completes a byte.
        if (symbols % 4 != 0) {
            bytes[written++] = static_cast<uint8_t>(carry >> (6 - symbols % 4 * 2));
        }
        ++symbols;
    }
    return static_cast<int>(written);
}
