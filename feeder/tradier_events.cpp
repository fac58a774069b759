#include "feeder/tradier_events.h"

#include "feeder/quote_record.h"
#include "feeder/records.h"
#include "platform/number_text.h"
#include "providers/dates.h"
#include "providers/text_pieces.h"

#include <array>
#include <cstring>

namespace quenmark::feeder {
namespace {

enum Field : std::size_t { kType, kName, kBid, kBidSize, kAsk, kAskSize, kLastPrice, kSize, kDate, kFields };

// What a field's value stands behind: the key, a colon and, for texts, a double quote.
struct Marker {
  std::string_view key;
  bool isText;
};
constexpr std::array<Marker, kFields> kMarkers{{{R"("type")", true},
                                                {R"("symbol")", true},
                                                {R"("bid")", false},
                                                {R"("bidsz")", false},
                                                {R"("ask")", false},
                                                {R"("asksz")", false},
                                                {R"("last")", true},
                                                {R"("size")", true},
                                                {R"("date")", true}}};

// The fields by the last letter of their key, which tells most of an event's keys apart; kFields where none ends so.
constexpr std::size_t kMostPerLetter = 3;
using Candidates = std::array<std::uint8_t, kMostPerLetter>;
constexpr std::array<Candidates, 256> MakeCandidates() {
  std::array<Candidates, 256> table{};
  for (Candidates& row : table) row.fill(kFields);
  for (std::size_t field = 0; field < kFields; ++field) {
    const std::string_view key = kMarkers[field].key;
    Candidates& row = table[static_cast<unsigned char>(key[key.size() - 2])];
    std::size_t place = 0;
    while (row[place] != kFields) ++place;
    row[place] = static_cast<std::uint8_t>(field);
  }
  return table;
}
constexpr std::array<Candidates, 256> kByLastLetter = MakeCandidates();

constexpr unsigned Bit(Field field) {
  return 1u << field;
}
constexpr unsigned kQuoteFieldBits = Bit(kType) | Bit(kName) | Bit(kBid) | Bit(kBidSize) | Bit(kAsk) | Bit(kAskSize);
constexpr unsigned kTimesaleFieldBits = Bit(kType) | Bit(kName) | Bit(kLastPrice) | Bit(kSize) | Bit(kDate);

// The fields of one message, each from its first occurrence to the next double quote or, for numbers, the next comma;
// "" where one is missing. One pass over the colons finds them all.
class EventFields {
 public:
  explicit EventFields(std::string_view event) : m_event(event) {
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

  std::string_view operator[](Field field) const { return m_values[field]; }

 private:
  void Note(std::size_t colon) {
    const std::string_view before = m_event.substr(0, colon);
    for (const std::uint8_t index : kByLastLetter[static_cast<unsigned char>(m_event[colon - 2])]) {
      if (index == kFields) return;
      const Field field = static_cast<Field>(index);
      if ((m_found & Bit(field)) != 0 || !before.ends_with(kMarkers[field].key)) continue;
      Take(field, colon + 1);
      return;
    }
  }

  void Take(Field field, std::size_t start) {
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

  std::string_view m_event;
  std::array<std::string_view, kFields> m_values;
  unsigned m_found = 0;
  unsigned m_wanted = (1u << kFields) - 1;
};

void AssignUpper(std::string& upper, std::string_view text) {
  upper.assign(text);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
}

}  // namespace

void TradierEvents::HandleStreamEvent(std::string_view event) {
  const EventFields fields(event);
  if (fields[kName].empty()) return;
  if (fields[kType] == "quote") {
    AssignUpper(m_symbol, fields[kName]);
    m_key.assign(m_symbol).append(kBookEnding);
    m_record.clear();
    AppendBook(m_record, {fields[kBid], fields[kBidSize], fields[kAsk], fields[kAskSize]});
    m_context.store.SaveSetting(m_context.settingsApp, providers::kFeederSection, m_key, m_record);
  } else if (fields[kType] == "timesale") {
    AssignUpper(m_symbol, fields[kName]);
    if (!providers::UnixToStamp(fields[kDate], m_context.gmtOffsetMinutes, m_stamp)) return;
    ReadRecord(m_symbol);
    if (CompareToRecord(m_context, m_stored, m_stamp) == QuoteOrder::kOk) {
      Write(fields[kLastPrice], m_symbol, fields[kSize]);
    }
  }
}

void TradierEvents::ApplyTimesale(std::string_view last, std::string_view epochTime, std::string_view symbol,
                                  std::string_view size) {
  if (!providers::UnixToStamp(epochTime, m_context.gmtOffsetMinutes, m_stamp)) return;
  ReadRecord(symbol);
  Write(last, symbol, size);
}

void TradierEvents::ReadRecord(std::string_view symbol) {
  m_context.store.Read(m_context.settingsApp, providers::kFeederSection, symbol, m_stored);
}

// The trade at m_stamp into the record m_stored.
void TradierEvents::Write(std::string_view last, std::string_view symbol, std::string_view size) {
  const auto price = platform::ParseNumber(last);
  const auto fields = SplitQuoteRecord(m_stored);
  if (price ? m_stamp <= fields[kStamp] : m_stored.empty()) return;
  const double volume = platform::ReadNumber(size) + platform::ReadNumber(fields[kVolume]);
  // A "-" in a field would break the record.
  if (symbol.empty() || providers::Contains(symbol, "-") || volume < 0 || (price && *price < 0)) return;

  const bool newHigh = price && platform::ReadNumber(fields[kHigh]) < *price;
  const bool newLow = price && platform::ReadNumber(fields[kLow]) > *price;
  m_last.clear();
  if (price) {
    platform::AppendNumber(m_last, *price);
  } else {
    m_last.assign(fields[kLast]);
  }
  m_record.assign(symbol).append("-").append(m_last).append("-");
  AppendChange(price, symbol, fields[kChange]);
  m_record.append("-").append(fields[kOpen]);
  m_record.append("-").append(newHigh ? m_last : fields[kHigh]);
  m_record.append("-").append(newLow ? m_last : fields[kLow]);
  m_record.append("-");
  platform::AppendNumber(m_record, volume);
  m_record.append("-1-1-").append(m_stamp);
  m_context.store.SaveSetting(m_context.settingsApp, providers::kFeederSection, symbol, m_record);
}

// Against the previous close; without one the change stays as it is stored.
void TradierEvents::AppendChange(std::optional<double> price, std::string_view symbol, std::string_view stored) {
  double close = 0;
  if (price) {
    m_key.assign(symbol).append("-pc");
    m_context.store.Read(m_context.settingsApp, providers::kFeederSection, m_key, m_close);
    close = platform::ReadNumber(m_close);
  }
  if (close == 0) {
    m_record.append(stored);
  } else {
    m_record.append(FormatChange((*price / close - 1) * 100));
  }
}

}  // namespace quenmark::feeder
