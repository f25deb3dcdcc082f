// The digest, beside md5sum's.
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
