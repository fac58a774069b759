// The log file: one JSON object per line, written and flushed before its answer is sent.
#pragma once

#include "simulator/answer_tree.h"
#include "simulator/http_message.h"

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

namespace quenmark::simulator {

class RequestLog {
 public:
  // Appends to `file`, which is made readable for its owner only; an empty name logs nothing. Throws std::runtime_error
  // when the file cannot be opened.
  explicit RequestLog(const std::string& file);

  // `status` is 0 when no answer is sent; `fault` is empty when none was committed; `time` is milliseconds since 1970
  // UTC.
  void Request(const HttpRequest& request, int status, std::string_view fault, std::int64_t time);
  // An object sent on a stream, and a stream's end with the bytes of an object that was sent in part. Streams count
  // from 1.
  void Event(std::int64_t stream, const std::string& text, std::int64_t time);
  void StreamEnd(std::int64_t stream, std::string_view reason, const std::string& partial, std::int64_t time);

 private:
  void Write(const Node& entry);

  std::ofstream m_file;
};

}  // namespace quenmark::simulator
