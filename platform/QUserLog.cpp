// SPDX-License-Identifier: MIT
#include "platform/QUserLog.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <sstream>
#include <strings.h>

namespace {

constexpr const char *kLevelNames[] = {"TRACE", "DEBUG", "INFO ", "WARN ", "ERROR", "FATAL"};
constexpr size_t kBufferSize = 1024;

bool makeDirectory(const char *path) { return mkdir(path, 0755) == 0 || errno == EEXIST; }

} // namespace

QUserLog &QUserLog::GetInstance() {
  static QUserLog instance;
  return instance;
}

ConsoleTarget consoleTargetFrom(const char *setting) {
  if (setting != nullptr && strcmp(setting, "stderr") == 0) {
    return ConsoleTarget::Stderr;
  }
  if (setting != nullptr && strcmp(setting, "none") == 0) {
    return ConsoleTarget::None;
  }
  return ConsoleTarget::Stdout;
}

LogLevel consoleLevelFrom(const char *setting) {
  constexpr const char *names[] = {"trace", "debug", "info", "warn", "error", "fatal"};
  for (uint32_t level = LOG_TRACE; setting != nullptr && level <= LOG_FATAL; ++level) {
    if (strcasecmp(setting, names[level]) == 0) {
      return static_cast<LogLevel>(level);
    }
  }
  return LOG_TRACE;
}

QUserLog::QUserLog()
    : console(consoleTargetFrom(getenv("WCAN_LOG_CONSOLE"))),
      consoleLevel(consoleLevelFrom(getenv("WCAN_LOG_CONSOLE_LEVEL"))) {
  initialised = Init();
}

QUserLog::~QUserLog() {
  Flush();
  if (file.is_open()) {
    file.close();
  }
}

#define WCAN_LOG_AT(level)                                                                         \
  va_list args;                                                                                    \
  va_start(args, format);                                                                          \
  Log(level, format, args);                                                                        \
  va_end(args)

void QUserLog::Trace(const char *format, ...) { WCAN_LOG_AT(LOG_TRACE); }
void QUserLog::Debug(const char *format, ...) { WCAN_LOG_AT(LOG_DEBUG); }
void QUserLog::Info(const char *format, ...) { WCAN_LOG_AT(LOG_INFO); }
void QUserLog::Warn(const char *format, ...) { WCAN_LOG_AT(LOG_WARN); }
void QUserLog::Error(const char *format, ...) { WCAN_LOG_AT(LOG_ERROR); }
void QUserLog::Fatal(const char *format, ...) { WCAN_LOG_AT(LOG_FATAL); }

#undef WCAN_LOG_AT

void QUserLog::writeConsole(const char *text, size_t length) {
  FILE *stream = console == ConsoleTarget::Stdout   ? stdout
                 : console == ConsoleTarget::Stderr ? stderr
                                                    : nullptr;
  if (stream != nullptr) {
    fwrite(text, 1, length, stream);
    fflush(stream);
  }
}

void QUserLog::Log(LogLevel level, const char *format, va_list args) {
  std::lock_guard<std::recursive_mutex> guard(lineLock);
  if (level < logLevel) {
    return;
  }
  char timeText[32] = {};
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  strftime(timeText, sizeof timeText, "%Y-%m-%d %H:%M:%S", &local);
  if (level > LOG_FATAL) {
    return;
  }
  char message[1024];
  vsnprintf(message, sizeof message, format, args);
  char line[1280];
  const int written =
      snprintf(line, sizeof line, "[%s] [%s] %s\n", timeText, kLevelNames[level], message);
  const size_t lineLen = written < 0 ? 0 : std::min(static_cast<size_t>(written), sizeof line - 1);
  if (level >= consoleLevel) {
    writeConsole(line, lineLen);
  }

  if (!fileOutput || !file.is_open()) {
    return;
  }
  if (static_cast<size_t>(bufferLen) + lineLen >= kBufferSize) {
    FlushLocked();
  }
  if (static_cast<size_t>(bufferLen) + lineLen < kBufferSize) {
    memcpy(buffer + bufferLen, line, lineLen);
    bufferLen += static_cast<int32_t>(lineLen);
  }
  FlushLocked();
}

void QUserLog::Flush() {
  std::lock_guard<std::recursive_mutex> guard(lineLock);
  FlushLocked();
}

void QUserLog::FlushLocked() {
  if (!fileOutput || !file.is_open() || bufferLen < 1) {
    return;
  }
  file.write(buffer, bufferLen);
  file.flush();
  bufferLen = 0;
  memset(buffer, 0, sizeof buffer);
}

bool QUserLog::ReloadConfig() {
  std::lock_guard<std::recursive_mutex> guard(lineLock);
  console = consoleTargetFrom(getenv("WCAN_LOG_CONSOLE"));
  consoleLevel = consoleLevelFrom(getenv("WCAN_LOG_CONSOLE_LEVEL"));
  FlushLocked();
  if (file.is_open()) {
    file.close();
  }
  logPath[0] = '\0';
  logLevel = LOG_DEBUG;
  fileOutput = false;
  LoadConfig();
  return Init();
}

bool QUserLog::Init() {
  LoadConfig();
  if (!fileOutput || logPath[0] == '\0') {
    return true;
  }
  if (!CreateDirectory(logPath)) {
    std::cerr << "Failed to create log directory: " << logPath << std::endl;
    fileOutput = false;
    return false;
  }
  const std::string name = GetLogFileName();
  file.open(name, std::ios::out | std::ios::app);
  if (!file.is_open()) {
    std::cerr << "Failed to open log file: " << name << std::endl;
    fileOutput = false;
    return false;
  }
  return true;
}

void applyLogConfigLine(char *line, bool &inLogConfig, LogSettings &settings) {
  char *text = QUserLog::TrimWhitespace(line);
  const size_t len = strlen(text);
  if (len == 0 || text[0] == ';') {
    return;
  }
  if (text[0] == '[' && text[len - 1] == ']') {
    char section[64] = {};
    inLogConfig = sscanf(text, "[%63[^]]]", section) == 1 && strcmp(section, "LogConfig") == 0;
    return;
  }
  char *equals = strchr(text, '=');
  if (!inLogConfig || equals == nullptr) {
    return;
  }
  *equals = '\0';
  const char *key = QUserLog::TrimWhitespace(text);
  char *value = QUserLog::TrimWhitespace(equals + 1);
  if (char *comment = strchr(value, ';')) {
    *comment = '\0';
  }
  value = QUserLog::TrimWhitespace(value);
  if (strcmp(key, "LogLevel") == 0) {
    const int level = atoi(value);
    if (level >= 0 && level <= static_cast<int>(LOG_FATAL)) {
      settings.level = static_cast<uint32_t>(level);
    }
  } else if (strcmp(key, "LogPath") == 0) {
    snprintf(settings.path, sizeof settings.path, "%s", value);
  } else if (strcmp(key, "FileOutput") == 0) {
    settings.fileOutput = atoi(value) == 1;
  }
}

void QUserLog::LoadConfig() {
  FILE *ini = fopen("QUserLog.ini", "r");
  if (ini == nullptr) {
    fileOutput = false;
    return;
  }
  LogSettings settings{logLevel, {}, fileOutput};
  memcpy(settings.path, logPath, sizeof logPath);
  char line[256];
  bool inLogConfig = false;
  while (fgets(line, sizeof line, ini) != nullptr) {
    applyLogConfigLine(line, inLogConfig, settings);
  }
  fclose(ini);
  logLevel = settings.level;
  memcpy(logPath, settings.path, sizeof logPath);
  fileOutput = settings.fileOutput;
  std::ostringstream report;
  report << "Config loaded successfully:\n"
         << "LogLevel: " << logLevel << "\n"
         << "LogPath: " << logPath << "\n"
         << "FileOutput: " << (fileOutput ? 1 : 0) << "\n";
  const std::string text = report.str();
  writeConsole(text.c_str(), text.size());
}

char *QUserLog::TrimWhitespace(char *text) {
  if (text == nullptr || *text == '\0') {
    return text;
  }
  while (isspace(static_cast<unsigned char>(*text))) {
    ++text;
  }
  char *end = text + strlen(text);
  while (end > text && isspace(static_cast<unsigned char>(end[-1]))) {
    --end;
  }
  *end = '\0';
  return text;
}

bool QUserLog::CreateDirectory(const char *path) {
  char copy[256];
  snprintf(copy, sizeof copy, "%s", path);
  for (char *p = copy + 1; *p != '\0'; ++p) {
    if (*p != '/') {
      continue;
    }
    *p = '\0';
    const bool made = makeDirectory(copy);
    *p = '/';
    if (!made) {
      return false;
    }
  }
  return makeDirectory(copy);
}

std::string QUserLog::GetLogFileName() const {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char name[512];
  snprintf(name, sizeof name, "%s/QUserLog_%04d%02d%02d.log", logPath, local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday);
  return name;
}
