#include "feeder/start_up.h"

#include "tests/support/feeder_fixture.h"

namespace quenmark::test {
namespace {

class StartUp : public FeederFixture {};

TEST_F(StartUp, TimeZoneAnswerReplacesTheOffsetOnlyWhenItIsANumber) {
  HttpServer vendor(HttpServer::Security::kTls);
  const auto trusting = TrustingClient(vendor);
  providers::Context own = ContextOf(*trusting);
  own.hosts.timeZone = "https://localhost:" + std::to_string(vendor.Port());
  constexpr double kMachine = 240;
  constexpr std::pair<const char*, double> kAnswers[] = {
      {"x|tzm-300|y", -300}, {"TZM0|", 0},           {"TZMnone|", kMachine},
      {"TZM300", kMachine},  {"TZM9999|", kMachine}, {"<html>", kMachine},
  };
  for (const auto& [answer, offset] : kAnswers) {
    vendor.Put("/gmt/", {.body = answer});
    own.gmtOffsetMinutes = 1;
    feeder::RequestTimeZone(own);
    EXPECT_EQ(own.gmtOffsetMinutes, offset) << answer;
  }
  EXPECT_EQ(vendor.Seen().back().headers.at("authorization"), "Basic @");
}

}  // namespace
}  // namespace quenmark::test
