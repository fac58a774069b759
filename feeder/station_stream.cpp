#include "feeder/station_stream.h"

#include "feeder/quote_record.h"
#include "feeder/quote_snapshot.h"
#include "feeder/records.h"
#include "platform/code_page.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/get_between.h"
#include "providers/host_port.h"
#include "providers/http_requests.h"
#include "providers/numbers.h"
#include "providers/station_symbols.h"
#include "providers/symbol_catalogue.h"
#include "providers/text_pieces.h"

#include <utility>

namespace quenmark::feeder {
namespace {

using platform::IgnoreErrors;
using providers::Context;

constexpr std::string_view kStreamPath = "/v3/marketdata/stream/quotes/";
constexpr int kSecurePort = 443;

// Host, port and scheme of the base address; 443 and TLS unless it says otherwise.
providers::StreamTarget TargetOf(const Context& context) {
  providers::StreamTarget target;
  const providers::HostPort place =
      providers::SplitHostPort(providers::GetBetween(context.apiBase, "//", "/"), kSecurePort);
  target.host = place.host;
  target.port = place.port;
  target.secure = target.port == kSecurePort || context.apiBase.starts_with("https:");
  target.headers = "Content-Type: application/vnd.tradestation.streams.v2+json\r\nAuthorization: Bearer " +
                   context.accessToken + "\r\n";
  return target;
}

void TakeQuote(Context& context, const providers::StreamQuote& quote) {
  const std::string localTime = StationLocalTime(context, quote.tradeTime);
  const std::string stamp = StampOf(localTime);
  if (quote.symbol.empty() || !IsStamp(stamp)) return;
  if (QAnt(context, quote.symbol, stamp) != QuoteOrder::kOk) return;
  IgnoreErrors([&] { WriteStreamQuote(context, quote.last, localTime, quote.symbol); });
  if (quote.hasBook) {
    IgnoreErrors([&] { WriteBook(context, quote.symbol, {quote.bid, quote.bidSize, quote.ask, quote.askSize}); });
  }
  // Asks for the symbol's record when it is not in the catalogue yet.
  const std::string symbol(quote.symbol);
  IgnoreErrors([&] { providers::GetStationSymbolInfo(context, symbol, "tickdec"); });
}

// The change in percent, nothing without a previous close.
std::optional<std::string> ChangeText(std::string_view last, std::string_view previousClose) {
  const double close = providers::ToHundredths(previousClose);
  if (close == 0) return std::nullopt;
  return FormatChange((providers::ToHundredths(last) / close - 1) * 100);
}

}  // namespace

void WriteStreamQuote(Context& context, std::string_view last, std::string_view tradeTime, std::string_view symbol) {
  const std::string stamp = StampOf(tradeTime);
  const std::string stored = context.store.GetSetting(context.settingsApp, providers::kFeederSection, symbol);
  const std::string close =
      context.store.GetSetting(context.settingsApp, providers::kFeederSection, std::string(symbol) + "-pc");
  const auto price = platform::ParseNumber(last);
  if (!IsStamp(stamp) || providers::Contains(symbol, "-") || (price && *price < 0)) return;
  if (price && stamp <= providers::AfterLast(stored, "-")) return;
  if (!price && stored.empty()) return;

  const auto fields = SplitQuoteRecord(stored);
  std::string lastText(fields[kLast]);
  std::string change(fields[kChange]);
  std::string high(fields[kHigh]);
  std::string low(fields[kLow]);
  if (price) {
    lastText = platform::NumberText(providers::ToHundredths(last));
    if (const auto text = ChangeText(last, close)) change = *text;
    if (*price > platform::ReadNumber(high)) high = lastText;
    if (*price < platform::ReadNumber(low)) low = lastText;
  }
  context.store.SaveSetting(context.settingsApp, providers::kFeederSection, symbol,
                            fmt::format("{}-{}-{}-{}-{}-{}-{}-1-1-{}", symbol, lastText, change, fields[kOpen], high,
                                        low, fields[kVolume], stamp));
}

void FillStationCatalogue(Context& context, std::string_view subscribedList) {
  // A copy: while the answer is awaited, a stream quote may set the provider name.
  const std::string application = context.providerName;
  std::string missing;
  const std::string symbols = providers::JoinedSymbols(subscribedList);
  for (const std::string_view symbol : providers::Split(symbols, ',')) {
    if (!CatalogueEntry(context, application, symbol).empty()) continue;
    if (!missing.empty()) missing += ',';
    missing += platform::AsciiUpper(symbol);
  }
  if (missing.size() < 2) return;
  providers::FetchStationSymbols(context, application, missing);
}

StationStream::StationStream(Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                             platform::Timer& restart)
    : m_context(context), m_open(open), m_subscribed(subscribed), m_restart(restart) {}

void StationStream::Tick() {
  if (m_open.Text() != m_subscribed) IgnoreErrors([&] { ActOnNewCharts(); });
  if (m_reading) {
    m_readDue = true;
    return;
  }
  ReadForTick();
}

void StationStream::ActOnNewCharts() {
  m_subscribed = m_open.Text();
  IgnoreErrors([&] { FillStationCatalogue(m_context, m_subscribed); });
  if (m_subscribed.empty()) return;
  const std::string symbols = providers::JoinedSymbols(m_subscribed);
  ApplyQuoteSnapshot(m_context,
                     providers::StationRequest(m_context, "marketdata/quotes/" + providers::InPath(symbols)));
}

void StationStream::ReadForTick() {
  if (!m_subscribed.empty()) m_lastResult = Read();
  if (!m_lastResult.statusLine.empty() && m_lastResult.statusCode != 200) {
    IgnoreErrors([&] {
      m_context.store.SaveSetting(providers::kConfigurationApp, providers::kApiSection, "SID",
                                  providers::kAskNewSession);
    });
    m_context.EndProgram("the quote stream was refused");
  }
}

void StationStream::Restart() {
  if (m_reading) return;
  m_restart.SetEnabled(false);
  if (!m_subscribed.empty()) m_lastResult = Read();
  if (std::exchange(m_readDue, false)) {
    const platform::MessageLoop::MainTickPause pause(m_context.loop);
    ReadForTick();
  }
}

providers::HttpResult StationStream::Read() {
  struct Reading {
    bool& flag;
    explicit Reading(bool& which) : flag(which) { flag = true; }
    ~Reading() { flag = false; }
  };
  const Reading reading(m_reading);
  providers::StreamTarget target = TargetOf(m_context);
  target.path = std::string(kStreamPath) + providers::InPath(providers::JoinedSymbols(m_subscribed));
  providers::StreamHooks hooks;
  hooks.symbolList = m_subscribed;
  hooks.onQuote = [this](const providers::StreamQuote& quote) { TakeQuote(m_context, quote); };
  hooks.onTimeUp = [this] { m_restart.SetEnabled(true); };
  return StreamRequest(m_context, target, hooks);
}

}  // namespace quenmark::feeder
