// One market-events stream: what it takes from the client and which messages it sends. It knows no sockets and waits
// for nothing.
#pragma once

#include "simulator/event_log.h"
#include "simulator/event_sessions.h"
#include "simulator/event_text.h"
#include "simulator/faults.h"
#include "simulator/market.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::simulator {

// Messages per second, unless there is no limit.
inline constexpr double kLeastRate = 0.01;
inline constexpr double kMostRate = 1'000'000;

struct EventOptions {
  double rate = 20;                               // messages per second and stream; 0: as fast as the client takes them
  std::optional<std::int64_t> events;             // most events of a stream; empty: no end
  std::size_t batch = 1;                          // events per message
  std::vector<EventKind> kinds;                   // that are sent; empty: all
  std::optional<std::chrono::milliseconds> step;  // what passes with an event on a fixed clock
  bool latency = false;                           // events carry the time of their sending, see EventStamps
  bool deflate = false;                           // accept permessage-deflate (RFC 7692)
  std::int64_t faultTurn = 10;                    // faults come in place of this message of events
  std::chrono::milliseconds sessionLife{300'000};  // of an unused session id
  std::string logFile;                             // none when empty
  std::uint64_t seed = 1;
};

struct EventCounts {
  std::int64_t opened = 0;
  std::int64_t open = 0;
  std::int64_t subscriptions = 0;  // that were accepted
  std::int64_t messages = 0;       // with events, sent
  std::int64_t events = 0;         // sent
};

class EventStream;

// What all streams share. Must outlive them, but for their destruction.
struct EventShared {
  EventShared(Market& sharedMarket, const EventOptions& given)
      : market(sharedMarket), options(given), sessions(given.sessionLife), log(given.logFile) {}
  ~EventShared();
  EventShared(const EventShared&) = delete;
  EventShared& operator=(const EventShared&) = delete;

  // Every session id is gone; the streams that use one are told and fall silent.
  void ExpireSessions();
  // For open streams as well.
  void SetRate(double rate);
  // Logs what is no stream's.
  void Note(std::string_view kind, std::string_view text);
  // Sends `text` as a message on every open stream.
  void Broadcast(const std::string& text);

  Market& market;
  EventOptions options;
  EventCounts counts{};
  EventSessions sessions;
  EventLog log;
  std::set<EventStream*> streams;  // open ones
};

class EventStream {
 public:
  // `fault` is committed in place of message EventOptions::faultTurn.
  EventStream(EventShared& shared, std::optional<Fault> fault);
  ~EventStream();
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  // Called when a message waits that no turn brings.
  void OnWaiting(std::function<void()> wake) { m_wake = std::move(wake); }
  const EventOptions& Options() const { return m_shared.options; }

  // A text from the client. One that is no subscription is answered with an error.
  void Receive(std::string_view message);
  // A message that is to be sent at once; nothing when there is none.
  std::optional<std::string> TakeWaiting();
  // Events can be sent: there is a subscription, the market moves, and the number of events is not reached.
  bool Running() const;
  // Reads the clocks; to be called before a row of calls of AppendMessage.
  void ReadClocks();
  // Appends the next message of events to `out`. Only while running.
  void AppendMessage(std::string& out);
  // The fault that is due in place of the next message; nothing else is sent after it.
  std::optional<Fault> DueFault() const;
  // The same for a message that the client does not get whole.
  void AppendPartial(std::string& out);
  // Before what was appended is sent.
  void FlushLog() { m_shared.log.Flush(); }
  // The stream is over, for this reason. Later calls do nothing.
  void Close(std::string_view reason);

 private:
  friend struct EventShared;

  void Say(std::string_view kind, std::string text);
  void Subscribe(const std::vector<std::string>& symbols);
  EventKind Draw(const Stock& stock);
  void AppendOne(std::string& out);

  EventShared& m_shared;
  const std::int64_t m_number;
  const std::optional<Fault> m_fault;
  std::function<void()> m_wake;
  std::uint64_t m_random;
  std::vector<const Stock*> m_stocks;  // subscribed
  bool m_lineBreaks = false;
  std::deque<std::string> m_waiting;
  std::int64_t m_messages = 0;
  std::int64_t m_events = 0;
  std::chrono::microseconds m_passed{0};  // not yet told to the market
  std::int64_t m_sent = 0;                // microseconds since 1970 UTC
  EventStamps m_stamps;
  bool m_closed = false;
};

}  // namespace quenmark::simulator
