#include "common/text.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/message.h"

static constexpr char kSource[] = "COMMON";

void CopyText(char *field, size_t size, const char *text) {
    if (size == 0) {
        return;
    }
    const size_t length = strnlen(text, size - 1);
    memmove(field, text, length);
    field[length] = '\0';
}

const char *COM_StrNCaseStr(const char *text, const char *word) {
    return text && word ? strcasestr(text, word) : nullptr;
}

const char *COM_GetStrInDoubleQuotes(const char *text, const char *key, char *out, int size) {
    return CopyQuotedValue(text, key, out, size, TQ_ORIGIN(__func__));
}

const char *CopyQuotedValue(const char *text, const char *key, char *out, int size,
                            MessageOrigin origin) {
    const char *found = COM_StrNCaseStr(text, key);
    if (!found) {
        return nullptr;
    }
    const char *rest = found + strlen(key);
    const char *open = strchr(rest, '"');
    const char *close = open ? strchr(open + 1, '"') : nullptr;
    if (!close) {
        return nullptr;
    }
    int length = static_cast<int>(close - open - 1);
    if (length >= size) {
        TQ_LOG_FOR(origin, "Warning! overflow (len, size) = (%d, %d)\n", length, size);
        length = size;
    }
    memcpy(out, open + 1, static_cast<size_t>(length));
    out[length] = '\0';
    return length > 0 ? rest : nullptr;
}

const char *COM_GetStrBeforeNewLine(const char *text, const char *key, char *out, int size) {
    const char *found = COM_StrNCaseStr(text, key);
    if (!found) {
        return nullptr;
    }
    const char *value = found + strlen(key);
    const char *end = strchr(value, '\r');
    if (!end) {
        end = strchr(value, '\n');
    }
    if (!end) {
        return nullptr;
    }
    int room = static_cast<int>(end - value) + 1;
    if (room > size) {
        TQ_LOG("Warning! overflow (len, size) = (%d, %d)\n", room, size);
        room = size;
    }
    if (room > 0) {
        memcpy(out, value, static_cast<size_t>(room - 1));
        out[room - 1] = '\0';
    }
    return value;
}

char *NextToken(char **text, const char *delimiters) {
    const auto delimits = [delimiters](char c) {
        const char *one = delimiters;
        while (*one != '\0' && *one != c) {
            ++one;
        }
        return *one == c;  // the end too
    };
    char *token = *text;
    while (*token != '\0' && delimits(*token)) {
        ++token;
    }
    char *end = token;
    while (!delimits(*end)) {
        ++end;
    }
    *text = *end == '\0' ? end : end + 1;
    *end = '\0';
    return end == token ? nullptr : token;
}

// strtol goes through the locale, which is cold when a request comes after a rest.
int ParseInt(const char *text) {
    static constexpr unsigned kTooMuch = 3000000000;  // for an int; another digit would still fit
    while (*text == ' ' || (*text >= '\t' && *text <= '\r')) {
        ++text;
    }
    const bool negative = *text == '-';
    text += negative || *text == '+' ? 1 : 0;
    unsigned value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value < kTooMuch / 10 ? value * 10 + static_cast<unsigned>(*text - '0') : kTooMuch;
    }
    return negative ? static_cast<int>(-std::min<int64_t>(value, int64_t{INT_MAX} + 1))
                    : static_cast<int>(std::min<unsigned>(value, INT_MAX));
}

HeapBlock<char> FormatText(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    return HeapBlock<char>(length < 0 ? nullptr : text);
}
