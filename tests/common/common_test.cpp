// The small helpers: Base64, buffers, texts, pauses, and what a terminal must not see.
#include <poll.h>
#include <sys/time.h>

#include <csignal>

#include "common/base64.h"
#include "common/buffer.h"
#include "common/owners.h"
#include "common/pause.h"
#include "common/socket.h"
#include "common/text.h"
#include "common/utf8.h"
#include "support/files.h"

TEST(Common, Base64FollowsTheStandardAndDecodesLeniently) {
    const struct {
        const char *text, *encoded;
    } kVectors[] = {{"", ""},
                    {"f", "Zg=="},
                    {"fo", "Zm8="},
                    {"foo", "Zm9v"},
                    {"foob", "Zm9vYg=="},
                    {"fooba", "Zm9vYmE="},
                    {"foobar", "Zm9vYmFy"},
                    {"\xfb\xff\xbf", "+/+/"}};
    for (const auto &vector : kVectors) {
        const int length = static_cast<int>(strlen(vector.text));
        const HeapBlock<char> encoded = ZeroedBlock(Base64TextSize(static_cast<size_t>(length)));
        EXPECT_EQ(COM_Base64Encode(encoded.get(), vector.text, length),
                  static_cast<int>(strlen(vector.encoded)));
        EXPECT_STREQ(encoded.get(), vector.encoded);
    }
    const struct {
        const char *encoded, *text;
    } kLenient[] = {{"Zm9v\r\nYmFy", "foobar"}, {" Z g = = Zg==", "f"}, {"Zm9vYg", "foob"},
                    {"\xffZ-m_9v", "foo"},      {"=Zm9v", ""},          {"Z", ""}};
    for (const auto &sample : kLenient) {
        const HeapBlock<char> out = ZeroedBlock(strlen(sample.encoded));
        const int length = COM_Base64Decode(out.get(), sample.encoded);
        EXPECT_EQ(std::string(out.get(), static_cast<size_t>(length)), sample.text);
    }
    EXPECT_EQ(COM_Chr2Base('/'), 63);
    for (const int outside : {int{'='}, -1, 256 + 'A'}) {
        EXPECT_EQ(COM_Chr2Base(outside), 64);
    }
    char bounded[2];
    EXPECT_EQ(DecodeBase64(bounded, sizeof bounded, "Zm9vYmFy", 8), 2);
    EXPECT_EQ(DecodeBase64(bounded, sizeof bounded, "ZmXXXX", 2), 1);
}

TEST(Common, AGrowingBufferIsZeroedBehindTheOffsetAndRefusesWhatDoesNotFit) {
    void *block = nullptr;
    ASSERT_TRUE(COM_ReallocAndCopyBuf(4, &block, 0, "abcd", 4));
    ASSERT_TRUE(COM_ReallocAndCopyBuf(8, &block, 2, "X", 1));
    EXPECT_EQ(memcmp(block, "abX\0\0\0\0\0", 8), 0);
    void *before = block;
    const struct { int offset, length; } refused[] = {{0, 9}, {0, -1}, {2, 7}, {-1, 1}};
    for (const auto &row : refused) {
        const std::string output = OutputOf([&] {
            EXPECT_EQ(COM_ReallocAndCopyBuf(8, &block, row.offset, "too much", row.length),
                      nullptr);
        });
        EXPECT_SAYS(output, "REALLOC(8) failed : ");
    }
    EXPECT_EQ(block, before);
    free(block);
    EXPECT_EQ(COM_XorBuffer(nullptr, 3), -1);
}

TEST(Common, ATimeDifferenceIsNormalised) {
    const struct {
        timeval later, earlier, result;
        int negative;
    } kCases[] = {{{5, 100}, {3, 900000}, {1, 100100}, 0},
                  {{3, 0}, {5, 0}, {-2, 0}, 1},
                  {{5, 2500000}, {5, 0}, {2, 500000}, 0}};
    for (auto c : kCases) {
        timeval result;
        EXPECT_EQ(COM_DiffTimeval(&result, &c.later, &c.earlier), c.negative);
        EXPECT_EQ(result.tv_sec, c.result.tv_sec);
        EXPECT_EQ(result.tv_usec, c.result.tv_usec);
    }
}

TEST(Common, ABreakThatSignalsCutShortIsMadeUpWithinItsLimit) {
    EXPECT_SAYS(OutputOf([] { EXPECT_EQ(COM_TakeABreak({0, 20000000}, 10), 0); }), "");
    EXPECT_SAYS(OutputOf([] { EXPECT_EQ(COM_TakeABreak({0, 0}, 0), 0); }), "Woops! timeout = 0\n");
    struct sigaction handler {};
    handler.sa_handler = [](int) {};
    sigaction(SIGALRM, &handler, nullptr);
    const itimerval often{{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string output = OutputOf([] { EXPECT_EQ(COM_TakeABreak({5, 0}, 3), 3); });
    // A wait for a socket goes on, and takes its time.
    timeval wait{0, 30000};
    EXPECT_EQ(WaitForSocket(-1, POLLIN, &wait), 0);
    EXPECT_EQ(wait.tv_usec, 0);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_SAYS(output, ": Woops! timeout = 3\n");
}

TEST(Common, QuotedValuesAreFoundBehindTheirKeyAndCut) {
    const struct {
        const char *text, *key;
        bool found;
        const char *value;
    } kCases[] = {{"NETFILE=\"/x\"", "netfile", true, "/x"},
                  {"a \"no\" key = \"yes\"", "KEY", true, "yes"},
                  {"key=\"\"", "key", false, ""},
                  {"key=\"half", "key", false, "before"},
                  {"none", "key", false, "before"},
                  {"key=\"123456789\"", "key", true, "12345678"}};
    for (const auto &c : kCases) {
        char out[9] = "before";
        const std::string output = OutputOf([&] {
            EXPECT_EQ(COM_GetStrInDoubleQuotes(c.text, c.key, out, 8) != nullptr, c.found)
                << c.text;
        });
        EXPECT_STREQ(out, c.value);
        EXPECT_EQ(Holds(output, "Warning! overflow (len, size) = (9, 8)\n"), strlen(c.value) == 8);
    }
    const struct {
        const char *text, *value;
    } kLines[] = {{"ID=[abc]\r\nx", "abc]"}, {"id=[abc\nx\ry", "abc\nx"},
                  {"ID=[abc\n", "abc"},      {"ID=[abc", nullptr},
                  {"no", nullptr},           {"ID=[0123456789\n", "0123456"}};
    for (const auto &c : kLines) {
        char out[8] = "";
        OutputOf([&] {
            EXPECT_EQ(COM_GetStrBeforeNewLine(c.text, "ID=[", out, sizeof out) != nullptr,
                      c.value != nullptr);
        });
        EXPECT_STREQ(out, c.value ? c.value : "");
    }
    EXPECT_EQ(COM_StrNCaseStr(nullptr, "x"), nullptr);
    EXPECT_STREQ(COM_StrNCaseStr("text", ""), "text");
}

TEST(Common, ASocketThatIsGoneTakesNoTimeout) {
    EXPECT_SAYS(OutputOf([] { EXPECT_EQ(COM_SetSocketTimeout(-1, 5), -1); }),
                "(): setsockopt(-1, SO_SNDTIMEO, 5 sec) failed - Bad file descriptor\n");
}

TEST(Common, NothingThatSteersATerminalIsLeft) {
    const struct {
        std::string text, shown;
    } kRows[] = {{"a\tb\n \x1b[2J\r\x7f", "a\tb\n ?[2J??"},
                 {"K\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbd", ""},
                 {"\xc2\x9b\xc2\xa0\x9b\xff", "??\xc2\xa0??"},
                 {"\xc1\x9b\xe0\x82\x9b\xf0\x80\x82\x9b", "?????????"},
                 {"\xed\xa0\x80\xf4\x90\x80\x80\xf8", "????????"},
                 {"\xe2\x82", "??"},
                 {"\xf0\x9f\x98", "???"}};
    for (const auto &row : kRows) {
        std::string text = row.text;
        MaskControls(text.data());
        EXPECT_EQ(text, row.shown.empty() ? row.text : row.shown);
    }
}
