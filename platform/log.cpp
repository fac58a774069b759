#include "platform/log.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <string>

namespace quenmark::platform {
namespace {

// One line per entry whatever the text holds: text from outside must not be able to forge entries or drive a terminal.
std::string OneLine(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", byte);
    } else {
      line.push_back(c);
    }
  }
  return line;
}

spdlog::level::level_enum LevelOf(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return spdlog::level::err;
    case LogLevel::kInfo:
      return spdlog::level::info;
    case LogLevel::kDebug:
      return spdlog::level::debug;
    case LogLevel::kOff:
      break;
  }
  return spdlog::level::off;
}

}  // namespace

LogLevel ParseLogLevel(std::string_view text) {
  if (text == "error") return LogLevel::kError;
  if (text == "info") return LogLevel::kInfo;
  if (text == "debug") return LogLevel::kDebug;
  return LogLevel::kOff;
}

struct Log::Sink {
  spdlog::logger logger{"feeder", std::make_shared<spdlog::sinks::stderr_sink_mt>()};
};

Log::Log(LogLevel level) : m_level(level) {
  if (m_level == LogLevel::kOff) return;
  m_sink = std::make_unique<Sink>();
  m_sink->logger.set_level(LevelOf(m_level));
  m_sink->logger.set_pattern("%Y-%m-%d %H:%M:%S.%e %P %l %v");
}

Log::~Log() = default;

void Log::Write(LogLevel level, std::string_view line) {
  m_sink->logger.log(LevelOf(level), "{}", OneLine(line));
  m_sink->logger.flush();
}

}  // namespace quenmark::platform
