// TradeStation: snapshots and symbol records when the charts change, and the quote stream that is opened again and
// again.
#pragma once

#include "platform/message_loop.h"
#include "providers/context.h"
#include "providers/open_charts.h"
#include "providers/stream_request.h"

#include <string>

namespace quenmark::feeder {

class StationStream {
 public:
  // `subscribed` is the list that the provider branch last acted on; it belongs to the main form, as `open` and the
  // restart timer (`Timer2`) do.
  StationStream(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                platform::Timer& restart);

  // The TradeStation steps of one main tick. When a read that the restart timer began is running, this tick's own read
  // follows it.
  void Tick();
  // The restart timer has fired; during another read it fires again later.
  void Restart();

 private:
  void ActOnNewCharts();
  void ReadForTick();
  providers::HttpResult Read();

  providers::Context& m_context;
  const providers::OpenSymbols& m_open;
  std::string& m_subscribed;
  platform::Timer& m_restart;
  providers::HttpResult m_lastResult;  // of the last read
  bool m_reading = false;
  bool m_readDue = false;  // a tick came while a restarted read was running
};

// Collects the symbols of the list without a catalogue entry (application = provider name) and fetches them.
void FillStationCatalogue(providers::Context& context, std::string_view subscribedList);

// Writes the quote record of one stream quote. `tradeTime` is local time in layout "GMT". Prices taken from `last` are
// written as whole hundredths.
void WriteStreamQuote(providers::Context& context, std::string_view last, std::string_view tradeTime,
                      std::string_view symbol);

}  // namespace quenmark::feeder
