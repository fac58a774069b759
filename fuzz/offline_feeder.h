// A feeder without network and processes, over a store in memory, and the check of what it wrote.
#pragma once

#include "feeder/quote_record.h"
#include "providers/context.h"
#include "tests/support/manual_clock.h"
#include "tests/support/memory_store.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::fuzz {

// Descriptions come from the store or from here, never from a network.
class NoRequest final : public platform::HttpRequest {
 public:
  void Open(std::string_view, std::string_view) override {}
  void setRequestHeader(std::string_view, std::string_view) override {}
  void Send(std::string_view) override {}
  int Status() const override { return 404; }
  const std::string& responseText() const override { return m_answer; }

 private:
  std::string m_answer;
};

class NoHttp final : public platform::HttpClient {
 public:
  std::unique_ptr<platform::HttpRequest> CreateRequest() override { return std::make_unique<NoRequest>(); }
  std::unique_ptr<platform::HttpStream> CreateStream() override { return nullptr; }
  void SetLimits(const platform::HttpLimits&) override {}
};

class NoProcesses final : public platform::ProcessList {
 public:
  std::vector<platform::ProcessEntry> List() override { return {}; }
  bool End(platform::ProcessId) override { return false; }
  int Launch(const std::string&) override { return 0; }
};

// Every quote record has ten fields, and a stamp at its end.
inline void CheckRecords(platform::SettingsStore& store, std::string_view application) {
  for (const auto& [key, value] : store.GetAllSettings(application, "Feeder")) {
    if (key.ends_with("-pc") || key.ends_with("-all") || key.ends_with("-bid@ask")) continue;
    const auto fields = feeder::SplitQuoteRecord(value);
    std::size_t dashes = 0;
    for (const char c : value) dashes += c == '-' ? 1 : 0;
    if (dashes != feeder::kQuoteFields - 1 || !feeder::IsStamp(fields[feeder::kStamp])) std::abort();
  }
}

struct OfflineFeeder {
  OfflineFeeder() { context.settingsApp = "app"; }

  test::ManualClock clock;
  platform::MessageLoop loop{clock};
  platform::Log log;
  NoHttp http;
  NoProcesses processes;
  test::MemoryStore store;
  providers::Context context{.store = store,
                             .loop = loop,
                             .clock = clock,
                             .http = http,
                             .processes = processes,
                             .log = log,
                             .programFolder = "/nonexistent",
                             .endProcess = [] { throw 1; }};
};

}  // namespace quenmark::fuzz
