// SPDX-License-Identifier: MIT
// The logger's configuration file, levels and daily file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/QUserLog.h"

namespace fs = std::filesystem;

namespace {

// Runs each test in a fresh directory holding (or not) a QUserLog.ini, and
// reloads the logger's configuration from it.
class Log : public ::testing::Test {
protected:
  void SetUp() override {
    dir = fs::temp_directory_path() /
          ("wcan-log-" + std::to_string(getpid()) + "-" +
           ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
    previous = fs::current_path();
    fs::current_path(dir);
  }
  void TearDown() override {
    fs::current_path(previous);
    std::remove((dir / "QUserLog.ini").c_str());
    log().ReloadConfig(); // back to console-only defaults
    fs::remove_all(dir);
  }
  static QUserLog &log() { return QUserLog::GetInstance(); }
  void writeIni(const std::string &content) { std::ofstream(dir / "QUserLog.ini") << content; }
  std::string reloadQuietly() {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    log().ReloadConfig();
    ::testing::internal::GetCapturedStdout();
    return ::testing::internal::GetCapturedStderr();
  }
  std::string stdoutOf(void (*emit)()) {
    ::testing::internal::CaptureStdout();
    emit();
    return ::testing::internal::GetCapturedStdout();
  }

  fs::path dir, previous;
};

TEST_F(Log, ConfigurationKeysAreReadOnlyInTheirSection) {
  struct Case {
    const char *ini;
    uint32_t level;
    bool fileOutput;
  } cases[] = {
      {"[LogConfig]\nLogLevel = 7\n", 1, false},
      {"[LogConfig]\nLogLevel = 0 ; all\n", 0, false},
      {"; comment\n  [LogConfig]  \n  LogLevel=4\n", 4, false},
      {"LogLevel=3\n[LogConfig]\n", 1, false},
      {"[LogConfig]\nLogLevel=2\n[Other]\nLogLevel=5\n", 2, false},
      {"[LogConfig]\nLogPath=logs\nFileOutput=2\n", 1, false},
      {"[LogConfig]\nloglevel=3\nLogLevel\n", 1, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.ini);
    writeIni(c.ini);
    reloadQuietly();
    EXPECT_EQ(log().level(), c.level);
    EXPECT_EQ(log().fileOutputOn(), c.fileOutput);
  }
}

TEST_F(Log, DailyFileInNestedDirectoriesReceivesEveryLine) {
  const fs::path nested = dir / "a" / "b";
  writeIni("[LogConfig]\nLogLevel=2\nLogPath=" + nested.string() + "\nFileOutput=1\n");
  reloadQuietly();
  ASSERT_TRUE(log().fileOutputOn());
  const std::string name = log().GetLogFileName();
  EXPECT_EQ(fs::path(name).parent_path(), nested);
  EXPECT_EQ(fs::path(name).filename().string().substr(0, 9), "QUserLog_");
  stdoutOf([] {
    log().Warn("first");
    log().Debug("below threshold");
    log().Trace("below threshold");
    log().Error("second");
  });
  std::ifstream file(name);
  std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_NE(content.find("[WARN ] first\n"), std::string::npos);
  EXPECT_NE(content.find("[ERROR] second\n"), std::string::npos);
  EXPECT_EQ(content.find("below threshold"), std::string::npos);
}

TEST_F(Log, UnwritableDirectoryFallsBackToConsole) {
  std::ofstream(dir / "blocker") << "a file, not a directory";
  writeIni("[LogConfig]\nLogPath=" + (dir / "blocker" / "sub").string() + "\nFileOutput=1\n");
  const std::string err = reloadQuietly();
  EXPECT_NE(err.find("Failed to create log directory: "), std::string::npos) << err;
  EXPECT_FALSE(log().fileOutputOn());
  EXPECT_NE(stdoutOf([] { log().Info("still here"); }).find("still here"), std::string::npos);
}

TEST_F(Log, LinesFromManyThreadsNeverTear) {
  writeIni("[LogConfig]\nLogLevel=0\nLogPath=" + dir.string() + "\nFileOutput=1\n");
  reloadQuietly();
  ASSERT_TRUE(log().fileOutputOn());
  constexpr int kThreads = 5, kLines = 400;
  stdoutOf([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([t] {
        for (int i = 0; i < kLines; ++i)
          log().Info("thread %d line %d %s", t, i, "padding padding padding padding");
      });
    for (auto &th : threads)
      th.join();
  });
  std::ifstream file(log().GetLogFileName());
  const std::regex whole(
      R"(\[[-0-9: ]{19}\] \[INFO \] thread \d line \d+ padding padding padding padding)");
  std::string line;
  int lines = 0;
  while (std::getline(file, line)) {
    ASSERT_TRUE(std::regex_match(line, whole)) << "torn line: " << line;
    ++lines;
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

TEST_F(Log, ConsoleLinesFollowTheEnvironment) {
  struct Case {
    const char *console, *level; // nullptr: unset
    bool infoOut, warnOut, warnErr;
  } cases[] = {
      {nullptr, nullptr, true, true, false},   {"stdout", nullptr, true, true, false},
      {"stderr", nullptr, false, false, true}, {"none", nullptr, false, false, false},
      {"bogus", nullptr, true, true, false},   {"stdout", "info", true, true, false},
      {"stdout", "WARN", false, true, false},  {"stdout", "error", false, false, false},
      {"stdout", "bogus", true, true, false},
  };
  const auto set = [](const char *name, const char *value) {
    value ? setenv(name, value, 1) : unsetenv(name);
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.console ? c.console : "(unset)") + " " +
                 (c.level ? c.level : "(unset)"));
    set("WCAN_LOG_CONSOLE", c.console);
    set("WCAN_LOG_CONSOLE_LEVEL", c.level);
    reloadQuietly();
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    log().Info("an info line");
    log().Warn("a warning line");
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out.find("an info line") != std::string::npos, c.infoOut);
    EXPECT_EQ(out.find("a warning line") != std::string::npos, c.warnOut);
    EXPECT_EQ(err.find("a warning line") != std::string::npos, c.warnErr);
  }
  unsetenv("WCAN_LOG_CONSOLE_LEVEL");
  unsetenv("WCAN_LOG_CONSOLE");
}

TEST(LogTrim, TrimsBothEnds) {
  char text[] = " \t key = value \n";
  EXPECT_STREQ(QUserLog::TrimWhitespace(text), "key = value");
  char empty[] = "";
  EXPECT_STREQ(QUserLog::TrimWhitespace(empty), "");
  EXPECT_EQ(QUserLog::TrimWhitespace(nullptr), nullptr);
}

} // namespace
