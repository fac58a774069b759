#include "feeder/tradier_polling.h"

#include "feeder/quote_record.h"
#include "feeder/quote_snapshot.h"
#include "feeder/tradier_requests.h"
#include "platform/code_page.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/get_between.h"
#include "providers/http_requests.h"
#include "providers/text_pieces.h"

#include <utility>

namespace quenmark::feeder {
namespace {

using namespace std::chrono_literals;
using providers::GetBetween;

constexpr auto kPauseAfterSnapshot = 250ms;
constexpr auto kRegularInterval = 750ms;
constexpr auto kExtendedInterval = 1000ms;

// A record's stamp as a request's start: yyyy-mm-dd HH:MM.
std::string StartText(std::string_view stamp) {
  return fmt::format("{}-{}-{} {}:{}", stamp.substr(0, 4), stamp.substr(4, 2), stamp.substr(6, 2), stamp.substr(8, 2),
                     stamp.substr(10, 2));
}

std::string_view LastCharacters(std::string_view text, std::size_t count) {
  return text.size() <= count ? text : text.substr(text.size() - count);
}

// The record with another last price and stamp.
std::string WithBar(std::string_view symbol, std::string_view oldRecord, double price, std::string_view stamp) {
  const auto fields = SplitQuoteRecord(oldRecord);
  std::string record(symbol);
  record += '-';
  platform::AppendNumber(record, price);
  record += '-';
  for (std::size_t field = kChange; field < kStamp; ++field) record.append(fields[field]).append("-");
  return record.append(stamp);
}

}  // namespace

TradierPolling::TradierPolling(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                               SetTickInterval setTickInterval)
    : m_context(context), m_open(open), m_subscribed(subscribed), m_setTickInterval(std::move(setTickInterval)) {}

void TradierPolling::Tick() {
  const bool unchanged = m_open.Text() == m_subscribed;
  if (unchanged && InExtendedHours()) {
    PollExtendedHours();
    return;
  }
  if (unchanged || m_subscribed.empty()) TakeSnapshot();
  AskMarketClock();
}

void TradierPolling::PollExtendedHours() {
  const std::string symbols = providers::JoinedSymbols(m_subscribed);
  for (const std::string_view symbol : providers::Split(symbols, ',')) {
    platform::IgnoreErrors([&] { PollBar(symbol); });
  }
}

void TradierPolling::PollBar(std::string_view symbol) {
  const std::string before = m_context.store.GetSetting(m_context.settingsApp, providers::kFeederSection, symbol);
  const std::string_view stamp = LastCharacters(before, kStampLength);
  if (!IsStamp(stamp)) return;
  const std::string answer = ApiRequest(m_context, MinuteBarsPath(symbol, StartText(stamp)));
  const std::string_view bar = NewestBar(answer);
  if (bar.empty()) return;
  m_lastTradeStamp = providers::WithoutCharacters(GetBetween(bar, ":\"", "\""), "-T:");
  const auto price = platform::ParseNumber(GetBetween(bar, R"("price":)", ","));
  // A negative price or such a symbol would break the record's fields.
  if (!price || *price < 0 || !IsStamp(m_lastTradeStamp) || providers::Contains(symbol, "-")) return;
  m_context.store.SaveSetting(m_context.settingsApp, providers::kFeederSection, symbol,
                              WithBar(symbol, before, *price, m_lastTradeStamp));
}

void TradierPolling::TakeSnapshot() {
  m_subscribed = platform::AsciiUpper(m_open.Text());
  if (!m_subscribed.empty()) {
    platform::IgnoreErrors([&] {
      ApplyQuoteSnapshot(m_context, ApiRequest(m_context, SnapshotPath(providers::JoinedSymbols(m_subscribed))));
    });
  }
  m_context.loop.Sleep(kPauseAfterSnapshot);
}

void TradierPolling::AskMarketClock() {
  m_subscribed = platform::AsciiUpper(m_open.Text());
  const std::string answer = ApiRequest(m_context, std::string(kClockPath));
  const std::string_view state =
      providers::RequestFailed(answer) ? std::string_view{} : GetBetween(answer, R"("state":")", "\"");
  if (state.starts_with("pre") || state.starts_with("post")) {
    m_setTickInterval(kExtendedInterval);
    m_extendedHoursFlag = "Y";
  } else {
    m_setTickInterval(kRegularInterval);
    m_extendedHoursFlag.clear();
    m_lastTradeStamp.clear();
  }
}

}  // namespace quenmark::feeder
