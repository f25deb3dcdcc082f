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
        EXPECT_EQ(static_cast<int>(strlen(vector.encoded)),
                  COM_Base64Encode(encoded.get(), vector.text, length));
        EXPECT_STREQ(vector.encoded, encoded.get());
    }
    const struct {
        const char *encoded, *text;
    } kLenient[] = {{"Zm9v\r\nYmFy", "foobar"}, {" Z g = = Zg==", "f"}, {"Zm9vYg", "foob"},
                    {"\xffZ-m_9v", "foo"},      {"=Zm9v", ""},          {"Z", ""}};
    for (const auto &sample : kLenient) {
        const HeapBlock<char> out = ZeroedBlock(strlen(sample.encoded));
        const int length = COM_Base64Decode(out.get(), sample.encoded);
        EXPECT_EQ(sample.text, std::string(out.get(), static_cast<size_t>(length)));
    }
    EXPECT_EQ(63, COM_Chr2Base('/'));
    for (const int outside : {int{'='}, -1, 256 + 'A'}) {
        EXPECT_EQ(64, COM_Chr2Base(outside));
    }
    char bounded[2];
    EXPECT_EQ(2, DecodeBase64(bounded, sizeof bounded, "Zm9vYmFy", 8));
    EXPECT_EQ(1, DecodeBase64(bounded, sizeof bounded, "ZmXXXX", 2));
}

TEST(Common, AGrowingBufferIsZeroedBehindTheOffsetAndRefusesWhatDoesNotFit) {
    void *block = nullptr;
    ASSERT_TRUE(COM_ReallocAndCopyBuf(4, &block, 0, "abcd", 4));
    ASSERT_TRUE(COM_ReallocAndCopyBuf(8, &block, 2, "X", 1));
    EXPECT_EQ(0, memcmp(block, "abX\0\0\0\0\0", 8));
    void *before = block;
    for (const int length : {9, -1}) {
        const std::string output = OutputOf(
            [&] { EXPECT_EQ(nullptr, COM_ReallocAndCopyBuf(8, &block, 0, "too much", length)); });
        EXPECT_NE(std::string::npos, output.find("REALLOC(8) failed : ")) << output;
    }
    EXPECT_EQ(before, block);
    free(block);
    EXPECT_EQ(-1, COM_XorBuffer(nullptr, 3));
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
        EXPECT_EQ(c.negative, COM_DiffTimeval(&result, &c.later, &c.earlier));
        EXPECT_EQ(c.result.tv_sec, result.tv_sec);
        EXPECT_EQ(c.result.tv_usec, result.tv_usec);
    }
}

TEST(Common, ABreakThatSignalsCutShortIsMadeUpWithinItsLimit) {
    EXPECT_EQ("", OutputOf([] { EXPECT_EQ(0, COM_TakeABreak({0, 20000000}, 10)); }));
    EXPECT_NE(std::string::npos, OutputOf([] {
                                     EXPECT_EQ(0, COM_TakeABreak({0, 0}, 0));
                                 }).find("Woops! timeout = 0\n"));
    struct sigaction handler {};
    handler.sa_handler = [](int) {};
    sigaction(SIGALRM, &handler, nullptr);
    const itimerval often{{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string output = OutputOf([] { EXPECT_EQ(3, COM_TakeABreak({5, 0}, 3)); });
    // A wait for a socket goes on, and takes its time.
    timeval wait{0, 30000};
    EXPECT_EQ(WaitForSocket(-1, POLLIN, &wait), 0);
    EXPECT_EQ(wait.tv_usec, 0);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_NE(std::string::npos, output.find(": Woops! timeout = 3\n")) << output;
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
            EXPECT_EQ(c.found, COM_GetStrInDoubleQuotes(c.text, c.key, out, 8) != nullptr)
                << c.text;
        });
        EXPECT_STREQ(c.value, out);
        EXPECT_EQ(strlen(c.value) == 8,
                  output.find("Warning! overflow (len, size) = (9, 8)\n") != std::string::npos);
    }
    const struct {
        const char *text, *value;
    } kLines[] = {{"ID=[abc]\r\nx", "abc]"}, {"id=[abc\nx\ry", "abc\nx"},
                  {"ID=[abc\n", "abc"},      {"ID=[abc", nullptr},
                  {"no", nullptr},           {"ID=[0123456789\n", "0123456"}};
    for (const auto &c : kLines) {
        char out[8] = "";
        OutputOf([&] {
            EXPECT_EQ(c.value != nullptr,
                      COM_GetStrBeforeNewLine(c.text, "ID=[", out, sizeof out) != nullptr);
        });
        EXPECT_STREQ(c.value ? c.value : "", out);
    }
    EXPECT_EQ(nullptr, COM_StrNCaseStr(nullptr, "x"));
    EXPECT_STREQ("text", COM_StrNCaseStr("text", ""));
}

TEST(Common, ASocketThatIsGoneTakesNoTimeout) {
    EXPECT_NE(std::string::npos,
              OutputOf([] {
                  EXPECT_EQ(-1, COM_SetSocketTimeout(-1, 5));
              }).find("(): setsockopt(-1, SO_SNDTIMEO, 5 sec) failed - Bad file descriptor\n"));
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
