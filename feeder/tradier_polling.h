// Tradier by polling: quote snapshots in the regular session, minute bars before and after it, and the market clock
// that switches between them.
#pragma once

#include "providers/context.h"
#include "providers/open_charts.h"

#include <chrono>
#include <functional>
#include <string>

namespace quenmark::feeder {

class TradierPolling {
 public:
  using SetTickInterval = std::function<void(std::chrono::milliseconds)>;

  // `subscribed` is the list that the provider branch last acted on; it belongs to the main form, as `open` does.
  TradierPolling(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                 SetTickInterval setTickInterval);

  // The polling steps of one tick, after the open symbols have been read.
  void Tick();

  bool InExtendedHours() const { return !m_extendedHoursFlag.empty(); }
  const std::string& LastTradeStamp() const { return m_lastTradeStamp; }

 private:
  void PollExtendedHours();
  void PollBar(std::string_view symbol);
  void TakeSnapshot();
  void AskMarketClock();

  providers::Context& m_context;
  const providers::OpenSymbols& m_open;
  std::string& m_subscribed;
  SetTickInterval m_setTickInterval;
  std::string m_extendedHoursFlag;  // `ExtendedHoursFlag`: "Y" in pre- and post-market, else ""
  std::string m_lastTradeStamp;     // `LastTradeStamp`: stamp of the newest bar seen in extended hours
};

}  // namespace quenmark::feeder
