#include "feeder/bar_builder.h"

#include "platform/files.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/text_bars.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace quenmark::test {
namespace {

class Bars : public ::testing::Test {
 protected:
  Bars() { std::filesystem::create_directory(folder.File("data")); }
  std::string File(const std::string& name) { return platform::ReadWholeFile(folder.File("data/" + name)); }

  TemporaryFolder folder{TemporaryFolder::Fast()};
  feeder::BarBuilder bars{folder.Path()};
};

TEST_F(Bars, AMinuteGrowsAndIsFinishedByTheNext) {
  bars.Update("AAPL", 150.25, "20240102093005");
  EXPECT_EQ(bars.Buffer(), "20240102(AAPL)0930-150.25-150.25-150.25-150.25-1-1-1");
  EXPECT_TRUE(std::filesystem::is_empty(folder.File("data")));
  bars.Update("AAPL", 150.75, "20240102093040");
  EXPECT_EQ(File("mdi_AAPL(LM)-20240102"), "0930-150.25-151-150-150.75-2-2-1");
  EXPECT_EQ(File("mdi_AAPL(0)-20240102"), "");
  bars.Update("AAPL", 152.5, "20240102093100");
  EXPECT_EQ(File("mdi_AAPL(0)-20240102"), "0930-150.25-151-150-150.75-2-2-1\r\n");
  EXPECT_EQ(File("mdi_AAPL(LM)-20240102"), "0931-152.5-152-152-152.5-1-1-1");  // a half goes to the even neighbour
}

TEST_F(Bars, WhatIsNoStampIsNotTaken) {
  for (const char* stamp : {"", "2024010209300", "../../../x0930", "20240102-93005"}) bars.Update("AAPL", 1, stamp);
  EXPECT_EQ(bars.Buffer(), "");
}

TEST_F(Bars, SymbolsThatLeaveTheFolderGetNoFile) {
  for (const char* symbol : {"../x", "a/b", "a\\b", ".."}) {
    bars.Update(symbol, 1, "20240102093000");
    bars.Update(symbol, 2, "20240102093100");
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder.File("data")));
  EXPECT_FALSE(std::filesystem::exists(folder.File("x(LM)-20240102")));
}

TEST_F(Bars, MissingFolderChangesNothingButTheFiles) {
  feeder::BarBuilder homeless(folder.File("nowhere"));
  homeless.Update("A", 1, "20240102093000");
  homeless.Update("A", 2, "20240102093001");
  EXPECT_EQ(homeless.Buffer(), "20240102(A)0930-1-2-1-2-2-2-1");
  EXPECT_FALSE(std::filesystem::exists(folder.File("nowhere")));
}

TEST_F(Bars, ADayOfQuotesEqualsTheRulesTakenLiterally) {
  TextBars reference;
  std::mt19937 random(5);
  std::vector<int> cents(50, 15000);
  // From 23:40 over midnight, about two quotes a second.
  for (int i = 0; i < 100'000; ++i) {
    const int time = 23 * 3600 + 40 * 60 + i / 40;
    const std::string stamp =
        fmt::format("202401{:02}{:02}{:02}{:02}", 2 + time / 86400, time / 3600 % 24, time / 60 % 60, time % 60);
    const std::size_t which = random() % cents.size();
    cents[which] += static_cast<int>(random() % 301) - 150;
    const std::string symbol = "S" + std::to_string(which);
    bars.Update(symbol, cents[which] / 100.0, stamp);
    reference.Update(symbol, cents[which] / 100.0, stamp);
  }
  EXPECT_EQ(bars.Buffer(), reference.Buffer());
  for (const auto& [name, text] : reference.files) EXPECT_EQ(File(name), text) << name;
  EXPECT_EQ(reference.files.size(), 200u);
}

}  // namespace
}  // namespace quenmark::test
