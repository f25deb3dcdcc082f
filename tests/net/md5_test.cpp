#include "net/md5.h"

#include <gtest/gtest.h>

#include <string>

static std::string Hex(const std::string &text) {
    char out[kMd5HexLength + 1] = {};
    COM_MakeStrMD5(out, text.c_str());
    return out;
}

// "abc...zabc..." of a length that fills, just fills or overflows the last block.
static std::string Letters(size_t length) {
    std::string text(length, ' ');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>('a' + i % 26);
    }
    return text;
}

TEST(Md5, KnownDigests) {
    const struct {
        std::string text;
        const char *digest;
    } cases[] = {
        // RFC 1321, appendix A.5
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {Letters(26), "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // RFC 2617, section 3.5
        {"939e7578ed9e3c518a452acee763bce9:dcd98b7102dd2f0e8b11d0f600bfb0c093:00000001:0a4f113b:"
         "auth:39aff3a2bab6126f332b942af96d3366",
         "6629fae49393a05397450978507c4ef1"},
        // Another implementation's
        {Letters(55), "0d7ae056b2f015cd7dc67494efd658f1"},
        {Letters(56), "31fcfb5165169eb55898e7e4cf34d19a"},
        {Letters(63), "1b30c0670c15e7da3c2ba7bce77ebe99"},
        {Letters(64), "a2eaf6295c32adc403865fd96a2f182b"},
        {Letters(119), "b05187e08da41fa3ef16bd56afaafd99"},
        {Letters(120), "62af9b597a9f55e16ab2b897387fc052"},
        {Letters(1 << 20), "b63ba06de0e8a9626d5bcf27e93bf32d"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(Hex(c.text), c.digest) << c.text.size() << " bytes";
    }
}
