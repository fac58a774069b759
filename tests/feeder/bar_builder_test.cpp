#include "feeder/bar_builder.h"

#include "platform/files.h"
#include "tests/support/temporary_folder.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <random>

namespace quenmark::test {
namespace {

class Bars : public ::testing::Test {
 protected:
  Bars() { std::filesystem::create_directory(folder.File("data")); }
  std::string File(const std::string& name) { return platform::ReadWholeFile(folder.File("data/mdi_" + name)); }

  TemporaryFolder folder{TemporaryFolder::Fast()};
  feeder::BarBuilder bars{folder.Path()};
};

TEST_F(Bars, FirstQuoteOnlyFillsTheBuffer) {
  bars.Update("AAPL", 150.25, "20240102093005");
  EXPECT_EQ(bars.Buffer(), "20240102(AAPL)0930-150.25-150.25-150.25-150.25-1-1-1");
  EXPECT_TRUE(std::filesystem::is_empty(folder.File("data")));
}

TEST_F(Bars, MinuteGrowsAndIsFinishedByTheNext) {
  bars.Update("AAPL", 150.25, "20240102093005");
  bars.Update("AAPL", 150.75, "20240102093040");
  EXPECT_EQ(File("AAPL(LM)-20240102"), "0930-150.25-151-150-150.75-2-2-1");
  EXPECT_EQ(File("AAPL(0)-20240102"), "");
  bars.Update("AAPL", 152.5, "20240102093100");
  EXPECT_EQ(File("AAPL(0)-20240102"), "0930-150.25-151-150-150.75-2-2-1\r\n");
  EXPECT_EQ(File("AAPL(LM)-20240102"), "0931-152.5-152-152-152.5-1-1-1");  // a half goes to the even neighbour
}

TEST_F(Bars, NewDateDropsAllSymbols) {
  bars.Update("AAPL", 150, "20240102093005");
  bars.Update("MSFT", 300, "20240102093005");
  bars.Update("MSFT", 301, "20240103093005");
  EXPECT_EQ(bars.Buffer(), "20240103(MSFT)0930-301-301-301-301-1-1-1");
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

// The rules taken literally: one text that is searched and cut, as the format's page tells them.
class TextBars {
 public:
  std::map<std::string, std::string> files;

  void Update(const std::string& symbol, double price, const std::string& stamp) {
    const std::string date = stamp.substr(0, 8);
    const std::string minute = stamp.substr(8, 4);
    const std::string text = Text(price);
    if (!m_buffer.starts_with(date)) m_buffer = date;
    const std::size_t start = m_buffer.find("(" + symbol + ")");
    if (start == std::string::npos) {
      m_buffer += "(" + symbol + ")" + minute + "-" + text + "-" + text + "-" + text + "-" + text + "-1-1-1";
      return;
    }
    const std::size_t bar = start + symbol.size() + 2;
    const std::size_t end = std::min(m_buffer.find('(', bar), m_buffer.size());
    const std::string old = m_buffer.substr(bar, end - bar);
    std::string open = Field(old, 2);
    double high = std::nearbyint(std::stod(Field(old, 3)));
    double low = std::nearbyint(std::stod(Field(old, 4)));
    int count = std::stoi(Field(old, 6));
    if (Field(old, 1) == minute) {
      if (price > high) high = std::nearbyint(price);
      if (price < low) low = std::nearbyint(price);
    } else {
      files["mdi_" + symbol + "(0)-" + date] += old + "\r\n";
      open = text;
      high = low = std::nearbyint(price);
      count = 0;
    }
    ++count;
    const std::string now = fmt::format("{}-{}-{:.0f}-{:.0f}-{}-{}-{}-1", minute, open, high, low, text, count, count);
    m_buffer.replace(bar, end - bar, now);
    files["mdi_" + symbol + "(LM)-" + date] = now;
  }
  const std::string& Buffer() const { return m_buffer; }

 private:
  // Prices are in cents here.
  static std::string Text(double price) {
    std::string text = fmt::format("{:.2f}", price);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
  }
  static std::string Field(const std::string& bar, int number) {
    std::size_t start = 0;
    while (--number > 0) start = bar.find('-', start) + 1;
    return bar.substr(start, bar.find('-', start) - start);
  }

  std::string m_buffer;
};

TEST_F(Bars, ADayOfQuotesEqualsTheRulesTakenLiterally) {
  TextBars reference;
  std::mt19937 random(5);
  std::vector<int> cents(50, 15000);
  // From 23:40 over midnight, about two quotes a second.
  for (int i = 0; i < 100'000; ++i) {
    const int second = i / 40;
    const int time = 23 * 3600 + 40 * 60 + second;
    const std::string stamp =
        fmt::format("202401{:02}{:02}{:02}{:02}", 2 + time / 86400, time / 3600 % 24, time / 60 % 60, time % 60);
    const std::size_t which = random() % cents.size();
    cents[which] += static_cast<int>(random() % 301) - 150;
    const std::string symbol = "S" + std::to_string(which);
    const double price = cents[which] / 100.0;
    bars.Update(symbol, price, stamp);
    reference.Update(symbol, price, stamp);
  }
  EXPECT_EQ(bars.Buffer(), reference.Buffer());
  std::size_t files = 0;
  for (const auto& [name, text] : reference.files) {
    ++files;
    EXPECT_EQ(platform::ReadWholeFile(folder.File("data/" + name)), text) << name;
  }
  EXPECT_EQ(files, 200u);
}

}  // namespace
}  // namespace quenmark::test
