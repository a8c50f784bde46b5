// GoogleTest helpers for tests on the virtual phone.
//
//   class MyTest : public vphone::PhoneTest {};   // fresh sandbox + reset per test
//   TEST_F(MyTest, X) { vphone::ScriptedDevice chip; vphone::attach(kmxc::kBusAddress, &chip); ... }
//
//   vphone::StderrCapture err;  ... ; EXPECT_EQ(err.text(), "open: No such file...\n");
//   vphone::LogCapture log;     ... ; EXPECT_EQ(log.lines(), (std::vector<LogLine>{{6, "Tag", "text"}}));
#ifndef KMXC_VPHONE_PHONE_FIXTURE_H
#define KMXC_VPHONE_PHONE_FIXTURE_H

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "vphone/vphone.h"

namespace vphone {

// Each test starts on an empty phone: new sandbox directory, clock at 0, empty
// transcript, no faults, no devices attached, control requests answering 0.
class PhoneTest : public ::testing::Test {
protected:
    void SetUp() override {
        reset();
        make_sandbox();
    }
    void TearDown() override {
        reset();
        remove_sandbox();
    }
};

// Collects what is written to standard error (file descriptor 2, so perror and the
// C library's own writes are caught) between construction and text()/destruction.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        file_ = std::tmpfile();
        saved_ = ::dup(2);
        ::dup2(::fileno(file_), 2);
    }
    ~StderrCapture() { restore(); }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    // Stops capturing (on first use) and returns everything captured.
    std::string text() {
        restore();
        return text_;
    }

private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
        saved_ = -1;
        std::rewind(file_);
        char chunk[256];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, file_)) > 0) text_.append(chunk, n);
        std::fclose(file_);
    }
    std::FILE *file_ = nullptr;
    int saved_ = -1;
    std::string text_;
};

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
    bool operator==(const LogLine &) const = default;
};

inline void PrintTo(const LogLine &line, std::ostream *os) {
    *os << "{" << line.priority << ", \"" << line.tag << "\", \"" << line.message << "\"}";
}

// Collects the Android log lines written through liblog while it exists (one at a
// time); afterwards liblog writes to standard error again.
class LogCapture {
public:
    LogCapture() {
        store().clear();
        __android_log_set_logger(&LogCapture::collect);
    }
    ~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    const std::vector<LogLine> &lines() const { return store(); }

private:
    static std::vector<LogLine> &store() {
        static std::vector<LogLine> lines;
        return lines;
    }
    static void collect(const __android_logger_data *data, const char *message) {
        store().push_back(LogLine{data->priority, data->tag != nullptr ? data->tag : "", message});
    }
};

}  // namespace vphone

#endif  // KMXC_VPHONE_PHONE_FIXTURE_H
