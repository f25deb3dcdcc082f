#include "net/md5.h"

#include <bit>
#include <cstring>
#include <iterator>

#include "common/wire.h"

static constexpr size_t kBlockSize = 64;
static constexpr size_t kBlockWords = kBlockSize / sizeof(uint32_t);
static constexpr size_t kCountSize = 8;  // the message length in bits, at the end of the last block

// floor(2^32 * |sin(i + 1)|)
static constexpr uint32_t kSines[4 * kBlockWords] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

namespace {

struct State {
    uint32_t a, b, c, d;
};

// Where round `kRound` finds its words and how far its steps rotate.
struct RoundPlan {
    size_t firstWord, wordStep;
    int rotations[4];
};

}  // namespace

static constexpr RoundPlan kPlans[4] = {{0, 1, {7, 12, 17, 22}},
                                        {1, 5, {5, 9, 14, 20}},
                                        {5, 3, {4, 11, 16, 23}},
                                        {0, 7, {6, 10, 15, 21}}};

// Words are little-endian.
static constexpr size_t kWordSize = sizeof(uint32_t);

template <size_t kRound, class Mix>
static void RunRound(State &state, const uint32_t (&words)[kBlockWords], Mix mix) {
    auto step = [&](uint32_t &a, uint32_t b, uint32_t c, uint32_t d, size_t i) {
        const uint32_t word =
            words[(kPlans[kRound].firstWord + kPlans[kRound].wordStep * i) % kBlockWords];
        a = b + std::rotl(a + mix(b, c, d) + word + kSines[kRound * kBlockWords + i],
                          kPlans[kRound].rotations[i % 4]);
    };
    for (size_t i = 0; i < kBlockWords; i += 4) {
        step(state.a, state.b, state.c, state.d, i);
        step(state.d, state.a, state.b, state.c, i + 1);
        step(state.c, state.d, state.a, state.b, i + 2);
        step(state.b, state.c, state.d, state.a, i + 3);
    }
}

static void AddBlock(State &state, const uint8_t *block) {
    uint32_t words[kBlockWords];
    for (size_t i = 0; i < kBlockWords; ++i) {
        words[i] = ReadLittleEndian(block + i * kWordSize, kWordSize);
    }
    using Word = uint32_t;
    State next = state;
    RunRound<0>(next, words, [](Word x, Word y, Word z) { return z ^ (x & (y ^ z)); });
    RunRound<1>(next, words, [](Word x, Word y, Word z) { return y ^ (z & (x ^ y)); });
    RunRound<2>(next, words, [](Word x, Word y, Word z) { return x ^ y ^ z; });
    RunRound<3>(next, words, [](Word x, Word y, Word z) { return y ^ (x | ~z); });
    state = {state.a + next.a, state.b + next.b, state.c + next.c, state.d + next.d};
}

void COM_MakeMD5(uint8_t (&digest)[kMd5DigestSize], const void *bytes, size_t length) {
    State state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    const uint8_t *rest = static_cast<const uint8_t *>(bytes);
    size_t left = length;
    for (; left >= kBlockSize; left -= kBlockSize, rest += kBlockSize) {
        AddBlock(state, rest);
    }
    // What is left, one set bit and the length, in one block or, where they don't fit, in two.
    uint8_t tail[2 * kBlockSize] = {};
    if (left > 0) {
        memcpy(tail, rest, left);
    }
    tail[left] = 0x80;
    const size_t tailSize = left + 1 + kCountSize <= kBlockSize ? kBlockSize : 2 * kBlockSize;
    const uint64_t bits = uint64_t{length} * 8;
    WriteLittleEndian(tail + tailSize - kCountSize, kWordSize, static_cast<uint32_t>(bits));
    WriteLittleEndian(tail + tailSize - kWordSize, kWordSize, static_cast<uint32_t>(bits >> 32));
    for (size_t i = 0; i < tailSize; i += kBlockSize) {
        AddBlock(state, tail + i);
    }
    const uint32_t words[] = {state.a, state.b, state.c, state.d};
    for (size_t i = 0; i < std::size(words); ++i) {
        WriteLittleEndian(digest + i * kWordSize, kWordSize, words[i]);
    }
}

void COM_MakeStrMD5(char *out, const char *text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    uint8_t digest[kMd5DigestSize];
    COM_MakeMD5(digest, text, strlen(text));
    for (const uint8_t byte : digest) {
        *out++ = kDigits[byte >> 4];
        *out++ = kDigits[byte & 15];
    }
}
