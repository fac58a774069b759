// The process-wide values of one feeder and the seams it stands on, handed down to everything that needs them.
#pragma once

#include "platform/clock.h"
#include "platform/http_client.h"
#include "platform/locale.h"
#include "platform/log.h"
#include "platform/message_loop.h"
#include "platform/process_list.h"
#include "platform/settings_store.h"

#include <functional>
#include <string>
#include <string_view>

namespace quenmark::providers {

inline constexpr std::string_view kConfigurationApp = "Quenmark";
inline constexpr std::string_view kApiSection = "API";
inline constexpr std::string_view kFeederSection = "Feeder";
inline constexpr std::string_view kOpenChartsSection = "GrafAbertPapel";
inline constexpr std::string_view kMinuteBarSection = "TIntra";
inline constexpr std::string_view kAskNewSession = "ask_new_session";

// Section "Hosts" of the configuration application: where the services are. "" means that nothing is sent.
struct Hosts {
  std::string stream;    // Tradier event stream, whole address
  std::string timeZone;  // vendor services, each scheme://host[:port]
  std::string symbolList;
  std::string news;
  std::string quotes;
  std::string icons;
  std::string yahoo1;  // autocomplete endpoints, whole addresses
  std::string yahoo2;
  std::string barchart;        // scheme://host[:port]
  std::string barchartSuffix;  // end of its page titles
};

Hosts ReadHosts(platform::SettingsStore& store);
// Keys "ConnectTimeoutMs", "TotalTimeoutMs" and "AnswerLimit" of the same section; what is missing or not above 0 keeps
// its default.
platform::HttpLimits ReadHttpLimits(platform::SettingsStore& store);

// The seams are borrowed and must outlive the context.
struct Context {
  platform::SettingsStore& store;
  platform::MessageLoop& loop;
  platform::Clock& clock;
  platform::HttpClient& http;
  platform::ProcessList& processes;
  platform::Log& log;
  std::string programFolder;         // no slash at the end
  std::function<void()> endProcess;  // leaves the process, or throws in a test; never returns
  platform::Locale locale = {};
  Hosts hosts = {};

  // Set at start-up.
  std::string providerName = {};
  std::string instanceTag = {};
  std::string sandboxMarker = {};  // "-SandBox" or ""
  std::string settingsApp = {};    // application name of every per-feeder section
  double gmtOffsetMinutes = 0;     // UTC = local time + offset

  // Read again at every tick of the broker branches.
  std::string apiBase = {};
  std::string accessToken = {};
  std::string sessionId = {};

  std::string serviceCredential = {};  // fixed by the first tick
  std::string symbolDirectory = {};    // vendor symbol list, "" until it is loaded

  // "Ends the program at once": flushes the store, then leaves.
  [[noreturn]] void EndProgram(std::string_view reason);
  bool IsSandbox() const { return apiBase.find("sandbox") != std::string::npos; }
};

}  // namespace quenmark::providers
