#include "feeder/tradier_events.h"

#include "feeder/event_fields.h"
#include "feeder/quote_record.h"
#include "feeder/records.h"
#include "platform/code_page.h"
#include "platform/number_text.h"
#include "providers/dates.h"
#include "providers/text_pieces.h"

#include <algorithm>
#include <cmath>

namespace quenmark::feeder {
namespace {

// In bytes; no provider comes near them. What is kept between events stays small so.
constexpr std::size_t kLongestSymbol = 4096;
constexpr std::size_t kLongestBook = 4096;

void AssignUpper(std::string& upper, std::string_view text) {
  upper.assign(text);
  for (char& c : upper) c = platform::AsciiUpper(c);
}

}  // namespace

void TradierEvents::HandleStreamEvent(std::string_view event) {
  const EventFields fields(event);
  if (fields[kName].empty() || fields[kName].size() > kLongestSymbol) return;
  if (fields[kType] == "quote") {
    const std::size_t book =
        fields[kBid].size() + fields[kBidSize].size() + fields[kAsk].size() + fields[kAskSize].size();
    if (book > kLongestBook) return;
    AssignUpper(m_symbol, fields[kName]);
    m_key.assign(m_symbol).append(kBookEnding);
    m_record.clear();
    AppendBook(m_record, {fields[kBid], fields[kBidSize], fields[kAsk], fields[kAskSize]});
    m_context.store.SaveSetting(m_context.settingsApp, providers::kFeederSection, m_key, m_record);
  } else if (fields[kType] == "timesale") {
    AssignUpper(m_symbol, fields[kName]);
    if (!ReadStamp(fields[kDate])) return;
    ReadRecord(m_symbol);
    if (CompareToRecord(m_context, m_stored, m_stamp) == QuoteOrder::kOk) {
      Write(fields[kLastPrice], m_symbol, fields[kSize]);
    }
  }
}

void TradierEvents::ApplyTimesale(std::string_view last, std::string_view epochTime, std::string_view symbol,
                                  std::string_view size) {
  if (!ReadStamp(epochTime)) return;
  ReadRecord(symbol);
  Write(last, symbol, size);
}

// Many trades share a second.
bool TradierEvents::ReadStamp(std::string_view epochTime) {
  constexpr std::size_t kMillisecondDigits = 13;
  constexpr std::size_t kSecondDigits = 10;
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const bool inMilliseconds = epochTime.size() == kMillisecondDigits;
  if (inMilliseconds && epochTime.starts_with(m_second) && !m_second.empty() &&
      m_secondOffset == m_context.gmtOffsetMinutes && isDigit(epochTime[10]) && isDigit(epochTime[11]) &&
      isDigit(epochTime[12])) {
    return true;
  }
  const bool isWhole =
      inMilliseconds && epochTime.front() != '0' && std::all_of(epochTime.begin(), epochTime.end(), isDigit);
  m_second.assign(isWhole ? epochTime.substr(0, kSecondDigits) : std::string_view());
  m_secondOffset = m_context.gmtOffsetMinutes;
  if (providers::UnixToStamp(epochTime, m_context.gmtOffsetMinutes, m_stamp)) return true;
  m_second.clear();
  return false;
}

void TradierEvents::ReadRecord(std::string_view symbol) {
  m_context.store.Read(m_context.settingsApp, providers::kFeederSection, symbol, m_stored);
}

// The trade at m_stamp into the record m_stored.
void TradierEvents::Write(std::string_view last, std::string_view symbol, std::string_view size) {
  const auto price = platform::ParseNumber(last);
  if (price ? m_stamp <= providers::AfterLast(m_stored, "-") : m_stored.empty()) return;
  const auto fields = SplitQuoteRecord(m_stored);
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

// Against the previous close; without one, or when the change is no number, it stays as it is stored.
void TradierEvents::AppendChange(std::optional<double> price, std::string_view symbol, std::string_view stored) {
  double percent = NAN;
  if (price) {
    m_key.assign(symbol).append("-pc");
    m_context.store.Read(m_context.settingsApp, providers::kFeederSection, m_key, m_close);
    percent = (*price / platform::ReadNumber(m_close) - 1) * 100;
  }
  if (std::isfinite(percent)) {
    m_record.append(FormatChange(percent));
  } else {
    m_record.append(stored);
  }
}

}  // namespace quenmark::feeder
