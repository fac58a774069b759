// The main form: start-up, the five timers, the main tick with its provider branches, and the exits.
#pragma once

#include "feeder/news_feed.h"
#include "feeder/station_stream.h"
#include "feeder/tradier_polling.h"
#include "feeder/tradier_stream.h"
#include "feeder/vendor_quotes.h"
#include "platform/message_loop.h"
#include "providers/context.h"
#include "providers/descriptions.h"
#include "providers/open_charts.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::feeder {

class frmPBF {
 public:
  // The context must outlive the form. The services are those of the event stream's connection; the certificates judge
  // the news server, and are the system's when they are left out.
  frmPBF(providers::Context& context, websocket::WebsocketServices streamServices,
         std::shared_ptr<tls::CertificateServices> certificates = {});
  frmPBF(const frmPBF&) = delete;
  frmPBF& operator=(const frmPBF&) = delete;

  // Start-up: reads the configuration, sets the GMT offset, runs the first tick and starts the main timer. The caller
  // has made sure that no other instance runs.
  void Form_Load();
  // The main tick. One that comes due while another runs follows when that one has ended.
  void Timer1_Timer();
  // The delayed exit after the stream was lost.
  void TimerClose_Timer();

  std::chrono::milliseconds TickInterval() const { return m_timer1.Interval(); }

 private:
  enum class TickEnd {
    kHostCheck,
    kAtOnce,  // no host check in this tick
  };
  struct Companion {
    std::string_view program;
    std::string_view other;
    std::string_view section;
  };

  void ReadConfiguration();
  void RunTick();
  void CheckCredential();
  void StartNews();
  void ReadOpenSymbols();
  TickEnd RunProviderBranch();
  void PrepareBrokerBranch();
  TickEnd RunTradier();
  void RunCompanion(const Companion& companion);
  void CheckHosts();
  bool AnyHostRuns() const;

  // `Fecha` (close): ends every process whose name contains the given one; gives up on one that stays.
  void Fecha(std::string_view name);
  void RefreshProcesses();

  providers::Context& m_context;
  platform::Timer m_timer1;
  platform::Timer m_timer2;
  platform::Timer m_timerNews;
  platform::Timer m_timerClose;
  platform::Timer m_timerwTS;

  bool m_newsStarted = false;  // the news timer's tag "ok"

  providers::OpenSymbols m_openSymbols;  // `OpenSymbolList`
  std::string m_subscribedList;          // `SubscribedList`
  providers::DescribedSymbols m_described;
  std::vector<platform::ProcessEntry> m_processes;  // walked once per tick
  TradierPolling m_tradierPolling;
  TradierStream m_tradierStream;
  StationStream m_stationStream;
  VendorQuotes m_vendorQuotes;
  NewsFeed m_newsFeed;
};

}  // namespace quenmark::feeder
