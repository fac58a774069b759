#include "feeder/vendor_quotes.h"

#include "tests/support/feeder_fixture.h"
#include "tests/support/http_server.h"

#include <fmt/format.h>

namespace quenmark::test {
namespace {

using Items = std::vector<std::string>;

constexpr const char* kAapl = "AAPL-190.5-m0.25-191-192-189-1000-1-1-20240315103000";
constexpr const char* kMsft = "MSFT-410-1.5-400-411-399-2000-1-1-20240315103001";

Items Scan(std::string_view answer, std::string_view symbols) {
  Items items;
  feeder::ScanVendorAnswer(answer, symbols, [&](std::string_view symbol, std::string_view item) {
    EXPECT_TRUE(item.starts_with(symbol));
    items.emplace_back(item);
  });
  return items;
}

TEST(VendorAnswer, ItemsOfWantedSymbols) {
  const std::string aapl = kAapl;
  const std::string msft = kMsft;
  struct Case {
    std::string answer;
    std::string symbols;
    Items items;
  };
  const Case cases[] = {
      {"HTTP/1.0 200 OK\r\n\r\nx|@|" + aapl + "|" + msft + "|", "AAPL@MSFT", {aapl, msft}},
      {"|@|" + aapl + "|" + msft, "AAPL@MSFT", {aapl}},  // not ended
      {"|@|" + aapl + "|" + msft + "|", "MSFT", {msft}},
      {"|@|" + aapl + "|", "AAP@APL@aapl", {}},
      {"|@|" + aapl + "|", "", {}},
      {aapl + "|" + msft + "|", "AAPL@MSFT", {}},  // no start
      {"|@|AAPL|AAPL-|-5||@|AAPL-1|", "AAPL@@", {"AAPL-", "AAPL-1"}},
      {"|@|AAPL@MSFT-5|@AAPL@-5|", "AAPL@MSFT", {}},  // no symbols of the request
      {"", "AAPL", {}},
  };
  for (const Case& each : cases) EXPECT_EQ(Scan(each.answer, each.symbols), each.items) << each.answer;
}

TEST(VendorAnswer, CutAtEveryOffset) {
  const std::string head = "HTTP/1.0 200 OK\r\nContent-Type: text/html\r\n\r\nnoise|1|@|";
  const std::string answer = head + kAapl + "|GOOG-1-1|" + kMsft + "|";
  const std::size_t first = head.size() + std::string(kAapl).size() + 1;
  for (std::size_t cut = 0; cut <= answer.size(); ++cut) {
    const std::size_t whole = cut < first ? 0 : cut < answer.size() ? 1 : 2;
    EXPECT_EQ(Scan(std::string_view(answer).substr(0, cut), "AAPL@MSFT").size(), whole) << cut;
  }
}

class Vendor : public FeederFixture {
 protected:
  Vendor() {
    context.providerName = "Quenmark";
    context.settingsApp = "Quenmark_Quenmark_1_";
    context.serviceCredential = "credential";
    context.hosts.quotes = server.Address("");
    store->SaveSetting("Quenmark", "API", "Account", "77");
  }
  void Answer(const std::string& raw) { server.Put(server.Address("/quotes/"), {.raw = raw}); }
  // A main tick with these charts.
  void Tick(std::initializer_list<const char*> symbols) {
    store->DeleteSection(context.settingsApp, "GrafAbertPapel");
    for (const char* symbol : symbols) OpenChart(symbol);
    open.Rebuild(context);
    vendor.Tick();
  }
  bool WaitForRequests(std::size_t count) {
    return loop.WaitUntil([&] { return server.Seen().size() >= count && timer.Enabled(); },
                          clock.Monotonic() + std::chrono::minutes{1});
  }
  std::string Target() const { return server.Seen().back().target.substr(server.Address("").size()); }

  HttpServer server;
  providers::OpenSymbols open;
  std::string subscribed;
  platform::Timer timer{loop, std::chrono::milliseconds{500}, [this] { vendor.TimerwTS_Timer(); }};
  feeder::VendorQuotes vendor{context, open, subscribed, timer};
};

TEST_F(Vendor, TheRequestToTheLetter) {
  context.hosts.quotes = "http://quotes.example:8080/";
  EXPECT_EQ(feeder::VendorRequest(context, "77", "AAPL@MSFT"),
            "GET http://quotes.example:8080/quotes/?c=77&s=AAPL@MSFT HTTP/1.0\r\n"
            "Accept: */*\r\nAccept: text/html\r\nAuthorization: Basic credential\r\n\r\n");
  context.serviceCredential = "a\r\nX: b";
  EXPECT_EQ(feeder::VendorRequest(context, "7 &\r\n", "A&B@\u00E9"),
            "GET http://quotes.example:8080/quotes/?c=7%20%26%0D%0A&s=A%26B@%C3%A9 HTTP/1.0\r\n"
            "Accept: */*\r\nAccept: text/html\r\nAuthorization: Basic aX: b\r\n\r\n");
}

TEST_F(Vendor, PollsAndWritesRecords) {
  Answer(fmt::format("HTTP/1.0 200 OK\r\n\r\n|@|{}|GOOG-1-1|{}|", kAapl, kMsft));
  SetFeeder("AAPL-pc", "old");
  Tick({"AAPL", "MSFT"});
  EXPECT_TRUE(server.Seen().empty());
  ASSERT_TRUE(WaitForRequests(1));
  EXPECT_EQ(Target(), "/quotes/?c=77&s=AAPL@MSFT");
  EXPECT_EQ(Feeder("AAPL"), kAapl);
  EXPECT_EQ(Feeder("MSFT"), kMsft);
  EXPECT_EQ(Feeder("GOOG"), "");
  EXPECT_EQ(Feeder("AAPL-pc"), "");
  EXPECT_FALSE(Feeder("AAPL-all").empty());

  // Again and again, half a second after each answer; charts that change take effect at the next poll.
  Tick({"MSFT"});
  Answer(fmt::format("|@|AAPL-1-|{}|", "MSFT-411-x-20240315103002"));
  const auto before = clock.Monotonic();
  ASSERT_TRUE(WaitForRequests(2));
  EXPECT_GE(clock.Monotonic() - before, std::chrono::milliseconds{500});
  EXPECT_EQ(Target(), "/quotes/?c=77&s=MSFT");
  EXPECT_EQ(Feeder("MSFT"), "MSFT-411-x-20240315103002");
  EXPECT_EQ(Feeder("AAPL"), kAapl);
  Tick({});
  ASSERT_TRUE(WaitForRequests(3));
  EXPECT_EQ(Target(), "/quotes/?c=77&s=");
}

TEST_F(Vendor, APriceThatIsNoneIsWrittenAndThatIsAll) {
  store->SaveSetting("KLV-PT", "Open-AAPL", "B|1", "190");
  store->SaveSetting("KLV-PT", "Ord-Status", "1", "1");
  feeder::BarBuilder bars(folder.Path());
  feeder::TakeVendorItem(context, bars, "AAPL", "AAPL-0-0-1-1-1-1-1-1-20240315102959");
  EXPECT_EQ(Feeder("AAPL"), "AAPL-0-0-1-1-1-1-1-1-20240315102959");
  EXPECT_EQ(store->GetSetting("KLV-PT", "Ord-Status", "1"), "1");
  EXPECT_EQ(bars.Buffer(), "");
}

TEST_F(Vendor, FailuresOnlyMeanAnotherPoll) {
  SetFeeder("AAPL", "kept");
  for (const std::string& raw : {std::string("\0\xFF|\r\n", 5), "|@|" + std::string(9 << 20, 'x') + "|AAPL-1-|"}) {
    Answer(raw);
    Tick({"AAPL"});
    ASSERT_TRUE(WaitForRequests(server.Seen().size() + 1));
    EXPECT_EQ(Feeder("AAPL"), "kept");
  }
  context.hosts.quotes = "http://127.0.0.1:1";  // nobody listens
  timer.SetEnabled(false);
  vendor.TimerwTS_Timer();
  ASSERT_TRUE(loop.WaitUntil([&] { return timer.Enabled(); }, clock.Monotonic() + std::chrono::seconds{20}));
  context.hosts.quotes = "http://127.0.0.1:x";
  timer.SetEnabled(false);
  vendor.TimerwTS_Timer();
  EXPECT_TRUE(timer.Enabled());
}

TEST_F(Vendor, NoAnswerWithinHalfAMinuteIsAnError) {
  server.Put(server.Address("/quotes/"), {.after = "/never"});
  platform::Timer pump(loop, std::chrono::milliseconds{2}, [] {});
  pump.SetEnabled(true);
  Tick({"AAPL"});
  ASSERT_TRUE(loop.WaitUntil([&] { return server.Seen().size() == 1; }, clock.Monotonic() + std::chrono::minutes{1}));
  clock.Advance(std::chrono::seconds{28});
  loop.RunQueued();
  EXPECT_FALSE(timer.Enabled());
  Answer(fmt::format("|@|{}|", kAapl));
  clock.Advance(std::chrono::seconds{2});
  ASSERT_TRUE(WaitForRequests(2));
  EXPECT_EQ(Feeder("AAPL"), kAapl);
}

TEST_F(Vendor, WithoutAHostNothingIsAsked) {
  context.hosts.quotes.clear();
  Tick({"AAPL"});
  EXPECT_EQ(subscribed, open.Text());
  EXPECT_FALSE(timer.Enabled());
}

}  // namespace
}  // namespace quenmark::test
