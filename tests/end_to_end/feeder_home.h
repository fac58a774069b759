// What one feeder under test lives in: a throw-away store and program folder, configured for a simulated market.
#pragma once

#include "platform/clock.h"
#include "platform/sqlite_store.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/simulator_process.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::test {

// A simulator whose requests are logged.
class Market {
 public:
  explicit Market(std::vector<std::string> arguments = {});

  const SimulatorProcess& Simulator() const { return m_simulator; }
  void Fault(const std::string& fault) { m_simulator.Post("/sim/fault", fault); }
  void Session(const std::string& session) { m_simulator.Post("/sim/session", session); }
  // While held, no price moves.
  void Hold(bool on) { m_simulator.Post("/sim/hold", on ? "on" : "off"); }

  // The answered requests so far whose address contains the text; only those a fault has hit when `spoiled`.
  std::vector<nlohmann::json> Requests(std::string_view part, bool spoiled = false) const;
  std::size_t Count(std::string_view part, bool spoiled = false) const { return Requests(part, spoiled).size(); }
  // Waits until that many more such requests have been answered.
  bool Asked(std::string_view part, std::size_t more, bool spoiled = false) const;

  // A field as last sent for a symbol; "null" also when nothing was sent. Endpoints are quote, bar and lookup.
  std::string Sent(const std::string& symbol, const char* endpoint, const char* field) const;
  // The records that the last sent quote must have led to.
  std::string SentRecord(const std::string& symbol, int gmtOffsetMinutes) const;
  std::string SentBook(const std::string& symbol) const;

 private:
  nlohmann::json Fields(const std::string& symbol, const char* endpoint) const;

  TemporaryFolder m_folder;
  SimulatorProcess m_simulator;
};

std::string NumberOf(const std::string& text);
// Unix milliseconds as yyyymmddHHMMss in a zone that many minutes west.
std::string StampOf(const std::string& epochMilliseconds, int gmtOffsetMinutes);

class FeederHome {
 public:
  static constexpr const char* kApp = "Quenmark_Tradier_1_-SandBox";
  static constexpr const char* kToken = "token-9d41c7";
  static constexpr const char* kCredential = "credential-5be20a";

  static constexpr const char* kLiveApp = "Quenmark_Tradier_1_";

  enum class Endpoint { kSandbox, kLive };
  // A feeder of the market, over HTTPS; a live one takes the market's event stream.
  explicit FeederHome(const Market& market, Endpoint endpoint = Endpoint::kSandbox);

  const std::string& Path() const { return m_folder.Path(); }
  std::string StoreFile() const { return m_folder.File("settings.db"); }
  void Set(std::string_view application, std::string_view section, std::string_view key, std::string_view value);
  void Configure(std::string_view key, std::string_view value) { Set("Quenmark", "API", key, value); }
  std::string Get(std::string_view application, std::string_view section, std::string_view key);
  // Of section "Feeder".
  std::string Record(std::string_view key) { return Get(m_app, "Feeder", key); }
  // Opens a chart; `described` symbols already have a description, so that nothing is asked for it.
  void OpenChart(const std::string& symbol, bool described = true);
  platform::SettingsStore& Store() { return *m_store; }

  ChildProcess::Options& Surroundings() { return m_options; }
  std::unique_ptr<ChildProcess> Start();
  // Runs feeder-settings on the store; its standard output.
  std::string Settings(const std::vector<std::string>& arguments, const std::string& input = "") const;

 private:
  const char* m_app;
  TemporaryFolder m_folder;
  platform::SystemClock m_clock;
  std::unique_ptr<platform::SqliteStore> m_store;
  ChildProcess::Options m_options;
};

// A program that feeders take for the charting application.
std::unique_ptr<ChildProcess> StartStandIn(const std::string& name = "klv.exe");

// Neither the command line nor the log may show the token or the credential, plain or in base64.
void ExpectDiscreet(ChildProcess& feeder);
// Ends with status 0 within the usual limit, for this reason as its log (level info) tells.
void ExpectEnd(ChildProcess& feeder, std::string_view reason);

}  // namespace quenmark::test
