// A feeder's context over a real store, loop and HTTP client; only the clock, the process list and the exit are the
// test's own.
#pragma once

#include "platform/http_client.h"
#include "platform/sqlite_store.h"
#include "providers/context.h"
#include "tests/support/environment_variable.h"
#include "tests/support/http_server.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::test {

// What the exit throws in place of leaving the process. Not a std::exception, so that no ignored statement swallows it.
struct ProgramEnded {};

class ScriptedProcesses final : public platform::ProcessList {
 public:
  std::vector<platform::ProcessEntry> List() override {
    ++walks;
    return running;
  }
  bool End(platform::ProcessId process) override {
    ended.push_back(process);
    if (stubborn) return false;
    std::erase_if(running, [process](const auto& entry) { return entry.id == process; });
    return true;
  }
  int Launch(const std::string& file) override {
    launched.push_back(file);
    return 42;
  }

  std::vector<platform::ProcessEntry> running{{100, {"klv.exe"}}};
  std::vector<platform::ProcessId> ended;
  std::vector<std::string> launched;
  bool stubborn = false;
  int walks = 0;
};

class FeederFixture : public ::testing::Test {
 protected:
  static constexpr const char* kApp = "Quenmark_Tradier_1_";

  FeederFixture()
      : store(platform::SqliteStore::Open(folder.File("settings.db"), clock)),
        http(platform::MakeHttpClient(loop, "test")),
        context(ContextOf(*http)) {
    store->AttachTo(loop);
    context.providerName = "Tradier";
    context.settingsApp = kApp;
    context.gmtOffsetMinutes = 240;
  }

  providers::Context ContextOf(platform::HttpClient& client) {
    return {.store = *store,
            .loop = loop,
            .clock = clock,
            .http = client,
            .processes = processes,
            .log = log,
            .programFolder = folder.Path(),
            .endProcess = [] { throw ProgramEnded{}; }};
  }
  // A client that trusts the certificate of this server too.
  std::unique_ptr<platform::HttpClient> TrustingClient(const HttpServer& server) {
    const EnvironmentVariable trust("SSL_CERT_FILE", server.CertificateFile());
    return platform::MakeHttpClient(loop, "test");
  }
  std::string Feeder(std::string_view key) { return store->GetSetting(context.settingsApp, "Feeder", key); }
  void SetFeeder(std::string_view key, std::string_view value) {
    store->SaveSetting(context.settingsApp, "Feeder", key, value);
  }
  // Gives the symbol a description, so that nothing is asked for it.
  void Describe(std::string_view symbol) { store->SaveSetting(context.settingsApp, "Descs", symbol, "described"); }
  void OpenChart(std::string_view symbol) {
    store->SaveSetting(context.settingsApp, "GrafAbertPapel", "chart-" + std::string(symbol), symbol);
  }

  TemporaryFolder folder;
  ManualClock clock;
  platform::MessageLoop loop{clock};
  platform::Log log;
  std::unique_ptr<platform::SqliteStore> store;
  std::unique_ptr<platform::HttpClient> http;
  ScriptedProcesses processes;
  providers::Context context;
};

}  // namespace quenmark::test
