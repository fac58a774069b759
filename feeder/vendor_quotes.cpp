#include "feeder/vendor_quotes.h"

#include "feeder/order_check.h"
#include "feeder/quote_record.h"
#include "feeder/records.h"
#include "platform/http_address.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/host_port.h"
#include "providers/text_pieces.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace quenmark::feeder {
namespace {

using namespace std::chrono_literals;
using platform::IgnoreErrors;
using sockets::ctxWinsock;

constexpr std::int32_t kHttpPort = 80;
constexpr auto kLongestWait = 30s;                          // for a close or an error
constexpr std::size_t kAnswerLimit = std::size_t{8} << 20;  // bytes
constexpr std::string_view kAnswerStart = "|@|";

// What stands between the scheme and a "/", or all of it.
std::string_view Authority(std::string_view address) {
  const std::size_t scheme = address.find("//");
  if (scheme != std::string_view::npos) address.remove_prefix(scheme + 2);
  return address.substr(0, address.find('/'));
}

}  // namespace

VendorQuotes::VendorQuotes(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                           platform::Timer& timerwTS)
    : m_context(context),
      m_open(open),
      m_subscribed(subscribed),
      m_timerwTS(timerwTS),
      m_tooLate(context.loop, kLongestWait, [this] { wTS_Error(); }),
      m_bars(context.programFolder),
      wTS(ctxWinsock::New(context.loop, nullptr)) {
  sockets::WinsockEvents events;
  events.Connect = [this] { wTS_Connect(); };
  events.DataArrival = [this](std::int32_t) { wTS_DataArrival(); };
  events.Close = [this] { wTS_Close(); };
  events.Error = [this](std::int16_t, const std::string& description, std::int32_t, const std::string&,
                        const std::string&, std::int32_t, bool&) {
    m_context.log.Debug("quotes: {}", description);
    wTS_Error();
  };
  wTS->SetEvents(std::move(events));
}

void VendorQuotes::Tick() {
  IgnoreErrors(
      [&] { m_account = m_context.store.GetSetting(providers::kConfigurationApp, providers::kApiSection, "Account"); });
  if (m_open.Text() == m_subscribed) return;
  m_subscribed = m_open.Text();
  if (!m_context.hosts.quotes.empty()) m_timerwTS.SetEnabled(true);
}

void VendorQuotes::TimerwTS_Timer() {
  m_timerwTS.SetEnabled(false);
  m_received.clear();
  EndPoll();
  m_outside.emplace(m_context.loop);
  m_tooLate.SetEnabled(true);
  const providers::HostPort target = providers::SplitHostPort(Authority(m_context.hosts.quotes), kHttpPort);
  IgnoreErrors([&] { wTS->RemoteHost(target.host); });
  IgnoreErrors([&] { wTS->RemotePort(target.port); });
  IgnoreErrors([&] { wTS->Connect(); });
}

void VendorQuotes::EndPoll() {
  m_tooLate.SetEnabled(false);
  m_outside.reset();
  wTS->Close_();
}

void VendorQuotes::wTS_Connect() {
  m_symbols = providers::ReplaceAll(providers::JoinedSymbols(m_subscribed), ",", "@");
  m_received.clear();
  IgnoreErrors([&] { wTS->SendData(VendorRequest(m_context, m_account, m_symbols)); });
}

void VendorQuotes::wTS_DataArrival() {
  sockets::WinsockData text = std::string();
  IgnoreErrors([&] {
    wTS->GetData(text);
    m_received += std::get<std::string>(text);
  });
  if (m_received.size() > kAnswerLimit) wTS_Error();
}

void VendorQuotes::wTS_Close() {
  const std::string received = std::exchange(m_received, {});
  m_tooLate.SetEnabled(false);
  m_outside.reset();
  IgnoreErrors([&] { TakeAnswer(received); });
  m_timerwTS.SetEnabled(true);
}

void VendorQuotes::wTS_Error() {
  m_received.clear();
  EndPoll();
  m_timerwTS.SetEnabled(true);
}

void VendorQuotes::TakeAnswer(std::string_view buffer) {
  ScanVendorAnswer(buffer, m_symbols, [this](std::string_view symbol, std::string_view item) {
    TakeVendorItem(m_context, m_bars, symbol, item);
  });
}

std::string VendorRequest(const providers::Context& context, std::string_view account, std::string_view symbols) {
  const std::string target = fmt::format("http://{}/quotes/?c={}&s={}", Authority(context.hosts.quotes),
                                         providers::InQuery(account), providers::InQuery(symbols));
  return fmt::format("GET {} HTTP/1.0\r\nAccept: */*\r\nAccept: text/html\r\nAuthorization: Basic {}\r\n\r\n",
                     platform::EscapeAddress(target),
                     providers::WithoutCharacters(context.serviceCredential, std::string_view("\r\n\0", 3)));
}

void ScanVendorAnswer(std::string_view buffer, std::string_view symbols,
                      const std::function<void(std::string_view symbol, std::string_view item)>& take) {
  const std::size_t start = buffer.find(kAnswerStart);
  if (start == std::string_view::npos) return;
  std::unordered_set<std::string_view> wanted;
  for (const std::string_view symbol : providers::Split(symbols, '@')) {
    if (!symbol.empty()) wanted.insert(symbol);
  }
  buffer.remove_prefix(start + kAnswerStart.size());
  for (std::size_t end = 0; (end = buffer.find('|')) != std::string_view::npos; buffer.remove_prefix(end + 1)) {
    const std::string_view item = buffer.substr(0, end);
    const std::size_t dash = item.find('-');
    if (dash == std::string_view::npos) continue;
    const std::string_view symbol = item.substr(0, dash);
    if (wanted.contains(symbol)) take(symbol, item);
  }
}

void TakeVendorItem(providers::Context& context, BarBuilder& bars, std::string_view symbol, std::string_view item) {
  IgnoreErrors([&] { context.store.SaveSetting(context.settingsApp, providers::kFeederSection, symbol, item); });
  IgnoreErrors([&] { WritePreviousClose(context, symbol, {}); });
  IgnoreErrors([&] { WriteRefreshTime(context, symbol); });
  const double last = platform::ReadNumber(SplitQuoteRecord(item)[kLast]);
  if (!(last > 0)) return;
  const std::string_view stamp = item.substr(item.size() - std::min(item.size(), kStampLength));
  IgnoreErrors([&] { CheckOrders(context, symbol, last, stamp); });
  IgnoreErrors([&] { bars.Update(symbol, last, stamp); });
}

}  // namespace quenmark::feeder
