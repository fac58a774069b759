#include "feeder/news_feed.h"

#include "platform/files.h"
#include "tests/support/feeder_fixture.h"
#include "tests/support/plain_socket.h"
#include "tests/support/trusted_server.h"
#include "tls/certificate_services.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

#include <filesystem>
#include <random>
#include <set>

namespace quenmark::test {
namespace {

using nlohmann::json;

const std::string kPng("\x89PNG\r\n\x1A\nrest", 12);

TEST(NewsList, NewSectionsComeFirstUnlessTheListHoldsThem) {
  // As the rule is written: search, and put in front.
  const auto expected = [](std::string all, const std::vector<std::string>& sections) {
    for (const std::string& section : sections) {
      if (all.find(section + ",") == std::string::npos) all.insert(0, section + ",");
    }
    return all;
  };
  std::mt19937 random(7);
  for (int round = 0; round < 500; ++round) {
    std::vector<std::string> sections(random() % 12);
    for (std::string& section : sections) section = fmt::format("{}_{}", random() % 12, random() % 12);
    std::string all;
    for (auto i = random() % 12; i > 0; --i) all += fmt::format("{}_{},", random() % 120, random() % 12);
    if (round % 5 == 0) all += "1_1";  // not ended
    EXPECT_EQ(feeder::WithNewSections(all, sections), expected(all, sections)) << all;
  }
}

class News : protected TrustedServer, public FeederFixture {
 protected:
  News() {
    context.hosts.news = server.Address("");
    context.serviceCredential = "credential\n";
  }

  static json Item(int id, const json& more = json::object()) {
    json item = {{"ts_id", id}, {"datetime", 1710513000 + id}, {"headline", fmt::format("News {}", id)}};
    item.update(more);
    return item;
  }
  static json Items(int first, int count) {
    json items = json::array();
    for (int id = first; id < first + count; ++id) items.push_back(Item(id));
    return items;
  }
  void Answer(const std::string& body, int status = 200) {
    server.Put("/news/", {.raw = fmt::format("HTTP/1.1 {} Whatever\r\nA: b\r\n\r\n{}", status, body)});
  }
  void Answer(const json& items) { Answer(json{{"data", items}}.dump()); }
  // One poll to its end.
  void Poll() {
    feed.Poll();
    ASSERT_TRUE(loop.WaitUntil([this] { return timer.Enabled(); }, clock.Monotonic() + std::chrono::minutes{1}));
  }
  void PollAnswering(const json& items) {
    Answer(items);
    Poll();
  }
  // One that names this symbol; to the end of what is fetched for it.
  void PollNaming(const std::string& symbol) {
    PollAnswering(json::array({Item(1, {{"symbol", symbol}})}));
    AwaitIcons();
  }
  void AwaitIcons() {
    ASSERT_TRUE(loop.WaitUntil([this] { return !feed.Fetching(); }, clock.Monotonic() + std::chrono::minutes{1}));
  }
  bool HasIcon(const std::string& symbol) {
    return platform::FileExists(folder.File("Files/Img/" + symbol + "_ico.png"));
  }
  std::string Get(const std::string& key) { return store->GetSetting("KLV", "News", key); }
  std::string Stored(const std::string& section, const std::string& key) {
    return store->GetSetting("klv-news", section, key);
  }
  std::size_t Entries() {
    const std::string all = Get("All");
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), ','));
  }

  platform::SystemClock now;
  platform::Timer timer{loop, std::chrono::seconds{30}, [this] { feed.Poll(); }};
  feeder::NewsFeed feed{context, timer, tls::MakeCertificateServices(loop, &now)};
};

TEST_F(News, StoresItemsAndTheirOrder) {
  json items = Items(1, 60);
  items[7] = Item(8, {{"url", "u"},
                      {"image", "i"},
                      {"related", nullptr},
                      {"tags", json::array({1})},
                      {"price", 1.50},
                      {"datetime", 1710513000000},
                      {"hot", true}});
  std::reverse(items.begin(), items.end());
  PollAnswering(items);
  const HttpSeen asked = server.Seen().back();
  EXPECT_EQ(asked.target, "/news/?id=0");
  EXPECT_EQ(asked.headers.at("accept"), "application/json");
  EXPECT_EQ(asked.headers.at("authorization"), "Basic credential");
  EXPECT_EQ(Get("ID"), "60");
  EXPECT_EQ(Get("ID2"), "1710513060");
  EXPECT_EQ(Entries(), 60u);
  const std::string all = Get("All");
  EXPECT_TRUE(all.starts_with("1710513060_60,1710513059_59,")) << all;
  EXPECT_TRUE(all.ends_with("1710513002_2,1710513001_1,1710513000000_8,")) << all;

  EXPECT_EQ(Stored("1710513001_1", "headline"), "News 1");
  EXPECT_EQ(Stored("1710513001_1", "datetime"), "1710513001");
  EXPECT_EQ(Stored("1710513001_1", "datetime_gmt"), "15-Mar 10:30 AM");
  const auto pairs = store->GetAllSettings("KLV-News", "1710513000000_8");
  const std::map<std::string, std::string> stored(pairs.begin(), pairs.end());
  EXPECT_EQ(stored, (std::map<std::string, std::string>{{"datetime", "1710513000000"},
                                                        {"headline", "News 8"},
                                                        {"hot", "True"},
                                                        {"price", "1.5"},
                                                        {"datetime_gmt", "15-Mar 10:30 AM"}}));
}

TEST_F(News, GoesOnFromTheHighestId) {
  PollAnswering(Items(1, 60));
  PollAnswering({Item(60, {{"datetime", 9}}), Item(59, {{"datetime", 8}})});  // not greater
  EXPECT_EQ(server.Seen().back().target, "/news/?id=60");
  EXPECT_EQ(Get("ID2"), "1710513060");
  EXPECT_EQ(Entries(), 62u);
  PollAnswering({Item(61), Item(61)});
  EXPECT_EQ(Get("ID"), "61");
  EXPECT_EQ(Entries(), 63u);
  EXPECT_TRUE(Get("All").starts_with("1710513061_61,9_60,8_59,1710513060_60,")) << Get("All");
  // Also where a double has no digits left.
  constexpr std::uint64_t kLarge = 9223372036854775807;
  PollAnswering({Item(1, {{"ts_id", kLarge}}), Item(1, {{"ts_id", kLarge - 1}}), Item(1, {{"ts_id", "0099"}})});
  EXPECT_EQ(Get("ID"), "9223372036854775807");
  PollAnswering(json::array({Item(1, {{"ts_id", kLarge + 1}})}));
  EXPECT_EQ(server.Seen().back().target, "/news/?id=9223372036854775807");
  EXPECT_EQ(Get("ID"), "9223372036854775808");
}

TEST_F(News, AThinHistoryIsDropped) {
  store->SaveSetting("KLV", "Other", "kept", "1");
  for (const int count : {10, 49}) {
    store->SaveSetting("KLV-News-Density", "24h", "key", "1");
    PollAnswering(Items(1, count));
    EXPECT_EQ(server.Seen().back().target, "/news/?id=0");
    EXPECT_TRUE(store->Sections("KLV-News").empty());
    EXPECT_TRUE(store->Sections("KLV-News-Density").empty());
    EXPECT_TRUE(store->GetAllSettings("KLV", "News").empty());
  }
  PollAnswering(Items(1, 50));  // asked from the beginning, the history is there again
  EXPECT_EQ(server.Seen().back().target, "/news/?id=0");
  EXPECT_EQ(Entries(), 50u);
  EXPECT_EQ(Get("ID"), "50");
  EXPECT_EQ(Stored("1710513001_1", "headline"), "News 1");
  EXPECT_EQ(store->GetSetting("KLV", "Other", "kept"), "1");
  Answer(json{{"data", Items(51, 1)}}.dump(), 500);
  Poll();
  EXPECT_EQ(Entries(), 50u);
  store->SaveSetting("KLV", "News", "All", "1_1,");
  Poll();  // a failed one drops it too
  EXPECT_EQ(Get("ID"), "");
  EXPECT_TRUE(store->Sections("KLV-News").empty());
}

TEST_F(News, AsksHalfAMinuteAfterEachAnswer) {
  Answer(Items(1, 60));
  feed.Poll();
  const auto start = clock.Monotonic();
  ASSERT_TRUE(loop.WaitUntil([this] { return server.Seen().size() == 3; }, start + std::chrono::minutes{3}));
  EXPECT_GE(clock.Monotonic() - start, std::chrono::seconds{60});
  EXPECT_LT(clock.Monotonic() - start, std::chrono::seconds{75});  // while an answer is awaited the clock is real
}

TEST_F(News, WithoutAHostNothingHappens) {
  context.hosts.news.clear();
  store->SaveSetting("KLV", "News", "All", "1_1,");
  feed.Poll();
  loop.Sleep(std::chrono::minutes{2});
  EXPECT_FALSE(timer.Enabled());
  EXPECT_EQ(Get("All"), "1_1,");
}

TEST_F(News, HostileAnswersStoreNothingElse) {
  const std::string bodies[] = {
      "",
      "[]",
      "{}",
      R"({"data":7})",
      R"({"data":{"ts_id":1,"datetime":2}})",
      R"({"data":[1,"x",null,[],{}]})",
      R"({"data":[{"ts_id":1},{"datetime":2},{"ts_id":null,"datetime":2},{"ts_id":[],"datetime":2}]})",
      R"({"data":[{"ts_id":"1,2","datetime":"3"}]})",
      R"({"data":[{"ts_id":)",
      "3c\r\n" + json{{"data", Items(61, 1)}}.dump() + "\r\n0\r\n\r\n",  // in chunks, taken as they are
      std::string(100'000, '['),
      std::string("\0\xFF\xFE{", 4)};
  PollAnswering(Items(1, 60));
  const std::string all = Get("All");
  for (const std::string& body : bodies) {
    Answer(body);
    Poll();
    EXPECT_EQ(Get("All"), all) << body;
    EXPECT_EQ(Get("ID"), "60");
    EXPECT_EQ(store->Sections("KLV-News").size(), 60u) << body;
  }
  // No number is no highest number, and an address gets whole numbers only.
  PollAnswering({Item(1, {{"ts_id", "zz"}}), Item(1, {{"ts_id", "70.5\r\nX: y"}})});
  EXPECT_EQ(Get("ID"), "60");
  store->SaveSetting("KLV", "News", "ID", "80.9");
  PollAnswering(json::array());
  EXPECT_EQ(server.Seen().back().target, "/news/?id=80");
}

// Messages of others run before each item, so that quotes are written while news are.
TEST_F(News, QuotesFlowWhileAnAnswerIsStored) {
  std::set<std::string> between;  // the state of the news at the times of messages
  int runs = 0;
  platform::WindowId window = 0;
  window = loop.CreateHiddenWindow("others", [&](const platform::Message& message) {
    if (++runs % 2000 == 0) between.insert(Get("ID"));  // a turn takes some thousands at most
    if (between.size() < 52) loop.Post(message);
  });
  Answer(Items(1, 52));
  feed.Poll();
  ASSERT_TRUE(loop.WaitUntil(
      [&] {
        if (runs == 0 && !server.Seen().empty()) loop.Post({window, platform::kMessageUser, 0, 0});
        return timer.Enabled();
      },
      clock.Monotonic() + std::chrono::minutes{1}));
  EXPECT_EQ(between.size(), 52u);  // before the first item, and between any two
}

TEST_F(News, TenThousandItems) {
  PollAnswering(Items(1, 10'000));
  EXPECT_EQ(Entries(), 10'000u);
  EXPECT_EQ(Stored("1710523000_10000", "headline"), "News 10000");
  EXPECT_EQ(store->Sections("KLV-News").size(), 10'000u);
}

TEST_F(News, FetchesTheIconsItLacks) {
  HttpServer icons;
  context.hosts.icons = icons.Address("");
  const std::string folderOfIcons = folder.File("Files/Img/");
  std::filesystem::create_directories(folderOfIcons);
  platform::SalvarArquivo(folderOfIcons + "HERE_ico.png", "old");
  icons.Put("/ico/", {.body = kPng});
  json items = Items(1, 60);
  items[0]["symbol"] = "aapl";
  items[1]["related"] = "msft, here,../etc,a/b,a\\b,,AAPL";
  PollAnswering(items);
  AwaitIcons();
  std::vector<std::string> asked;
  for (const HttpSeen& seen : icons.Seen()) asked.push_back(seen.target);
  EXPECT_EQ(asked, (std::vector<std::string>{"/ico/?s=AAPL", "/ico/?s=MSFT"}));
  EXPECT_EQ(platform::ReadWholeFile(folderOfIcons + "AAPL_ico.png"), kPng);
  EXPECT_EQ(platform::ReadWholeFile(folderOfIcons + "HERE_ico.png"), "old");

  // What is no icon is not kept, and not asked for again before an hour has passed.
  const std::pair<const char*, HttpAnswer> others[] = {
      {"A", {.status = 404, .body = kPng}},
      {"B", {.body = "<html>"}},
      {"C", {.raw = "HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n" + kPng}},  // cut
      {"D", {.body = kPng + std::string(feeder::NewsIcons::kLargestIcon, 'x')}}};
  for (const auto& [symbol, answer] : others) {
    icons.Put("/ico/", answer);
    for (int again = 0; again < 2; ++again) PollNaming(symbol);
    EXPECT_FALSE(HasIcon(symbol)) << symbol;
  }
  EXPECT_EQ(icons.Seen().size(), 6u);
  clock.Advance(std::chrono::hours{1});
  icons.Put("/ico/", {.body = kPng});
  PollNaming("A");
  EXPECT_TRUE(HasIcon("A"));
}

TEST_F(News, FollowsTheIconsRedirects) {
  HttpServer icons;
  HttpServer other;
  const Descriptor taken(PlainSocket(SOCK_STREAM));  // bound, but nobody listens
  other.Put("/to", {.status = 301, .headers = {{"Location", "/icon"}}});
  other.Put("/icon", {.body = kPng});
  server.Put("/to", {.body = kPng});
  const struct {
    const char* symbol;
    std::string from, to;
    std::size_t asked;  // of the servers with icons
    bool found;
  } cases[] = {{"A", icons.Address(""), other.Address("/to"), 3, true},
               {"B", server.Address(""), server.Address("/to"), 0, true},
               {"C", server.Address(""), other.Address("/icon"), 0, false},  // not from https to http
               {"D", icons.Address(""), fmt::format("http://127.0.0.1:{}/", PortOf(taken)), 1, false},
               {"E", icons.Address(""), "ftp://127.0.0.1/icon", 1, false},
               {"F", icons.Address(""), "/ico/", 6, false}};  // round and round
  for (const auto& each : cases) {
    const std::size_t before = icons.Seen().size() + other.Seen().size();
    context.hosts.icons = each.from;
    for (HttpServer* source : {&icons, &server}) {
      source->Put("/ico/", {.status = 302, .headers = {{"Location", each.to}}});
    }
    PollNaming(each.symbol);
    EXPECT_EQ(icons.Seen().size() + other.Seen().size() - before, each.asked) << each.to;
    EXPECT_EQ(HasIcon(each.symbol), each.found) << each.to;
  }
}

// A source that says nothing costs one request's time, and is then left alone for an hour.
TEST_F(News, AnIconSourceThatDoesNotAnswer) {
  HttpServer icons;
  context.hosts.icons = icons.Address("");
  store->SaveSetting("Quenmark", "Hosts", "TotalTimeoutMs", "300");
  icons.Put("/ico/", {.after = "/never"});
  for (const std::size_t asked : {1u, 1u, 2u}) {
    if (asked == 2) clock.Advance(std::chrono::hours{1});
    PollNaming("A,B,C");
    EXPECT_EQ(icons.Seen().size(), asked);
  }
}

}  // namespace
}  // namespace quenmark::test
