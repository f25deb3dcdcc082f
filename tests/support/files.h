// Files and output as the tests see them.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
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

// Messages without their line numbers.
inline std::string Shorten(const std::string &log) {
    return std::regex_replace(log, std::regex("(^|\n)(\\w+),\\d+:"), "$1$2:");
}

// What a call printed, without the names before the messages of this origin, such as "TQ,main".
template <class Call>
std::string SaidBy(std::string origin, Call call) {
    origin.replace(origin.find(','), 1, ",\\d+:");
    return std::regex_replace(OutputOf(call), std::regex("(^|\n)" + origin + "\\(\\): "), "$1");
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

inline bool Holds(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Whether a message was printed; an empty one: whether nothing was.
inline bool Says(const std::string &output, const std::string &message) {
    return message.empty() ? output.empty() : Holds(output, message);
}
#define EXPECT_SAYS(output, message) EXPECT_PRED2(Says, output, message)
