// The log of the market-events stream: what a test needs to compute the records that a client must hold. One line each,
//
//   TIME <TAB> STREAM <TAB> KIND <TAB> TEXT
//
// in the order sent. TIME is microseconds since 1970 UTC; line breaks inside TEXT are written as TABs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::simulator {

class EventLog {
 public:
  // Appends to `file`; an empty name logs nothing. Throws std::runtime_error when it cannot be opened.
  explicit EventLog(const std::string& file);
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  // Kept until Flush. `stream` is 0 for what is no stream's.
  void Append(std::int64_t time, std::int64_t stream, std::string_view kind, std::string_view text);
  void Flush();

 private:
  int m_file = -1;
  std::string m_lines;
};

}  // namespace quenmark::simulator
