#include "net/md5.h"

#include <gtest/gtest.h>

// "abc...zabc..." of a length that fills, just fills or overflows the last block.
static std::string Letters(size_t length) {
    std::string text;
    while (text.size() < length) {
        text += static_cast<char>('a' + text.size() % 26);
    }
    return text;
}

// The vectors of RFC 1321, appendix A.5, and another implementation's.
TEST(Md5, KnownDigests) {
    const std::string ten = "1234567890", forty = ten + ten + ten + ten;
    const std::pair<std::string, const char *> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {Letters(26), "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZ" + Letters(26) + "0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {forty + forty, "57edf4a22be3c955ac49da2e2107b67a"},
        {Letters(55), "0d7ae056b2f015cd7dc67494efd658f1"},
        {Letters(56), "31fcfb5165169eb55898e7e4cf34d19a"},
        {Letters(63), "1b30c0670c15e7da3c2ba7bce77ebe99"},
        {Letters(64), "a2eaf6295c32adc403865fd96a2f182b"},
        {Letters(119), "b05187e08da41fa3ef16bd56afaafd99"},
        {Letters(120), "62af9b597a9f55e16ab2b897387fc052"},
        {Letters(1 << 20), "b63ba06de0e8a9626d5bcf27e93bf32d"}};
    for (const auto &[text, digest] : cases) {
        char out[kMd5HexLength + 1] = {};
        COM_MakeStrMD5(out, text.c_str());
        EXPECT_STREQ(out, digest) << text.size() << " bytes";
    }
}
