#include "simulator/event_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace quenmark::simulator {

EventLog::EventLog(const std::string& file) {
  if (file.empty()) return;
  m_file = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (m_file < 0) throw std::runtime_error("cannot write " + file);
}

EventLog::~EventLog() {
  Flush();
  if (m_file >= 0) close(m_file);
}

void EventLog::Append(std::int64_t time, std::int64_t stream, std::string_view kind, std::string_view text) {
  if (m_file < 0) return;
  m_lines += std::to_string(time);
  m_lines += '\t';
  m_lines += std::to_string(stream);
  m_lines += '\t';
  m_lines += kind;
  m_lines += '\t';
  const std::size_t begin = m_lines.size();
  m_lines += text;
  if (text.find_first_of("\r\n") != std::string_view::npos) {
    std::replace_if(
        m_lines.begin() + static_cast<std::ptrdiff_t>(begin), m_lines.end(),
        [](char character) { return character == '\n' || character == '\r'; }, '\t');
  }
  m_lines += '\n';
}

void EventLog::Flush() {
  for (std::size_t done = 0; m_file >= 0 && done < m_lines.size();) {
    const ssize_t count = write(m_file, m_lines.data() + done, m_lines.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;  // a full disk must not end the market
    done += static_cast<std::size_t>(count);
  }
  m_lines.clear();
}

}  // namespace quenmark::simulator
