// The printer of messages, and the choice of protocol.
#include "frame/message.h"
#include "frame/modes.h"
#include "support/files.h"

TEST(Message, HasTwoFormsAndAnyLength) {
    EXPECT_EQ(OutputOf([] { COM_Message("TQ", 12, "main", "x\n"); }), "TQ,12:main(): x\n");
    EXPECT_EQ(OutputOf([] { COM_Message("TQ", 12, nullptr, "%d %%\n", 7); }), "TQ,12: 7 %\n");
    for (const size_t length : {254, 255, 256, 257, 300, 100000}) {
        const std::string text(length, 'm');
        int written = 0;
        EXPECT_EQ(OutputOf([&] { written = COM_Message("T", 1, nullptr, "%s", text.c_str()); }),
                  "T,1: " + text);
        EXPECT_EQ(written, static_cast<int>(5 + length));
    }
    errno = EDOM;
    COM_Message("T", 1, nullptr, "x\n");
    EXPECT_EQ(errno, EDOM);
}

TEST(Brand, IsTheNumberOfTheLastLineThatNamesIt) {
    const struct {
        std::string text;
        unsigned brand;
    } cases[] = {{"brandid : 16\n", 16},
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
    for (const auto &row : cases) {
        WriteFile("/tmp/cpuinfo", row.text);
        EXPECT_EQ(frame::ReadBrand("/tmp/cpuinfo"), row.brand) << row.text;
    }
    EXPECT_EQ(SaidBy("TQ,TQ_Server", [] { EXPECT_EQ(frame::ReadBrand("/tmp/none"), 0u); }),
              "fopen(\"/tmp/none\") failed: No such file or directory\n");
}
