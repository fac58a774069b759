#include "simulator/quote_stream.h"

#include "simulator/exchange_time.h"
#include "simulator/random.h"
#include "simulator/station_quote.h"

#include <algorithm>
#include <array>
#include <utility>

namespace quenmark::simulator {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::string_view kLineBreak = "\r\n";
constexpr microseconds kHeartbeatInterval = std::chrono::seconds{1};
constexpr int kBlankBlocks = 50;
constexpr std::size_t kBlankBlock = 1'000'000;  // bytes

constexpr std::array<std::pair<ChunkBorders, std::string_view>, 3> kBorders{{
    {ChunkBorders::kObject, "object"},
    {ChunkBorders::kRandom, "random"},
    {ChunkBorders::kByte, "byte"},
}};

Node Status(const char* text) {
  Node node = Node::Object();
  node.Add("StreamStatus", Node::Text(text));
  return node;
}

bool IsOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// The changed fields of a quote and its symbol. Most trades carry price and time even where these stand still, and the
// unchanged flags come along at times. `before` and `quote` have the same fields.
Node Changes(const Node& before, const Node& quote, std::uint64_t& random) {
  const auto changed = [&](std::size_t index) { return before.values[index] != quote.values[index]; };
  const auto volume = std::find(quote.names.begin(), quote.names.end(), "Volume") - quote.names.begin();
  const bool wholeTrade = changed(static_cast<std::size_t>(volume)) && Draw(random, 0, 3) != 0;
  const bool flags = Draw(random, 0, 3) == 0;
  Node object = Node::Object();
  for (std::size_t index = 0; index < quote.names.size(); ++index) {
    const std::string& name = quote.names[index];
    if (changed(index) || name == "Symbol" || (wholeTrade && IsOneOf(name, {"Last", "TradeTime"})) ||
        (flags && IsOneOf(name, {"Restrictions", "MarketFlags"}))) {
      object.Add(name, quote.values[index]);
    }
  }
  return object;
}

}  // namespace

std::optional<ChunkBorders> ParseChunkBorders(std::string_view text) {
  for (const auto& [borders, name] : kBorders) {
    if (name == text) return borders;
  }
  return std::nullopt;
}

QuoteStream::QuoteStream(StreamShared& shared, const std::vector<std::string>& symbols)
    : m_shared(shared),
      m_number(++shared.counts.opened),
      m_random(shared.options.seed + static_cast<std::uint64_t>(m_number) * 0x9FB21C651E98DF25U),
      m_interval(shared.options.rate > 0
                     ? std::max<std::int64_t>(1, static_cast<std::int64_t>(1e6 / shared.options.rate))
                     : 1),
      m_nextUpdate(m_interval),
      m_nextHeartbeat(kHeartbeatInterval) {
  ++m_shared.counts.open;
  Snapshot(symbols);
}

void QuoteStream::Snapshot(const std::vector<std::string>& symbols) {
  for (const std::string& symbol : symbols) {
    if (m_shared.market.Find(symbol) == nullptr) {
      Queue(StationSymbolError(symbol, "FAILED, EX_INVALID_SYMBOL"));
      continue;
    }
    m_subscriptions.push_back({symbol, Node::Null()});
    Queue(QuoteOf(m_subscriptions.back()), m_subscriptions.size() - 1);
  }
  Queue(Status("EndSnapshot"));
}

microseconds QuoteStream::Due() const {
  return !m_begun || m_blanks > 0 ? m_now : std::min(m_nextUpdate, m_nextHeartbeat);
}

StreamPiece QuoteStream::Next() {
  StreamPiece piece;
  if (m_blanks > 0) {
    --m_blanks;
    piece.chunks.emplace_back(kBlankBlock, ' ');
    return piece;
  }
  if (m_begun) {
    Turn(piece);
  } else {
    m_begun = true;
    CutIntoChunks(piece, HeldBack());
  }
  return piece;
}

void QuoteStream::Turn(StreamPiece& piece) {
  const microseconds due = Due();
  m_shared.market.Pass(duration_cast<milliseconds>(due) - duration_cast<milliseconds>(m_now));
  m_now = due;
  if (m_nextUpdate > m_nextHeartbeat) {
    m_nextHeartbeat += kHeartbeatInterval;
    Heartbeat();
    return CutIntoChunks(piece, HeldBack());
  }
  m_nextUpdate += m_interval;
  Update();
  if (++m_turns == kFaultTurn && m_fault) {
    piece.then = FaultStep(piece);
  } else {
    CutIntoChunks(piece, HeldBack());
  }
}

// The symbol's quote after one more step of the market.
Node QuoteStream::QuoteOf(Subscription& subscription) {
  subscription.sent = StationQuote(m_shared.market, *m_shared.market.Step(subscription.symbol));
  return subscription.sent;
}

void QuoteStream::Update() {
  if (m_shared.market.Held() || m_subscriptions.empty()) return;
  const auto place = static_cast<std::size_t>(Draw(m_random, 0, static_cast<std::int64_t>(m_subscriptions.size()) - 1));
  const Node before = m_subscriptions[place].sent;
  const Node quote = QuoteOf(m_subscriptions[place]);
  if (quote == before) return;
  const bool complete = Draw(m_random, 0, 15) == 0;
  Queue(complete ? quote : Changes(before, quote, m_random), place);
}

void QuoteStream::Heartbeat() {
  Node node = Node::Object();
  node.Add("Heartbeat", Node::Number(++m_heartbeats))
      .Add("Timestamp", Node::Text(UtcTimeText(m_shared.market.Now() / 1000)));
  Queue(node);
}

StreamPiece::Then QuoteStream::FaultStep(StreamPiece& piece) {
  switch (*m_fault) {
    case FaultKind::kCut:
    case FaultKind::kStall: {
      if (m_subscriptions.empty()) {
        Heartbeat();
      } else {
        Queue(m_subscriptions.front().sent, 0);
      }
      const Object& last = m_objects.back();
      CutIntoChunks(piece, last.left - last.text.size() / 2);
      return *m_fault == FaultKind::kCut ? StreamPiece::Then::kDrop : StreamPiece::Then::kStall;
    }
    case FaultKind::kGoAway:
      Queue(Status("GoAway"));
      [[fallthrough]];
    case FaultKind::kEnd:
      CutIntoChunks(piece, 0);
      return StreamPiece::Then::kEnd;
    case FaultKind::kHuge:
      m_blanks = kBlankBlocks;
      CutIntoChunks(piece, 0);
      return StreamPiece::Then::kGoOn;
    default:  // faults of other kinds of answers
      break;
  }
  CutIntoChunks(piece, HeldBack());
  return StreamPiece::Then::kGoOn;
}

void QuoteStream::Queue(const Node& object, std::optional<std::size_t> about) {
  std::string text = ToJson(object);
  const std::size_t bytes = text.size() + kLineBreak.size();
  m_objects.push_back({std::move(text), bytes, about, about ? m_subscriptions[*about].sent : Node::Null()});
}

// How much of the end waits for the next piece, so that an object can arrive in parts with time between them.
std::size_t QuoteStream::HeldBack() {
  if (m_shared.options.chunks != ChunkBorders::kRandom || m_shared.market.Held() || m_objects.empty()) return 0;
  if (Draw(m_random, 0, 3) != 0) return 0;
  return static_cast<std::size_t>(Draw(m_random, 0, static_cast<std::int64_t>(m_objects.back().left)));
}

std::size_t QuoteStream::ChunkSize() {
  if (m_fault == FaultKind::kDrip) return 1;
  switch (m_shared.options.chunks) {
    case ChunkBorders::kObject:
      return m_objects.front().left;
    case ChunkBorders::kByte:
      return 1;
    case ChunkBorders::kRandom:
      break;
  }
  return static_cast<std::size_t>(Draw(m_random, 1, std::int64_t{1} << Draw(m_random, 0, 11)));
}

// Everything queued but its last `keep` bytes becomes chunks.
void QuoteStream::CutIntoChunks(StreamPiece& piece, std::size_t keep) {
  std::size_t left = 0;
  for (const Object& object : m_objects) left += object.left;
  while (left > keep) {
    piece.chunks.push_back(Take(std::min(ChunkSize(), left - keep)));
    left -= piece.chunks.back().size();
  }
  piece.apart =
      m_fault == FaultKind::kDrip || (m_shared.options.chunks == ChunkBorders::kRandom && Draw(m_random, 0, 1) == 1);
}

std::string QuoteStream::Take(std::size_t bytes) {
  std::string taken;
  while (bytes > 0) {
    Object& object = m_objects.front();
    const std::size_t part = std::min(bytes, object.left);
    const bool unsent = object.left > kLineBreak.size();
    taken += (object.text + std::string{kLineBreak}).substr(object.text.size() + kLineBreak.size() - object.left, part);
    object.left -= part;
    bytes -= part;
    if (unsent && object.left <= kLineBreak.size()) {
      ++m_shared.counts.objects;
      m_shared.log.Event(m_number, object.text, m_shared.market.Now());
      if (object.about) m_shared.sent.Record(m_subscriptions[*object.about].symbol, "station_stream", object.fields);
    }
    if (object.left == 0) m_objects.pop_front();
  }
  return taken;
}

void QuoteStream::Close(std::string_view reason) {
  --m_shared.counts.open;
  std::string partial;
  if (!m_objects.empty() && m_objects.front().left > kLineBreak.size()) {
    const Object& object = m_objects.front();
    partial = object.text.substr(0, object.text.size() + kLineBreak.size() - object.left);
  }
  m_shared.log.StreamEnd(m_number, reason, partial, m_shared.market.Now());
}

}  // namespace quenmark::simulator
