#include "frame/message.h"
#include "frame/modes.h"
#include "support/files.h"

TEST(Message, HasTwoFormsAndAnyLength) {
    EXPECT_EQ("TQ,12:main(): x\n", OutputOf([] { COM_Message("TQ", 12, "main", "x\n"); }));
    EXPECT_EQ("TQ,12: 7 %\n", OutputOf([] { COM_Message("TQ", 12, nullptr, "%d %%\n", 7); }));
    for (const size_t length : {254, 255, 256, 257, 300, 100000}) {
        const std::string text(length, 'm');
        int written = 0;
        const std::string output =
            OutputOf([&] { written = COM_Message("T", 1, nullptr, "%s", text.c_str()); });
        EXPECT_EQ("T,1: " + text, output);
        EXPECT_EQ(static_cast<int>(output.size()), written);
    }
}

TEST(Brand, IsTheNumberOfTheLastLineThatNamesIt) {
    const struct {
        std::string text;
        unsigned brand;
    } kCases[] = {{"brandid : 16\n", 16},
                  {"x\nbrandid:16abc\n", 16},
                  {"My BrandID\t: \t0016\n", 16},
                  {"brandid 16\n", 0},
                  {"brandid: 16\nbrandid: 3\n", 3},
                  {"brandid: 16\nbrandid 3\n", 16},
                  {"brandid: -16\n", 0},
                  {"brandid: 4294967312\n", 4294967295u},
                  {"brandid: 16\nbrandid:\n", 0},
                  {std::string(255, 'x') + "brandid: 16", 16},
                  {"", 0}};
    for (const auto &c : kCases) {
        WriteFile("/tmp/cpuinfo", c.text);
        EXPECT_EQ(c.brand, frame::ReadBrand("/tmp/cpuinfo")) << c.text;
    }
    EXPECT_NE(std::string::npos, OutputOf([] {
                                     EXPECT_EQ(0u, frame::ReadBrand("/tmp/none"));
                                 }).find("TQ_Server(): fopen(\"/tmp/none\") failed: No such"));
}
