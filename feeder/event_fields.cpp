#include "feeder/event_fields.h"

#include "providers/text_pieces.h"

#include <cstdint>
#include <cstring>
#include <utility>

namespace quenmark::feeder {
namespace {

// What a field's value stands behind: the key, a colon and, for texts, a double quote.
struct Marker {
  std::string_view key;
  bool isText;
};
constexpr std::array<Marker, kEventFields> kMarkers{{{R"("type")", true},
                                                     {R"("symbol")", true},
                                                     {R"("bid")", false},
                                                     {R"("bidsz")", false},
                                                     {R"("ask")", false},
                                                     {R"("asksz")", false},
                                                     {R"("last")", true},
                                                     {R"("size")", true},
                                                     {R"("date")", true}}};

// The fields by the last letter of their key, which tells most of an event's keys apart; kEventFields where none ends
// so.
constexpr std::size_t kMostPerLetter = 3;
using Candidates = std::array<std::uint8_t, kMostPerLetter>;
constexpr std::array<Candidates, 256> MakeCandidates() {
  std::array<Candidates, 256> table{};
  for (Candidates& row : table) row.fill(kEventFields);
  for (std::size_t field = 0; field < kEventFields; ++field) {
    const std::string_view key = kMarkers[field].key;
    Candidates& row = table[static_cast<unsigned char>(key[key.size() - 2])];
    std::size_t place = 0;
    while (row[place] != kEventFields) ++place;
    row[place] = static_cast<std::uint8_t>(field);
  }
  return table;
}
constexpr std::array<Candidates, 256> kByLastLetter = MakeCandidates();

constexpr std::array<bool, 256> MakeEnds() {
  std::array<bool, 256> table{};
  for (const char end : {'"', ',', ' '}) table[static_cast<unsigned char>(end)] = true;
  return table;
}
constexpr std::array<bool, 256> kEndsValue = MakeEnds();

constexpr unsigned Bit(EventField field) {
  return 1u << field;
}
constexpr unsigned kQuoteFieldBits = Bit(kType) | Bit(kName) | Bit(kBid) | Bit(kBidSize) | Bit(kAsk) | Bit(kAskSize);
constexpr unsigned kTimesaleFieldBits = Bit(kType) | Bit(kName) | Bit(kLastPrice) | Bit(kSize) | Bit(kDate);

// An event as the provider writes it, up to the last field that is needed: texts that stand as they are, each followed
// by a value up to the character `end`. Values of kEventFields are of no interest.
struct Piece {
  std::string_view text;
  EventField value;
  char end;
};
constexpr std::array kQuoteLayout{Piece{R"({"type":"quote","symbol":")", kName, '"'},
                                  Piece{R"(,"bid":)", kBid, ','},
                                  Piece{R"("bidsz":)", kBidSize, ','},
                                  Piece{R"("bidexch":")", kEventFields, '"'},
                                  Piece{R"(,"biddate":")", kEventFields, '"'},
                                  Piece{R"(,"ask":)", kAsk, ','},
                                  Piece{R"("asksz":)", kAskSize, ','}};
constexpr std::array kTimesaleLayout{Piece{R"({"type":"timesale","symbol":")", kName, '"'},
                                     Piece{R"(,"exch":")", kEventFields, '"'},
                                     Piece{R"(,"bid":")", kEventFields, '"'},
                                     Piece{R"(,"ask":")", kEventFields, '"'},
                                     Piece{R"(,"last":")", kLastPrice, '"'},
                                     Piece{R"(,"size":")", kSize, '"'},
                                     Piece{R"(,"date":")", kDate, '"'}};

// Whether every piece is there, one after the other.
template <std::size_t... kPieces, typename Follow>
bool FollowAll(std::index_sequence<kPieces...>, Follow follow) {
  return (follow.template operator()<kPieces>() && ...);
}

}  // namespace

EventFields::EventFields(std::string_view event) : m_event(event) {
  if (FollowQuote()) {
    m_values[kType] = "quote";
  } else if (FollowTimesale()) {
    m_values[kType] = "timesale";
  } else {
    m_values = {};
    Search();
  }
}

// A value with a double quote or a blank in it is left to the search: the one could begin another field, the other
// would have to be trimmed.
template <const auto& kLayout, std::size_t kPiece>
bool EventFields::FollowPiece(std::size_t& at) {
  constexpr Piece kExpected = kLayout[kPiece];
  constexpr std::size_t kLength = kExpected.text.size();
  if (m_event.size() - at < kLength || std::memcmp(m_event.data() + at, kExpected.text.data(), kLength) != 0)
    return false;
  const std::size_t begin = at + kLength;
  std::size_t end = begin;
  while (end < m_event.size() && !kEndsValue[static_cast<unsigned char>(m_event[end])]) ++end;
  if (end == m_event.size() || m_event[end] != kExpected.end) return false;
  if (kExpected.value != kEventFields) m_values[kExpected.value] = m_event.substr(begin, end - begin);
  at = end + 1;
  return true;
}

bool EventFields::FollowQuote() {
  std::size_t at = 0;
  return FollowAll(std::make_index_sequence<kQuoteLayout.size()>(),
                   [&]<std::size_t kPiece>() { return FollowPiece<kQuoteLayout, kPiece>(at); });
}

bool EventFields::FollowTimesale() {
  std::size_t at = 0;
  return FollowAll(std::make_index_sequence<kTimesaleLayout.size()>(),
                   [&]<std::size_t kPiece>() { return FollowPiece<kTimesaleLayout, kPiece>(at); });
}

void EventFields::Search() {
  const std::string_view event = m_event;
  const char* const begin = event.data();
  const char* const end = begin + event.size();
  const char* at = begin;
  while ((at = static_cast<const char*>(std::memchr(at, ':', static_cast<std::size_t>(end - at)))) != nullptr) {
    const std::size_t colon = static_cast<std::size_t>(at - begin);
    ++at;
    if (colon < 2 || event[colon - 1] != '"') continue;
    Note(colon);
    if ((m_found & m_wanted) == m_wanted) return;
    if (at == end) return;
  }
}

void EventFields::Note(std::size_t colon) {
  const std::string_view before = m_event.substr(0, colon);
  for (const std::uint8_t index : kByLastLetter[static_cast<unsigned char>(m_event[colon - 2])]) {
    if (index == kEventFields) return;
    const EventField field = static_cast<EventField>(index);
    if ((m_found & Bit(field)) != 0 || !before.ends_with(kMarkers[field].key)) continue;
    Take(field, colon + 1);
    return;
  }
}

void EventFields::Take(EventField field, std::size_t start) {
  const bool isText = kMarkers[field].isText;
  if (isText) {
    if (start == m_event.size() || m_event[start] != '"') return;
    ++start;
  }
  m_found |= Bit(field);
  const std::size_t end = m_event.find(isText ? '"' : ',', start);
  if (end == std::string_view::npos) return;
  m_values[field] = providers::Trimmed(m_event.substr(start, end - start));
  if (field != kType) return;
  // What this type of event does not need is not looked for.
  if (m_values[kType] == "quote") {
    m_wanted = kQuoteFieldBits;
  } else if (m_values[kType] == "timesale") {
    m_wanted = kTimesaleFieldBits;
  } else {
    m_wanted = 0;
  }
}

}  // namespace quenmark::feeder
