#include "net/md5.h"

#include "support/files.h"

// Nothing; lengths that fill, just fill or overflow the last block; and a long text.
TEST(Md5, AgreesWithMd5sum) {
    for (const int length : {0, 1, 55, 56, 63, 64, 119, 120, 1 << 20}) {
        std::string text;
        for (int i = 0; i < length; ++i) {
            text += static_cast<char>(i % 255 + 1);
        }
        WriteFile("/tmp/text", text);
        Shell("md5sum </tmp/text >/tmp/sum");
        char digest[kMd5HexLength + 1] = {};
        COM_MakeStrMD5(digest, text.c_str());
        EXPECT_EQ(digest + std::string("  -\n"), ReadFile("/tmp/sum")) << length << " bytes";
    }
}

TEST(Md5, GivesTheDigestsOfItsRfc) {
    const char *kVectors[][2] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto &[text, digest] : kVectors) {
        char hex[kMd5HexLength + 1] = {};
        COM_MakeStrMD5(hex, text);
        EXPECT_STREQ(digest, hex);
    }
}
