#include "feeder/event_fields.h"

#include "providers/text_pieces.h"

#include <algorithm>
#include <bit>
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

static_assert(std::endian::native == std::endian::little);

// The highest bit of each byte of the word that is `c`; bytes above the first one found may be wrong.
constexpr std::uint64_t BytesThatAre(std::uint64_t word, char c) {
  constexpr std::uint64_t kEach = 0x0101010101010101;
  const std::uint64_t other = word ^ (kEach * static_cast<unsigned char>(c));
  return (other - kEach) & ~other & (kEach << 7);
}

// The offset of the first double quote, comma or blank from `at` on; the size of the text when there is none.
std::size_t EndOfValue(std::string_view text, std::size_t at) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  for (; at + kWord <= text.size(); at += kWord) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, kWord);
    const std::uint64_t ends = BytesThatAre(word, '"') | BytesThatAre(word, ',') | BytesThatAre(word, ' ');
    if (ends != 0) return at + static_cast<std::size_t>(std::countr_zero(ends)) / 8;
  }
  while (at < text.size() && text[at] != '"' && text[at] != ',' && text[at] != ' ') ++at;
  return at;
}

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

template <std::size_t kPieces>
constexpr bool HasValue(const std::array<Piece, kPieces>& layout, std::size_t field) {
  return std::any_of(layout.begin(), layout.end(), [field](const Piece& piece) { return piece.value == field; });
}

// Whether every piece is there, one after the other.
template <std::size_t... kPieces, typename Follow>
bool FollowAll(std::index_sequence<kPieces...> /*pieces*/, Follow follow) {
  return (follow.template operator()<kPieces>() && ...);
}

}  // namespace

EventFields::EventFields(std::string_view event) : m_event(event) {
  if (!Follow<kQuoteLayout>("quote") && !Follow<kTimesaleLayout>("timesale")) Search();
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
  const std::size_t end = EndOfValue(m_event, begin);
  if (end == m_event.size() || m_event[end] != kExpected.end) return false;
  if (kExpected.value != kEventFields) Set(kExpected.value, m_event.substr(begin, end - begin));
  at = end + 1;
  return true;
}

template <const auto& kLayout>
bool EventFields::Follow(std::string_view type) {
  std::size_t at = 0;
  const bool followed = FollowAll(std::make_index_sequence<kLayout.size()>(),
                                  [&]<std::size_t kPiece>() { return FollowPiece<kLayout, kPiece>(at); });
  if (!followed) return false;
  Set(kType, type);
  for (std::size_t field = kType + 1; field < kEventFields; ++field) {
    if (!HasValue(kLayout, field)) m_values[field] = {};
  }
  return true;
}

void EventFields::Search() {
  m_values.fill({});
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
  const std::string_view value = providers::Trimmed(m_event.substr(start, end - start));
  Set(field, value);
  if (field != kType) return;
  // What this type of event does not need is not looked for.
  if (value == "quote") {
    m_wanted = kQuoteFieldBits;
  } else if (value == "timesale") {
    m_wanted = kTimesaleFieldBits;
  } else {
    m_wanted = 0;
  }
}

}  // namespace quenmark::feeder
