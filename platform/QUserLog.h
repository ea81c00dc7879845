// SPDX-License-Identifier: MIT
// The library's logger: six levels, every line on standard output and, when
// "QUserLog.ini" asks for it, appended to one file per day. The environment
// variable WCAN_LOG_CONSOLE=stderr moves the console lines to standard error,
// WCAN_LOG_CONSOLE=none drops them; WCAN_LOG_CONSOLE_LEVEL=warn (trace, debug,
// info, warn, error, fatal) drops the console lines below that level. The
// file is not affected by either.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>

enum LogLevel : uint32_t { LOG_TRACE = 0, LOG_DEBUG, LOG_INFO, LOG_WARN, LOG_ERROR, LOG_FATAL };

// The settings "QUserLog.ini" can change.
struct LogSettings {
  uint32_t level;
  char path[256];
  bool fileOutput;
};

enum class ConsoleTarget { Stdout, Stderr, None };
// The console destination WCAN_LOG_CONSOLE asks for (standard output when it
// is unset or unknown).
ConsoleTarget consoleTargetFrom(const char *setting);
// The lowest level WCAN_LOG_CONSOLE_LEVEL lets through to the console (every
// level when it is unset or unknown).
LogLevel consoleLevelFrom(const char *setting);

// Applies one line of the configuration file (modified in place); tracks
// whether the lines are inside the "LogConfig" section.
void applyLogConfigLine(char *line, bool &inLogConfig, LogSettings &settings);

class QUserLog {
public:
  static QUserLog &GetInstance();

  void Trace(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void Debug(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void Info(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void Warn(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void Error(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void Fatal(const char *format, ...) __attribute__((format(printf, 2, 3)));

  void Log(LogLevel level, const char *format, va_list args);
  void Flush();
  bool ReloadConfig();

  // Exposed for tests and tools.
  std::string GetLogFileName() const;
  uint32_t level() const { return logLevel; }
  ConsoleTarget consoleTarget() const { return console; }
  bool fileOutputOn() const { return fileOutput; }
  const char *path() const { return logPath; }
  static char *TrimWhitespace(char *text);
  static bool CreateDirectory(const char *path);

  QUserLog(const QUserLog &) = delete;
  QUserLog &operator=(const QUserLog &) = delete;

private:
  QUserLog();
  ~QUserLog();
  void LoadConfig();
  bool Init();
  void writeConsole(const char *text, size_t length);
  void FlushLocked();

  // One line is built, printed and filed under this lock, so lines from
  // several threads never interleave.
  std::recursive_mutex lineLock;
  ConsoleTarget console = ConsoleTarget::Stdout;
  LogLevel consoleLevel = LOG_TRACE;
  uint32_t logLevel = LOG_DEBUG;
  char logPath[256] = {};
  bool fileOutput = false;
  std::ofstream file;
  char buffer[1024] = {};
  int32_t bufferLen = 0;
  bool initialised = false;
};
