// The diagnostic log: off unless FEEDER_LOG asks for it, to standard error. Credentials never reach it.
#pragma once

#include <fmt/format.h>

#include <memory>
#include <string_view>

namespace quenmark::platform {

enum class LogLevel { kOff, kError, kInfo, kDebug };

// "error", "info" or "debug"; anything else is off.
LogLevel ParseLogLevel(std::string_view text);

class Log {
 public:
  explicit Log(LogLevel level = LogLevel::kOff);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  bool Enabled(LogLevel level) const { return level <= m_level; }

  template <typename... Args>
  void Error(fmt::format_string<Args...> format, Args&&... args) {
    if (Enabled(LogLevel::kError)) Write(LogLevel::kError, fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void Info(fmt::format_string<Args...> format, Args&&... args) {
    if (Enabled(LogLevel::kInfo)) Write(LogLevel::kInfo, fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void Debug(fmt::format_string<Args...> format, Args&&... args) {
    if (Enabled(LogLevel::kDebug)) Write(LogLevel::kDebug, fmt::format(format, std::forward<Args>(args)...));
  }

 private:
  void Write(LogLevel level, std::string_view line);

  LogLevel m_level;
  struct Sink;
  std::unique_ptr<Sink> m_sink;  // none while off
};

}  // namespace quenmark::platform
