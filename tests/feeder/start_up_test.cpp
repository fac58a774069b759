#include "feeder/start_up.h"

#include "tests/support/feeder_fixture.h"
#include "tests/support/trusted_server.h"

namespace quenmark::test {
namespace {

class StartUp : protected TrustedServer, public FeederFixture {};

TEST_F(StartUp, TimeZoneAnswerReplacesTheOffsetOnlyWhenItIsANumber) {
  context.hosts.timeZone = server.Address("");
  constexpr double kMachine = 240;
  constexpr std::pair<const char*, double> kAnswers[] = {
      {"x|tzm-300|y", -300}, {"TZM0|", 0},           {"TZMnone|", kMachine},
      {"TZM300", kMachine},  {"TZM9999|", kMachine}, {"<html>", kMachine},
  };
  for (const auto& [answer, offset] : kAnswers) {
    server.Put("/gmt/", {.body = answer});
    context.gmtOffsetMinutes = 1;
    feeder::RequestTimeZone(context);
    EXPECT_EQ(context.gmtOffsetMinutes, offset) << answer;
  }
  EXPECT_EQ(server.Seen().back().headers.at("authorization"), "Basic @");
}

}  // namespace
}  // namespace quenmark::test
