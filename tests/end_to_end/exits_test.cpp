#include "tests/end_to_end/feeder_home.h"
#include "tests/support/http_server.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

namespace quenmark::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kApp = FeederHome::kApp;

TEST(EndToEnd, EveryExitKeepsTheStoreAndEndsWithZero) {
  struct Exit {
    std::function<void(FeederHome&)> before;                        // the start
    std::function<void(FeederHome&, ChildProcess&)> onceItHasWork;  // nothing: it ends by itself at start
    const char* reason;
  };
  const auto signal = [](int number) { return [number](FeederHome&, ChildProcess& feeder) { feeder.Signal(number); }; };
  const auto configure = [](const char* key, const char* value) {
    return [key, value](FeederHome& home) { home.Configure(key, value); };
  };
  const auto nothing = [](FeederHome&) {};
  const auto wait = [](FeederHome&, ChildProcess&) {};
  const auto reconfigure = [](const char* value) {
    return [value](FeederHome& home, ChildProcess&) { home.Configure("t", value); };
  };
  const Exit exits[] = {
      {configure("t", ""), nullptr, "no service credential is set"},
      {configure("name", "Bloomfield"), nullptr, "the provider name is unknown"},
      {configure("name", ""), nullptr, "the provider name is unknown"},
      {nothing, reconfigure("b3RoZXI="), "the service credential has changed"},
      {nothing, reconfigure(""), "no service credential is set"},
      {nothing, signal(SIGTERM), "stopped by a signal"},
      {nothing, signal(SIGINT), "stopped by a signal"},
      {nothing, wait, "no host process runs"},
  };
  Market market;
  auto host = StartStandIn("C:\\charts\\QX.exe");
  std::vector<std::unique_ptr<FeederHome>> homes;
  std::vector<std::unique_ptr<ChildProcess>> feeders;
  for (const Exit& exit : exits) {
    homes.push_back(std::make_unique<FeederHome>(market));
    homes.back()->OpenChart("AAPL");
    exit.before(*homes.back());
    feeders.push_back(homes.back()->Start());
  }
  for (std::size_t row = 0; row < std::size(exits); ++row) {
    if (!exits[row].onceItHasWork) continue;
    ASSERT_TRUE(Eventually([&] { return !homes[row]->Record("AAPL").empty(); })) << exits[row].reason;
    exits[row].onceItHasWork(*homes[row], *feeders[row]);
  }
  // Before the host goes, which ends every feeder, the other exits must have been taken.
  for (std::size_t row = 0; row + 1 < std::size(exits); ++row) ExpectEnd(*feeders[row], exits[row].reason);
  EXPECT_TRUE(feeders.back()->Running());
  host.reset();
  ExpectEnd(*feeders.back(), exits[std::size(exits) - 1].reason);

  for (std::size_t row = 0; row < std::size(exits); ++row) {
    EXPECT_EQ(homes[row]->Record("AAPL").empty(), !exits[row].onceItHasWork) << exits[row].reason;
    EXPECT_EQ(homes[row]->Get(kApp, "GrafAbertPapel", "chart-AAPL"), "AAPL");
  }
}

TEST(EndToEnd, SignalsEndTheFeederInTheMiddleOfARequest) {
  const Market market;
  const auto host = StartStandIn();
  HttpServer server(HttpServer::Security::kTls);
  constexpr auto kNever = std::chrono::hours{1};
  server.Put("/gmt/", {.delay = kNever});
  server.Put("/sandbox/v1/markets/lookup", {.body = R"({"description":"Apple Inc"})"});
  server.Put("/sandbox/v1/markets/quotes", {.delay = kNever});
  for (const bool atStart : {false, true}) {
    FeederHome home(market);
    home.Surroundings().environment["SSL_CERT_FILE"] = server.CertificateFile();
    home.Configure("EP", server.Address("/sandbox/v1/"));
    home.OpenChart("AAPL", false);
    if (atStart) home.Set("Quenmark", "Hosts", "TimeZone", server.Address(""));
    const auto feeder = home.Start();
    const std::string waits = atStart ? "/gmt/" : "/sandbox/v1/markets/quotes";
    ASSERT_TRUE(Eventually([&] { return !server.Seen().empty() && server.Seen().back().target.starts_with(waits); }));
    feeder->Signal(SIGINT);
    ExpectEnd(*feeder, "stopped by a signal");
    EXPECT_EQ(home.Get(kApp, "Descs", "AAPL"), atStart ? "" : "Apple Inc");
  }
}

// Names and sizes of everything below the folder.
std::vector<std::string> Inventory(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    names.push_back(entry.path().string() +
                    (entry.is_regular_file() ? " " + std::to_string(entry.file_size()) : std::string()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

void Execute(const std::string& file, const char* sql) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
  sqlite3_close(database);
}

TEST(EndToEnd, UnusableStoresEndTheStart) {
  const TemporaryFolder folder;
  std::ofstream(folder.File("text")) << "this is no database, whatever its name says; not even a short one. "
                                     << std::string(8192, '!');
  std::ofstream(folder.File("cut")) << std::string("SQLite format 3\0\x10\0\1\1", 20);
  {
    platform::SystemClock clock;
    platform::SqliteStore::Open(folder.File("newer"), clock)->SaveSetting("a", "b", "c", "d");
  }
  Execute(folder.File("newer"), "PRAGMA journal_mode=DELETE; PRAGMA user_version=99");
  Execute(folder.File("foreign"), "CREATE TABLE t(x); INSERT INTO t VALUES(1)");
  fs::create_directory(folder.File("folder"));
  fs::create_directory(folder.File("home"));
  const struct {
    const char* about;
    std::string store;
    std::string home;
  } rows[] = {
      {"text", folder.File("text"), folder.File("home")},
      {"cut short", folder.File("cut"), folder.File("home")},
      {"newer version", folder.File("newer"), folder.File("home")},
      {"database of another program", folder.File("foreign"), folder.File("home")},
      {"a folder", folder.File("folder"), folder.File("home")},
      {"folder that cannot be made", folder.File("text") + "/below/settings.db", folder.File("home")},
      {"home that cannot be made", "", folder.File("text")},
      {"no home", "", ""},
      {"relative home", "", "somewhere"},
  };
  const auto host = StartStandIn();
  const std::vector<std::string> before = Inventory(folder.Path());
  for (const auto& row : rows) {
    for (const bool logged : {true, false}) {
      ChildProcess::Options options;
      options.environment = {{"FEEDER_STORE", row.store},
                             {"XDG_DATA_HOME", ""},
                             {"HOME", row.home},
                             {"FEEDER_HOME", folder.File("folder")},
                             {"FEEDER_LOG", logged ? "error" : ""}};
      ChildProcess feeder(BIN_DIR "/feeder", {}, options);
      EXPECT_EQ(feeder.Wait(), 1) << row.about;
      const std::string error = feeder.ErrorText();
      EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), logged ? 1 : 0) << row.about << ": " << error;
      EXPECT_EQ(feeder.ReadAll(), "");
    }
    EXPECT_EQ(Inventory(folder.Path()), before) << row.about;
  }
}

TEST(EndToEnd, ArgumentsAreRefused) {
  const TemporaryFolder folder;
  for (const char* word : {"--help", "--version", "-x", "", "anything"}) {
    ChildProcess::Options options;
    options.environment = {{"FEEDER_STORE", folder.File("settings.db")}};
    ChildProcess feeder(BIN_DIR "/feeder", {word}, options);
    EXPECT_EQ(feeder.Wait(), 2) << word;
  }
  EXPECT_TRUE(fs::is_empty(folder.Path()));
}

}  // namespace
}  // namespace quenmark::test
