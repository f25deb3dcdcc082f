// The one printer of diagnostics: every message goes to standard output, always. Of this room every
// other one may see this header and nothing else: with common/ it is what all stand on.
#pragma once

// Prints "file,line:function(): text", or "file,line: text" when `function` is null. `format` and
// what follows are as for printf, with "%m" for errno's text; the text brings its own line break.
// Returns the number of characters written, or -1 when there was no memory for the text at all.
// errno stays as it was.
int COM_Message(const char *file, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// How many messages there have been. Whoever looks before and after a call knows whether it had
// something to say.
unsigned COM_CountMessages();

// In whose name a helper reports: the source tag and the public function it works for.
struct MessageOrigin {
    const char *source;
    const char *function;
};

// A diagnostic in one line of code. The .cpp names its source tag once:
//     static constexpr char kSource[] = "COMMON";
#define TQ_LOG(...) TQ_LOG_AS(kSource, __func__, __VA_ARGS__)
#define TQ_LOG_UNNAMED(...) TQ_LOG_AS(kSource, nullptr, __VA_ARGS__)
#define TQ_LOG_FOR(origin, ...) TQ_LOG_AS((origin).source, (origin).function, __VA_ARGS__)

// Position-independent PowerPC code reaches arrays through one address, and each literal through
// one of its own: 16 bytes. What -Wpedantic has against %m, __extension__ allows.
#define TQ_LOG_AS(source, function, format, ...)                                                   \
    do {                                                                                           \
        alignas(1) static constexpr char kFormat[] = format;                                       \
        __extension__ COM_Message(source, __LINE__, function, kFormat __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
