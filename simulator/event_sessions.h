// The session ids of the market-events stream. An id serves one stream at a time; it is good for a while after it was
// made and after its stream has ended. A user has one: a new id takes the place of the one before, whose running stream
// goes on but cannot subscribe again.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace quenmark::simulator {

class EventSessions {
 public:
  explicit EventSessions(std::chrono::milliseconds life) : m_life(life.count()) {}

  // A new id for `user`. `now`: milliseconds since 1970 UTC, here and below.
  std::string Issue(const std::string& user, std::int64_t now);
  // The stream may use the id: it is known, not expired, and no other stream has it. `stream` is above 0.
  bool Use(std::string_view id, std::int64_t stream, std::int64_t now);
  void Release(std::int64_t stream, std::int64_t now);
  // No id is good any more.
  void ExpireAll() { m_sessions.clear(); }

 private:
  struct Entry {
    std::string id;
    std::int64_t goodUntil = 0;
    std::int64_t stream = 0;  // that uses it; 0: none
  };
  static constexpr std::size_t kMostUsers = 1'000;

  const std::int64_t m_life;
  std::int64_t m_issued = 0;
  std::map<std::string, Entry> m_sessions;  // by user
};

}  // namespace quenmark::simulator
