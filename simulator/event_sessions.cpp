#include "simulator/event_sessions.h"

#include <fmt/format.h>

namespace quenmark::simulator {

std::string EventSessions::Issue(const std::string& user, std::int64_t now) {
  if (m_sessions.size() >= kMostUsers && !m_sessions.contains(user)) m_sessions.clear();
  std::string id = fmt::format("c8638963-a6d4-4fb9-9bc6-{:012x}", ++m_issued);
  m_sessions[user] = {id, now + m_life, 0};
  return id;
}

bool EventSessions::Use(std::string_view id, std::int64_t stream, std::int64_t now) {
  for (auto& [user, entry] : m_sessions) {
    if (entry.id != id) continue;
    if (entry.stream == stream) return true;
    if (entry.stream != 0 || now >= entry.goodUntil) return false;
    Release(stream, now);
    entry.stream = stream;
    return true;
  }
  return false;
}

void EventSessions::Release(std::int64_t stream, std::int64_t now) {
  for (auto& [user, entry] : m_sessions) {
    if (entry.stream != stream) continue;
    entry.stream = 0;
    entry.goodUntil = now + m_life;
  }
}

}  // namespace quenmark::simulator
