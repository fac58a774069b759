// A clock that stands still until a test moves it or a loop with nothing to do skips to its next deadline.
#pragma once

#include "platform/clock.h"
#include "platform/date_text.h"

#include <chrono>

namespace quenmark::test {

class ManualClock final : public platform::Clock {
 public:
  // Starts at 15 March 2024, 14:30:00 UTC; the zone is fixed, `minutesWest` of Greenwich.
  explicit ManualClock(int minutesWest = 240) : m_minutesWest(minutesWest) {}

  platform::WallTime Now() const override { return m_wall; }
  platform::MonotonicTime Monotonic() const override { return m_monotonic; }
  platform::ZoneInformation Zone() const override {
    platform::ZoneInformation zone;
    zone.bias = m_minutesWest;
    return zone;
  }
  platform::CivilTime LocalNow() const override {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(m_wall.time_since_epoch()).count();
    return platform::FromSeconds(seconds - std::int64_t{m_minutesWest} * 60);
  }
  bool SkipTo(platform::MonotonicTime deadline) override {
    if (!m_skips || deadline <= m_monotonic || deadline == platform::MonotonicTime::max()) return false;
    Advance(deadline - m_monotonic);
    return true;
  }

  void Advance(std::chrono::nanoseconds time) {
    m_monotonic += time;
    m_wall += std::chrono::duration_cast<std::chrono::system_clock::duration>(time);
  }
  // Moves the wall clock alone, as a user who sets it does.
  void JumpWall(std::chrono::seconds time) { m_wall += time; }
  void SetSkips(bool skips) { m_skips = skips; }

 private:
  platform::WallTime m_wall{std::chrono::seconds{1'710'513'000}};
  platform::MonotonicTime m_monotonic{std::chrono::hours{1}};
  int m_minutesWest;
  bool m_skips = true;
};

}  // namespace quenmark::test
