#include "simulator/event_stream.h"

#include "simulator/answer_tree.h"
#include "simulator/http_message.h"
#include "simulator/random.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

namespace quenmark::simulator {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// With a fixed clock and no rate.
constexpr microseconds kDefaultStep = milliseconds{1};

// Of 16 trades, which kinds are told of them. Most of what a stream brings are quotes.
constexpr std::array kTold{
    EventKind::kQuote,    EventKind::kQuote,    EventKind::kQuote,    EventKind::kQuote,
    EventKind::kQuote,    EventKind::kQuote,    EventKind::kQuote,    EventKind::kTimesale,
    EventKind::kTimesale, EventKind::kTimesale, EventKind::kTimesale, EventKind::kTrade,
    EventKind::kTrade,    EventKind::kTrade,    EventKind::kTrade,    EventKind::kSummary,
};

std::int64_t RealTime() {
  return duration_cast<microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string ErrorText(std::string_view text) {
  return R"({"error":)" + QuotedJson(text) + "}";
}

struct Subscription {
  std::vector<std::string> symbols;
  std::string session;
  bool lineBreaks = false;
};

std::optional<Subscription> ParseSubscription(std::string_view message) {
  namespace tree = boost::property_tree;
  Subscription subscription;
  try {
    std::istringstream text{std::string{message}};
    tree::ptree root;
    tree::read_json(text, root);
    for (const auto& [name, symbol] : root.get_child("symbols")) {
      subscription.symbols.push_back(UpperCase(symbol.data()));
    }
    subscription.session = root.get<std::string>("sessionid");
    subscription.lineBreaks = root.get("linebreak", false);
  } catch (const tree::ptree_error&) {
    return std::nullopt;
  }
  return subscription;
}

}  // namespace

// Streams that are still open are destroyed later and must not come back here.
EventShared::~EventShared() {
  for (EventStream* stream : streams) stream->m_closed = true;
}

void EventShared::ExpireSessions() {
  sessions.ExpireAll();
  for (EventStream* stream : streams) {
    if (std::exchange(stream->m_stocks, {}).empty()) continue;
    stream->Say("reply", ErrorText("session not found"));
  }
}

void EventShared::SetRate(double rate) {
  options.rate = rate;
  for (EventStream* stream : streams) {
    if (stream->m_wake) stream->m_wake();
  }
}

void EventShared::Note(std::string_view kind, std::string_view text) {
  log.Append(RealTime(), 0, kind, text);
  log.Flush();
}

void EventShared::Broadcast(const std::string& text) {
  for (EventStream* stream : streams) stream->Say("message", text);
}

EventStream::EventStream(EventShared& shared, std::optional<Fault> fault)
    : m_shared(shared),
      m_number(++shared.counts.opened),
      m_fault(std::move(fault)),
      m_random(shared.options.seed + static_cast<std::uint64_t>(m_number) * 0x9FB21C651E98DF25U) {
  ++m_shared.counts.open;
  m_shared.streams.insert(this);
  ReadClocks();
}

EventStream::~EventStream() {
  if (!m_closed) m_shared.streams.erase(this);
}

// Messages wait for at most as long as the socket is busy; a client that reads nothing gets no more of them.
void EventStream::Say(std::string_view kind, std::string text) {
  constexpr std::size_t kMostWaiting = 100'000;
  if (m_waiting.size() >= kMostWaiting) return;
  m_shared.log.Append(RealTime(), m_number, kind, text);
  m_waiting.push_back(std::move(text));
  if (m_wake) m_wake();
}

std::optional<std::string> EventStream::TakeWaiting() {
  if (m_waiting.empty()) return std::nullopt;
  std::string text = std::move(m_waiting.front());
  m_waiting.pop_front();
  return text;
}

void EventStream::Receive(std::string_view message) {
  m_shared.log.Append(RealTime(), m_number, "received", message);
  const std::optional<Subscription> wanted = ParseSubscription(message);
  if (!wanted) return Say("reply", ErrorText("invalid subscription"));
  if (!m_shared.sessions.Use(wanted->session, m_number, m_shared.market.Now())) {
    m_stocks.clear();
    return Say("reply", ErrorText("session not found"));
  }
  m_lineBreaks = wanted->lineBreaks;
  ++m_shared.counts.subscriptions;
  Subscribe(wanted->symbols);
  if (m_wake) m_wake();
}

void EventStream::Subscribe(const std::vector<std::string>& symbols) {
  m_stocks.clear();
  for (const std::string& symbol : symbols) {
    if (const Stock* stock = m_shared.market.Find(symbol)) {
      m_stocks.push_back(stock);
    } else {
      Say("reply", ErrorText(symbol + " is not a valid symbol"));
    }
  }
}

bool EventStream::Running() const {
  const bool more = !m_shared.options.events || m_events < *m_shared.options.events;
  return more && !m_stocks.empty() && !m_shared.market.Held() && m_shared.market.CurrentSession() != Session::kClosed;
}

void EventStream::ReadClocks() {
  m_sent = RealTime();
  m_stamps.now = m_shared.market.Now();
  m_stamps.session = m_shared.market.CurrentSession();
}

std::optional<Fault> EventStream::DueFault() const {
  return m_fault && m_messages + 1 >= m_shared.options.faultTurn ? m_fault : std::nullopt;
}

// The stock has just moved one step.
EventKind EventStream::Draw(const Stock& stock) {
  EventKind kind = EventKind::kQuote;
  if (stock.traded != 0) kind = kTold.at(NextRandom(m_random) % kTold.size());
  const std::vector<EventKind>& kinds = m_shared.options.kinds;
  if (!kinds.empty() && std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
    kind = kinds[NextRandom(m_random) % kinds.size()];
  }
  const bool needsTrade = kind == EventKind::kTrade || kind == EventKind::kTimesale;
  if ((needsTrade && stock.traded == 0) || (kind == EventKind::kSummary && !stock.open)) return EventKind::kQuote;
  return kind;
}

void EventStream::AppendOne(std::string& out) {
  Market& market = m_shared.market;
  const EventOptions& options = m_shared.options;
  if (market.Fixed()) {
    m_passed += options.step ? microseconds{*options.step}
                : options.rate > 0
                    ? microseconds{static_cast<std::int64_t>(1e6 / options.rate / static_cast<double>(options.batch))}
                    : kDefaultStep;
    market.Pass(duration_cast<milliseconds>(m_passed));
    m_passed %= milliseconds{1};
    m_stamps.now = market.Now();
  }
  const Stock& stock = *m_stocks[NextRandom(m_random) % m_stocks.size()];
  const bool pinned = stock.pinned;
  market.Step(stock, m_stamps.now);
  ++m_stamps.sequence;
  m_stamps.sent = options.latency ? std::optional{m_sent} : std::nullopt;
  AppendEvent(pinned && stock.traded != 0 ? EventKind::kTimesale : Draw(stock), stock, m_stamps, out);
  if (m_lineBreaks) out += '\n';
  ++m_events;
  ++m_shared.counts.events;
}

void EventStream::AppendMessage(std::string& out) {
  const std::size_t begin = out.size();
  for (std::size_t event = 0; event < m_shared.options.batch; ++event) {
    if (event != 0 && !Running()) break;
    AppendOne(out);
  }
  ++m_messages;
  ++m_shared.counts.messages;
  std::string_view text{out};
  text.remove_prefix(begin);
  if (m_lineBreaks) text.remove_suffix(1);
  m_shared.log.Append(m_sent, m_number, "events", text);
}

void EventStream::AppendPartial(std::string& out) {
  const std::size_t begin = out.size();
  AppendOne(out);
  m_shared.log.Append(m_sent, m_number, "partial", std::string_view{out}.substr(begin));
}

void EventStream::Close(std::string_view reason) {
  if (std::exchange(m_closed, true)) return;
  m_shared.streams.erase(this);
  --m_shared.counts.open;
  m_shared.sessions.Release(m_number, m_shared.market.Now());
  m_shared.log.Append(RealTime(), m_number, "end", reason);
  m_shared.log.Flush();
  m_stocks.clear();
}

}  // namespace quenmark::simulator
