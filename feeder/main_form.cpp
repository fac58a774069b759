#include "feeder/main_form.h"

#include "feeder/sibling_bars.h"
#include "feeder/start_up.h"
#include "platform/code_page.h"
#include "platform/run_time_error.h"
#include "providers/processes.h"
#include "providers/text_pieces.h"
#include "providers/text_utilities.h"

#include <algorithm>
#include <utility>

namespace quenmark::feeder {
namespace {

using namespace std::chrono_literals;
using platform::IgnoreErrors;
using providers::Contains;
using providers::kApiSection;
using providers::kConfigurationApp;

constexpr std::size_t kCredentialLength = 32;
constexpr int kMostEnded = 16;  // programs ended in one go
constexpr std::string_view kCompanion1 = "pellbrook1.exe";
constexpr std::string_view kCompanion2 = "pellbrook2.exe";
constexpr std::string_view kHostProcesses[] = {"quenmark.exe", "klv.exe", "QX.exe"};

// The first characters of UTF-8 text that comes from a single-byte code page.
std::string FirstCharacters(const std::string& text, std::size_t count) {
  const std::u16string units = platform::ToUtf16(text);
  return platform::FromUtf16(std::u16string_view(units).substr(0, count));
}

}  // namespace

frmPBF::frmPBF(providers::Context& context, websocket::WebsocketServices streamServices,
               std::shared_ptr<tls::CertificateServices> certificates)
    : m_context(context),
      m_timer1(
          context.loop, 3000ms, [this] { Timer1_Timer(); }, platform::TimerKind::kMainTick),
      m_timer2(context.loop, 500ms, [this] { m_stationStream.Restart(); }),
      m_timerNews(context.loop, 30000ms, [this] { m_newsFeed.Poll(); }),
      m_timerClose(context.loop, 60000ms, [this] { TimerClose_Timer(); }),
      m_timerwTS(context.loop, 500ms, [this] { m_vendorQuotes.TimerwTS_Timer(); }),
      m_tradierPolling(context, m_openSymbols, m_subscribedList,
                       [this](std::chrono::milliseconds interval) { m_timer1.SetInterval(interval); }),
      m_tradierStream(context, m_openSymbols, m_subscribedList, m_timerClose, std::move(streamServices)),
      m_stationStream(context, m_openSymbols, m_subscribedList, m_timer2),
      m_vendorQuotes(context, m_openSymbols, m_subscribedList, m_timerwTS),
      m_newsFeed(context, m_timerNews,
                 certificates != nullptr ? std::move(certificates) : tls::MakeCertificateServices(context.loop)) {}

void frmPBF::Form_Load() {
  IgnoreErrors([&] { ReadConfiguration(); });
  IgnoreErrors([&] { InitGmtOffset(m_context); });
  // No tick may run before the offset is known: its records would carry wrong stamps.
  if (m_context.providerName == "Tradier") IgnoreErrors([&] { RequestTimeZone(m_context); });
  m_timer1.SetEnabled(true);
  Timer1_Timer();
}

void frmPBF::ReadConfiguration() {
  constexpr std::string_view kSandboxMarker = "-SandBox";
  m_context.hosts = providers::ReadHosts(m_context.store);
  m_context.http.SetLimits(providers::ReadHttpLimits(m_context.store));
  m_context.providerName = m_context.store.GetSetting(kConfigurationApp, kApiSection, "name");
  m_context.instanceTag = m_context.store.GetSetting(kConfigurationApp, kApiSection, "#");
  if (Contains(m_context.instanceTag, kSandboxMarker)) {
    m_context.instanceTag = providers::ReplaceAll(m_context.instanceTag, kSandboxMarker, "");
    m_context.sandboxMarker = kSandboxMarker;
  }
  m_context.settingsApp = std::string(kConfigurationApp) + "_" + m_context.providerName + "_" + m_context.instanceTag +
                          "_" + m_context.sandboxMarker;
}

void frmPBF::Timer1_Timer() {
  const platform::MessageLoop::MainTickPause pause(m_context.loop);
  RunTick();
}

void frmPBF::TimerClose_Timer() {
  m_context.EndProgram("the stream was lost");
}

void frmPBF::RunTick() {
  IgnoreErrors([&] { CheckCredential(); });
  IgnoreErrors([&] { StartNews(); });
  IgnoreErrors([&] { ReadOpenSymbols(); });
  IgnoreErrors([&] { RefreshProcesses(); });
  m_context.log.Debug("tick: {} open symbols", m_openSymbols.Symbols().size());
  TickEnd end = TickEnd::kHostCheck;
  IgnoreErrors([&] { end = RunProviderBranch(); });
  if (end == TickEnd::kHostCheck) CheckHosts();
}

void frmPBF::CheckCredential() {
  const std::string stored = m_context.store.GetSetting(kConfigurationApp, kApiSection, "t");
  if (stored.empty()) m_context.EndProgram("no service credential is set");
  const std::string credential =
      FirstCharacters(std::string(providers::Trimmed(providers::Base64DecodeText(stored))), kCredentialLength);
  if (!m_context.serviceCredential.empty() && m_context.serviceCredential != credential) {
    m_context.EndProgram("the service credential has changed");
  }
  m_context.serviceCredential = credential;
}

void frmPBF::StartNews() {
  if (std::exchange(m_newsStarted, true)) return;
  m_newsFeed.Poll();
}

void frmPBF::ReadOpenSymbols() {
  m_openSymbols.Rebuild(m_context);
  m_described.Refresh(m_context);
  const std::vector<std::string> symbols = m_openSymbols.Symbols();
  for (const std::string& symbol : symbols) {
    if (m_described.Has(symbol)) continue;
    IgnoreErrors([&] { providers::GetSymbolDescription(m_context, symbol, m_context.providerName); });
  }
}

frmPBF::TickEnd frmPBF::RunProviderBranch() {
  static constexpr Companion kBarchart{kCompanion1, kCompanion2, "Barchart"};
  static constexpr Companion kFinnhub{kCompanion2, kCompanion1, "Finnhub"};
  const std::string& name = m_context.providerName;
  const std::string lower = platform::AsciiLower(name);

  if (name == "Barchart" || m_context.instanceTag == "3512") {
    RunCompanion(kBarchart);
  } else if (name == "Finnhub" || m_context.instanceTag == "4512") {
    RunCompanion(kFinnhub);
  } else if (Contains(lower, "quenmark")) {
    PrepareBrokerBranch();
    m_vendorQuotes.Tick();
  } else if (Contains(lower, "tradestation")) {
    PrepareBrokerBranch();
    m_stationStream.Tick();
  } else if (Contains(lower, "tradier")) {
    PrepareBrokerBranch();
    return RunTradier();
  } else {
    m_context.EndProgram("the provider name is unknown");
  }
  return TickEnd::kHostCheck;
}

void frmPBF::PrepareBrokerBranch() {
  IgnoreErrors([&] { Fecha(kCompanion1); });
  IgnoreErrors([&] { Fecha(kCompanion2); });
  m_context.apiBase = m_context.store.GetSetting(kConfigurationApp, kApiSection, "EP");
  m_context.sessionId = m_context.store.GetSetting(kConfigurationApp, kApiSection, "SID");
  m_context.accessToken = providers::Base64DecodeText(m_context.store.GetSetting(kConfigurationApp, kApiSection, "q"));
}

frmPBF::TickEnd frmPBF::RunTradier() {
  const bool live = !m_context.IsSandbox();
  if (live && !m_tradierStream.IsOpenOrConnect()) return TickEnd::kAtOnce;
  IgnoreErrors([&] { AnswerSiblingTool(m_context); });
  IgnoreErrors([&] { m_openSymbols.Rebuild(m_context); });
  if (live) {
    m_tradierStream.FollowCharts();
  } else {
    m_tradierPolling.Tick();
  }
  return TickEnd::kHostCheck;
}

void frmPBF::RunCompanion(const Companion& companion) {
  IgnoreErrors(
      [&] { m_context.store.SaveSetting(kConfigurationApp, companion.section, "app", m_context.settingsApp); });
  if (platform::FindProcess(m_processes, companion.program) == 0) {
    providers::OpenDocument(m_context, m_context.programFolder + "\\" + std::string(companion.program));
  }
  Fecha(companion.other);
}

void frmPBF::CheckHosts() {
  if (AnyHostRuns()) return;
  // The walk at the start of the tick may be seconds old; a host may have come since.
  if (!IgnoreErrors([&] { RefreshProcesses(); }) || AnyHostRuns()) return;
  m_context.EndProgram("no host process runs");
}

bool frmPBF::AnyHostRuns() const {
  return std::any_of(std::begin(kHostProcesses), std::end(kHostProcesses),
                     [this](std::string_view name) { return platform::FindProcess(m_processes, name) != 0; });
}

void frmPBF::Fecha(std::string_view name) {
  // Something else may start such programs again as fast as they are ended: that must not hold the tick.
  for (int ended = 0; ended < kMostEnded; ++ended) {
    const platform::ProcessId process = platform::FindProcess(m_processes, name);
    if (process == 0) return;
    const bool gone = providers::EndProcess(m_context, process);
    RefreshProcesses();
    if (!gone) return;
  }
}

void frmPBF::RefreshProcesses() {
  m_processes = m_context.processes.List();
}

}  // namespace quenmark::feeder
