#include "platform/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace quenmark::platform {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(Log, Levels) {
  EXPECT_EQ(ParseLogLevel("error"), LogLevel::kError);
  EXPECT_EQ(ParseLogLevel("info"), LogLevel::kInfo);
  EXPECT_EQ(ParseLogLevel("debug"), LogLevel::kDebug);
  for (const char* off : {"", "off", "ERROR", "trace"}) EXPECT_EQ(ParseLogLevel(off), LogLevel::kOff) << off;
}

TEST(Log, WritesItsLevelAndBelowToStandardErrorOneLineEach) {
  ::testing::internal::CaptureStderr();
  {
    Log log(LogLevel::kInfo);
    log.Error("first {}", 1);
    log.Info("second\r\n{} \x1B[2J{{}}", "forged entry");
    log.Debug("third");
    Log silent;
    silent.Error("fourth");
    EXPECT_FALSE(silent.Enabled(LogLevel::kError));
  }
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  EXPECT_THAT(text, HasSubstr("error first 1\n"));
  EXPECT_THAT(text, HasSubstr("info second\\x0d\\x0aforged entry \\x1b[2J{}\n"));
  EXPECT_THAT(text, Not(HasSubstr("third")));
}

}  // namespace
}  // namespace quenmark::platform
