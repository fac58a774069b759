#include "simulator/request_log.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace quenmark::simulator {
namespace {

// Logged headers hold credentials.
constexpr std::filesystem::perms kOwnerOnly = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

}  // namespace

RequestLog::RequestLog(const std::string& file) {
  if (file.empty()) return;
  const bool isNew = !std::filesystem::exists(file);
  m_file.open(file, std::ios::app | std::ios::binary);
  if (!m_file) throw std::runtime_error("cannot write " + file);
  std::error_code ignored;
  if (isNew) std::filesystem::permissions(file, kOwnerOnly, ignored);
}

void RequestLog::Request(const HttpRequest& request, int status, std::string_view fault, std::int64_t time) {
  if (!m_file.is_open()) return;
  Node headers = Node::Object();
  for (const auto& [name, value] : request.headers) {
    const auto place = std::find(headers.names.begin(), headers.names.end(), name);
    if (place == headers.names.end()) {
      headers.Add(name, Node::Text(value));
    } else {
      headers.values[static_cast<std::size_t>(place - headers.names.begin())].text += ", " + value;
    }
  }
  Node entry = Node::Object();
  entry.Add("kind", Node::Text("request"))
      .Add("time", Node::Number(time))
      .Add("scheme", Node::Text(request.scheme))
      .Add("method", Node::Text(request.method))
      .Add("path", Node::Text(request.target))
      .Add("headers", std::move(headers))
      .Add("body", Node::Text(request.body))
      .Add("status", Node::Number(status))
      .Add("fault", fault.empty() ? Node::Null() : Node::Text(std::string{fault}));
  Write(entry);
}

void RequestLog::Event(std::int64_t stream, const std::string& text, std::int64_t time) {
  if (!m_file.is_open()) return;
  Node entry = Node::Object();
  entry.Add("kind", Node::Text("event"))
      .Add("time", Node::Number(time))
      .Add("stream", Node::Number(stream))
      .Add("text", Node::Text(text));
  Write(entry);
}

void RequestLog::StreamEnd(std::int64_t stream, std::string_view reason, const std::string& partial,
                           std::int64_t time) {
  Node entry = Node::Object();
  entry.Add("kind", Node::Text("stream_end"))
      .Add("time", Node::Number(time))
      .Add("stream", Node::Number(stream))
      .Add("reason", Node::Text(std::string{reason}))
      .Add("partial", Node::Text(partial));
  Write(entry);
}

void RequestLog::Write(const Node& entry) {
  if (m_file.is_open()) m_file << ToJson(entry) << std::endl;
}

}  // namespace quenmark::simulator
