// Files, output and processes as the tests see them.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

inline void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string ReadFile(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// What a call printed.
template <class Call>
std::string OutputOf(Call call) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    call();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Runs a shell command of the test's own and expects it to succeed.
inline void Shell(const std::string &command) {
    ASSERT_EQ(0, system(command.c_str())) << command;
}

// The names in a folder.
inline std::string ListFolder(const std::string &path) {
    std::string text;
    FILE *pipe = popen(("ls " + path).c_str(), "r");
    for (int c; (c = fgetc(pipe)) != EOF;) {
        text += static_cast<char>(c);
    }
    pclose(pipe);
    return text;
}

// A check that mostly waits: it runs beside all other tests, in a process of its own, and only when
// all of them are wanted.
class Beside : public testing::Environment {
  public:
    explicit Beside(void (*check)()) : check_(check) {}
    void SetUp() override {
        fflush(stdout);
        pid_ = testing::GTEST_FLAG(filter) == "*" ? fork() : -1;
        if (pid_ == 0) {
            check_();
            fflush(stdout);
            _exit(testing::UnitTest::GetInstance()->Failed());
        }
    }
    void TearDown() override {
        int status = 0;
        EXPECT_TRUE(pid_ < 0 || waitpid(pid_, &status, 0) == pid_);
        EXPECT_EQ(status, 0) << "a check beside the tests failed";
    }

  private:
    void (*check_)();
    pid_t pid_ = -1;
};
