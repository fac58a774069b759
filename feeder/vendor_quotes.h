// The vendor's quote service: a poll over plain HTTP that ends with each answer, and the records, order checks and bars
// made of it (docs/formats/vendor_quotes.md).
#pragma once

#include "feeder/bar_builder.h"
#include "platform/message_loop.h"
#include "providers/context.h"
#include "providers/open_charts.h"
#include "sockets/ctx_winsock.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace quenmark::feeder {

class VendorQuotes {
 public:
  // `subscribed` is the list that the provider branch last acted on; it belongs to the main form, as `open` and the
  // poll timer (`TimerwTS`) do.
  VendorQuotes(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
               platform::Timer& timerwTS);

  // The vendor steps of one main tick. Without a configured host the poll does not begin.
  void Tick();
  // Begins a poll; one that is still running ends without a result.
  void TimerwTS_Timer();

 private:
  void wTS_Connect();
  void wTS_DataArrival();
  void wTS_Close();
  void wTS_Error();
  void EndPoll();
  void TakeAnswer(std::string_view buffer);

  providers::Context& m_context;
  const providers::OpenSymbols& m_open;
  std::string& m_subscribed;
  platform::Timer& m_timerwTS;
  platform::Timer m_tooLate;
  std::optional<platform::MessageLoop::OutsideWork> m_outside;

  std::string m_account;
  std::string m_symbols;  // of the request, joined by "@"
  std::string m_received;
  BarBuilder m_bars;
  std::shared_ptr<sockets::ctxWinsock> wTS;
};

// The request for the symbols, with its closing empty line. `quotesHost`: scheme://host[:port].
std::string VendorRequest(const providers::Context& context, std::string_view account, std::string_view symbols);

// Hands over the items behind the first "|@|" that are ended by "|" and whose symbol, the text up to the first "-", is
// one of `symbols` (joined by "@"). Views into `buffer`.
void ScanVendorAnswer(std::string_view buffer, std::string_view symbols,
                      const std::function<void(std::string_view symbol, std::string_view item)>& take);

// Writes one item as the symbol's quote record; above a price of 0 the order check and the bars follow.
void TakeVendorItem(providers::Context& context, BarBuilder& bars, std::string_view symbol, std::string_view item);

}  // namespace quenmark::feeder
