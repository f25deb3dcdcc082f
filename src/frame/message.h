// The one printer of diagnostics: every message goes to standard output, always. Of this room every
// other one may see this header and nothing else: with common/ it is what all stand on.
#pragma once

#include <cstddef>

// Prints "file,line:function(): text", or "file,line: text" when `function` is null. `format` and
// what follows are as for printf, with "%m" for errno's text; the text brings its own line break.
// Returns the number of characters written, or -1 when there was no memory for the text at all.
// errno stays as it was.
int COM_Message(const char *file, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// How many messages there have been. Whoever looks before and after a call knows whether it had
// something to say.
unsigned COM_CountMessages();

namespace frame {

struct Origin {};

}  // namespace frame

// In whose name a message is: two texts with their zero bytes, the source tag and the public
// function's name, which is empty for none. TQ_ORIGIN alone makes it, of what the compiler knows.
using MessageOrigin = const frame::Origin *;

namespace frame {

// COM_Message for an origin.
int Report(MessageOrigin origin, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

template <size_t kTagSize, size_t kNameSize>
struct OriginText : Origin {
    char text[kTagSize + kNameSize];

    consteval OriginText(const char (&tag)[kTagSize], const char (&name)[kNameSize]) {
        char *end = text;
        for (const char character : tag) {
            *end++ = character;
        }
        for (const char character : name) {
            *end++ = character;
        }
    }
};

// One for all that name the same.
template <OriginText kOrigin>
inline constexpr OriginText kOriginText = kOrigin;

}  // namespace frame

// The .cpp names its source tag once:
//     static constexpr char kSource[] = "COMMON";
#define TQ_ORIGIN(function) (&frame::kOriginText<frame::OriginText(kSource, function)>)

// A diagnostic in one line of code.
#define TQ_LOG(...) TQ_LOG_FOR(TQ_ORIGIN(__func__), __VA_ARGS__)
#define TQ_LOG_UNNAMED(...) TQ_LOG_FOR(TQ_ORIGIN(""), __VA_ARGS__)

// Position-independent PowerPC code reaches arrays through one address, and each literal through
// one of its own: 16 bytes. What -Wpedantic has against %m, __extension__ allows.
#define TQ_LOG_FOR(origin, format, ...)                                                    \
    do {                                                                                   \
        alignas(1) static constexpr char kFormat[] = format;                               \
        __extension__ frame::Report(origin, __LINE__, kFormat __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
