#include "tests/simulator/event_client.h"
#include "tests/support/temporary_folder.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <memory>

namespace quenmark::test {
namespace {

namespace ssl = boost::asio::ssl;
using ::testing::HasSubstr;

std::vector<std::string> AsLogged(std::vector<std::string> messages) {
  for (std::string& message : messages) {
    if (message.ends_with('\n')) message.pop_back();
    std::replace(message.begin(), message.end(), '\n', '\t');
  }
  return messages;
}

TEST(EventSocket, DeliversWhatItsLogTells) {
  const struct {
    Words options;
    bool offersDeflate, compressed;
    std::size_t batch;
  } rows[] = {{{"--rate", "0"}, false, false, 1},
              {{"--rate", "0", "--linebreak-batch", "3"}, false, false, 3},
              {{"--rate", "0", "--deflate"}, true, true, 1},
              {{"--rate", "20000", "--latency"}, false, false, 1},
              {{"--rate", "0", "--deflate"}, false, false, 1},
              {{"--rate", "0"}, true, false, 1}};
  for (const auto& row : rows) {
    TemporaryFolder folder;
    Words options{"--events", "6000", "--event-log", folder.File("log")};
    options.insert(options.end(), row.options.begin(), row.options.end());
    Simulator simulator{options};
    EventClient client{simulator, row.offersDeflate};
    ASSERT_FALSE(client.Error()) << client.Error().message();
    EXPECT_EQ(client.Response().count(boost::beast::http::field::sec_websocket_extensions), row.compressed ? 1U : 0U);
    client.Subscribe({"AAPL", "MSFT", "BRK/B"}, NewSession(simulator));
    const std::vector<std::string> messages = client.Read(6000 / row.batch);
    ASSERT_FALSE(client.Error()) << client.Error().message();
    EXPECT_EQ(AsLogged(messages), EventLogTexts(folder.File("log"), "events"));
    EXPECT_EQ(simulator.Get("/sim/state").Parsed()["events"]["events"], 6000);
    EXPECT_EQ(client.UntilPong(), std::vector<std::string>{}) << "nothing comes after the last event";
  }
}

TEST(EventSocket, RatesKeepTheirPace) {
  Simulator simulator{{"--rate", "0.01"}};
  EventClient client{simulator};
  client.Subscribe({"AAPL", "NOPE"}, NewSession(simulator));
  EXPECT_EQ(client.Read(), R"({"error":"NOPE is not a valid symbol"})");
  EXPECT_EQ(simulator.Control("message", "from outside"), 200);
  EXPECT_EQ(client.Read(), "from outside") << "a message by hand, before the first event is due";
  EXPECT_EQ(simulator.Control("rate", "100"), 200);
  EXPECT_THAT(client.Read(), HasSubstr("AAPL"));
  EXPECT_EQ(simulator.Control("sessions", "expire"), 200);
  std::string last;
  while (!client.Error() && last.find("error") == std::string::npos) last = client.Read();
  EXPECT_EQ(last, R"({"error":"session not found"})");
  for (const char* bad : {"-1", "fast", "2000000"}) EXPECT_EQ(simulator.Control("rate", bad), 400) << bad;
}

TEST(EventSocket, FaultsEndItTheirWay) {
  struct Row {
    const char* fault;
    boost::system::error_code error;
    const char* end;
  };
  for (const Row& row :
       {Row{"close1011", boost::beast::websocket::error::closed, "close"},
        Row{"tlsclose", boost::asio::error::eof, "tlsclose"}, Row{"cut", ssl::error::stream_truncated, "cut"},
        Row{"halfframe", ssl::error::stream_truncated, "halfframe"},
        Row{"reset", boost::asio::error::connection_reset, "reset"}, Row{"garbage", {}, "client 1002"}}) {
    TemporaryFolder folder;
    Simulator simulator{{"--rate", "1000", "--fault-turn", "5", "--fault", std::string{row.fault} + "@events$",
                         "--event-log", folder.File("log")}};
    {
      EventClient client{simulator};
      client.Subscribe({"AAPL"}, NewSession(simulator));
      for (const std::string& message : client.Read(4)) EXPECT_THAT(message, HasSubstr("AAPL")) << row.fault;
      EXPECT_EQ(client.Read(), "");
      if (row.error) {  // else the client's answer, which the log tells, is what counts
        EXPECT_EQ(client.Error(), row.error) << row.fault << ": " << client.Error().message();
      }
      if (row.end == std::string{"close"}) {
        EXPECT_EQ(client.Reason().code, 1011);
      }
    }
    EXPECT_EQ(EventLogTexts(folder.File("log"), "partial").size(), row.fault == std::string{"halfframe"} ? 1U : 0U);
    while (simulator.Get("/sim/state").Parsed()["events"]["open"] != 0) continue;
    EXPECT_EQ(EventLogTexts(folder.File("log"), "end"), std::vector<std::string>{row.end});
  }
}

TEST(EventSocket, FaultsThatKeepItOpen) {
  Simulator simulator{{"--rate", "1000", "--fault-turn", "3"}};
  const auto spoiled = [&](const std::string& fault) {
    EXPECT_EQ(simulator.Control("fault", fault + "@events$*1"), 200);
    auto client = std::make_unique<EventClient>(simulator);
    client->Subscribe({"AAPL"}, NewSession(simulator));
    return client;
  };
  const auto stalled = spoiled("stall");
  stalled->Read(2);
  EXPECT_EQ(stalled->UntilPong(), std::vector<std::string>{});
  for (const std::string& message : spoiled("drip")->Read(20)) EXPECT_TRUE(Json::accept(message));
  EXPECT_EQ(spoiled("huge")->Read(3).back().size(), 50'000'000U);
}

TEST(EventSocket, SignalsEndItWithOpenStreams) {
  TemporaryFolder folder;
  Simulator simulator{{"--rate", "0", "--event-log", folder.File("log")}};
  EventClient client{simulator};
  client.Subscribe({"AAPL"}, NewSession(simulator));
  std::vector<std::string> messages = client.Read(100);
  simulator.Program().Signal(SIGTERM);
  EXPECT_EQ(simulator.Program().Wait(), 0);
  while (!client.Error()) messages.push_back(client.Read());
  messages.pop_back();
  const std::vector<std::string> logged = EventLogTexts(folder.File("log"), "events");
  ASSERT_GE(logged.size(), messages.size()) << "what is sent is in the log";
  EXPECT_TRUE(std::equal(messages.begin(), messages.end(), logged.begin(),
                         [](const std::string& sent, const std::string& line) { return sent == line + "\n"; }));
}

TEST(EventSocket, RefusedHandshakes) {
  TemporaryFolder folder;
  Simulator simulator{{"--fault", "status401@events$*1", "--fault", "html*1", "--log", folder.File("log")}};
  for (int refused = 0; refused < 2; ++refused) {
    EXPECT_EQ(EventClient{simulator}.Error(), boost::beast::websocket::error::upgrade_declined);
  }
  EXPECT_FALSE(EventClient{simulator}.Error());
  std::vector<int> statuses;
  for (const Json& line : LogLines(folder.File("log"))) statuses.push_back(line["status"]);
  EXPECT_EQ(statuses, (std::vector{401, 200, 101}));
}

TEST(EventSocket, CertificatesOfTheSecondPort) {
  struct Row {
    const char* certificate;
    long verdict;
  };
  for (const Row& row : {Row{"good", X509_V_OK}, Row{"expired", X509_V_ERR_CERT_HAS_EXPIRED},
                         Row{"not-yet", X509_V_ERR_CERT_NOT_YET_VALID}, Row{"other-host", X509_V_ERR_UNSPECIFIED},
                         Row{"unknown-issuer", X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}}) {
    Simulator simulator{{"--wss-certificate", row.certificate}};
    EventClient client{simulator, false, simulator.WssPort()};
    EXPECT_EQ(!client.Error(), row.certificate == std::string{"good"}) << row.certificate;
    EXPECT_EQ(client.Verdict(), row.verdict) << row.certificate;
    EXPECT_FALSE(EventClient{simulator}.Error()) << "the first port is not concerned";
  }
}

}  // namespace
}  // namespace quenmark::test
