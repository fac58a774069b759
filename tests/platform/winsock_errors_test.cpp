#include "platform/winsock_errors.h"

#include <errno.h>
#include <gtest/gtest.h>

namespace quenmark::platform {
namespace {

TEST(WinsockErrors, MapTheSystemsNumbers) {
  using Row = std::pair<int, std::int32_t>;
  for (const auto& [system, code] :
       {Row{0, 0}, Row{EAGAIN, kWsaWouldBlock}, Row{EINPROGRESS, kWsaWouldBlock}, Row{ECONNREFUSED, kWsaRefused},
        Row{ECONNRESET, kWsaConnectionReset}, Row{EBADF, kWsaNotSocket}, Row{EMFILE, kWsaTooManySockets},
        Row{ENFILE, kWsaTooManySockets}, Row{ETIMEDOUT, kWsaTimedOut}, Row{EADDRINUSE, 10048}, Row{EHOSTUNREACH, 10065},
        Row{-77, kWsaSystemCallFailure}}) {
    EXPECT_EQ(WinsockErrorOf(system), code) << system;
  }
}

TEST(WinsockErrors, EveryCodeThatCanBeReportedHasATextWithoutLineBreak) {
  for (int number = 0; number < 200; ++number) {
    const std::string_view text = WinsockErrorText(WinsockErrorOf(number));
    ASSERT_GT(text.size(), 10U) << number;
    EXPECT_EQ(text.back(), '.') << number;
    EXPECT_EQ(text.find_first_of("\r\n"), std::string_view::npos) << number;
  }
  EXPECT_EQ(WinsockErrorText(10061), "No connection could be made because the target machine actively refused it.");
  EXPECT_EQ(WinsockErrorText(11001), "No such host is known.");
  EXPECT_EQ(WinsockErrorText(kTimeoutResult), "This operation returned because the timeout period expired.");
  EXPECT_EQ(WinsockErrorText(static_cast<std::int32_t>(0x80072740U)), WinsockErrorText(0x2740));
  EXPECT_EQ(WinsockErrorText(12345), "");
  EXPECT_EQ(WinsockErrorText(-1), "");
}

}  // namespace
}  // namespace quenmark::platform
