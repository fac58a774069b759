#include "tests/simulator/curl_simulator.h"
#include "tests/support/temporary_folder.h"

#include <gmock/gmock.h>

namespace quenmark::test {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

// All that the plain port sends to a client of HTTP/1.0, or how curl fared.
std::string Raw(const Simulator& simulator, const std::string& path) {
  const Answer answer = simulator.Curl(simulator.PlainBase() + path, {"-i", "--raw", "--http1.0"});
  return answer.exit == 0 ? answer.body : fmt::format("curl {}", answer.exit);
}

TEST(VendorApi, QuotesAreRecordsBehindAMark) {
  const Simulator simulator{{"--provider", "vendor", "--clock", "1710513000"}};  // 10:30 in New York
  ASSERT_EQ(simulator.Control("price", "AAPL 123.4"), 200);
  const std::string answer = Raw(simulator, "/quotes/?c=77&s=AAPL@NOPE@BRK/B@BF-B");
  EXPECT_THAT(answer, StartsWith("HTTP/1.0 200 OK\r\n"));
  const std::string body = answer.substr(answer.find("\r\n\r\n") + 4);
  EXPECT_THAT(body, StartsWith("77|20240315103001|@|AAPL-"));
  EXPECT_EQ(body.substr(20), simulator.Sent("AAPL", "vendor_quote")["fields"]["record"].get<std::string>() + "|" +
                                 simulator.Sent("BRK/B", "vendor_quote")["fields"]["record"].get<std::string>() + "|");
  EXPECT_THAT(simulator.Sent("AAPL", "vendor_quote")["fields"]["record"],
              MatchesRegex("AAPL-123.4-m[0-9]+\\.[0-9][0-9]-123.4-123.4-123.4-[1-9][0-9]*-1-1-20240315103001"));
  EXPECT_EQ(simulator.Get("/v1/markets/clock").status, 404);
}

TEST(VendorApi, NewsAboveAnId) {
  const Simulator simulator{{"--news", "3", "--clock", "1710513000", "--news-interval", "10"}};
  const auto ids = [&](const std::string& id) {
    std::vector<int> found;
    const Json answer = simulator.Get("/news/?id=" + id).Parsed();
    for (const Json& item : answer["data"]) found.push_back(item["ts_id"]);
    return found;
  };
  EXPECT_EQ(ids("0"), (std::vector{1003, 1002, 1001}));
  EXPECT_EQ(ids("1002"), std::vector{1003});
  EXPECT_EQ(ids("1003"), std::vector<int>{});
  for (int request = 0; request < 10; ++request) simulator.Get("/v1/markets/clock");  // a second each
  EXPECT_EQ(ids("1003"), std::vector{1004});
  const Json item = simulator.Get("/news/?id=1003").Parsed()["data"][0];
  EXPECT_EQ(item["datetime"], 1710513010);
  EXPECT_EQ(item, simulator.Get("/news/?id=1003").Parsed()["data"][0]);
  EXPECT_THAT(item["related"], HasSubstr(item["symbol"].get<std::string>() + ","));
  for (const char* bad : {"", "x", "1x"}) EXPECT_EQ(simulator.Get(std::string{"/news/?id="} + bad).status, 400) << bad;
  // HTTP/1.1 and a close, also to a client of HTTP/1.0.
  EXPECT_THAT(Raw(simulator, "/news/?id=1003"),
              ::testing::AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("Connection: close\r\n"), EndsWith("}]}")));
}

TEST(VendorApi, IconsArePngFiles) {
  const Simulator simulator;
  TemporaryFolder folder;
  simulator.Get("/ico/?s=aapl", {"-o", folder.File("icon")});
  std::ifstream file{folder.File("icon"), std::ios::binary};
  const std::string icon{std::istreambuf_iterator<char>{file}, {}};
  EXPECT_THAT(icon, StartsWith(std::string("\x89PNG\r\n\x1A\n\0\0\0\rIHDR\0\0\0\x10\0\0\0\x10", 24)));
  EXPECT_THAT(icon, EndsWith("\xAE\x42\x60\x82"));  // of every IEND chunk
  EXPECT_EQ(simulator.Get("/ico/?s=nope").status, 404);
}

TEST(VendorApi, Faults) {
  const Simulator simulator{{"--news", "5"}};
  struct Row {
    const char* fault;
    const char* path;
    std::string answer;  // a part of it
  };
  for (const Row& row :
       {Row{"http10", "/news/?id=0", "HTTP/1.0 200 OK"}, Row{"chunked", "/news/?id=0", "Transfer-Encoding: chunked"},
        Row{"chunked", "/news/?id=0", "\r\n3e8\r\n{\"data\":[{"}, Row{"reset", "/news/?id=0", "curl 56"},
        Row{"odd", "/news/?id=0", "\"no object\""}, Row{"odd", "/quotes/?s=AAPL", "|AAPL--0-1-1"},
        Row{"status500", "/quotes/?s=AAPL", "HTTP/1.1 500"}, Row{"html", "/ico/?s=AAPL", "<html>"},
        Row{"empty", "/ico/?s=AAPL", "Content-Length: 0"}}) {
    ASSERT_EQ(simulator.Control("fault", std::string{row.fault} + "*1"), 200);
    EXPECT_THAT(Raw(simulator, row.path), HasSubstr(row.answer)) << row.fault << ' ' << row.path;
    EXPECT_THAT(Raw(simulator, row.path), HasSubstr(" 200 OK")) << "only once";
  }
}

}  // namespace
}  // namespace quenmark::test
