#include "tests/end_to_end/feeder_home.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

namespace quenmark::test {
namespace {

namespace fs = std::filesystem;

TEST(EndToEnd, OneFeederPerStore) {
  Market market;
  const auto host = StartStandIn("quenmark.exe");
  FeederHome home(market);
  FeederHome beside(market);
  for (FeederHome* each : {&home, &beside}) each->OpenChart("AAPL");
  auto first = home.Start();
  const auto neighbour = beside.Start();
  for (FeederHome* each : {&home, &beside}) {
    ASSERT_TRUE(Eventually([&] { return !each->Record("AAPL").empty(); }));
  }
  ExpectEnd(*home.Start(), "another instance runs");
  // Another way to the same file is the same store.
  fs::create_symlink(home.StoreFile(), beside.Path() + "/link.db");
  beside.Surroundings().environment["FEEDER_STORE"] = beside.Path() + "/link.db";
  ExpectEnd(*beside.Start(), "another instance runs");
  EXPECT_TRUE(first->Running());
  EXPECT_TRUE(neighbour->Running());

  // The lock goes with its holder, however that ends.
  first->Signal(SIGKILL);
  ASSERT_EQ(first->Wait(), 128 + SIGKILL);
  home.Store().DeleteSection(FeederHome::kApp, "Feeder");
  home.Store().Flush();
  first = home.Start();
  EXPECT_TRUE(Eventually([&] { return !home.Record("AAPL").empty(); }));
}

// A companion that tells by files that it runs and where, until it is asked to end.
void WriteCompanion(const std::string& folder, const std::string& name) {
  std::ofstream(folder + "/" + name) << "#!/bin/sh\necho started >>runs\nls -l /proc/$$/fd >descriptors\n"
                                        "trap 'echo ended >>runs; exit' TERM\nwhile :; do sleep 0.05; done\n";
  fs::permissions(folder + "/" + name, fs::perms::owner_all);
}

std::string Text(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(EndToEnd, CompanionsAreStartedAndEnded) {
  Market market;
  const auto host = StartStandIn();
  FeederHome home(market);
  home.Configure("name", "Barchart");
  home.Set("Quenmark_Barchart_1_-SandBox", "GrafAbertPapel", "chart", "AAPL");
  WriteCompanion(home.Path(), "pellbrook1.exe");
  const std::string runs = home.Path() + "/runs";
  const auto other = StartStandIn("pellbrook2.exe");
  auto feeder = home.Start();
  EXPECT_TRUE(Eventually([&] { return Text(runs) == "started\n"; }));
  EXPECT_TRUE(Eventually([&] { return !other->Running(); })) << "the other companion is ended";
  EXPECT_EQ(home.Get("Quenmark", "Barchart", "app"), "Quenmark_Barchart_1_-SandBox");

  // It outlives its feeder, and holds neither its lock nor its store open.
  feeder->Signal(SIGTERM);
  ExpectEnd(*feeder, "stopped by a signal");
  EXPECT_EQ(Text(home.Path() + "/descriptors").find(home.Path() + "/settings.db"), std::string::npos);
  feeder = home.Start();
  home.Configure("t", "");
  ExpectEnd(*feeder, "no service credential is set");
  EXPECT_EQ(Text(runs), "started\n") << "one that runs is not started again";

  // A feeder of a broker ends it.
  FeederHome broker(market);
  broker.OpenChart("AAPL");
  const auto second = broker.Start();
  EXPECT_TRUE(Eventually([&] { return Text(runs) == "started\nended\n"; }));
  EXPECT_TRUE(Eventually([&] { return !broker.Record("AAPL").empty(); }));
  EXPECT_TRUE(host->Running());
}

}  // namespace
}  // namespace quenmark::test
