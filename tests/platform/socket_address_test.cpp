#include "platform/socket_address.h"

#include <gtest/gtest.h>

namespace quenmark::platform {
namespace {

TEST(SocketAddress, ReadsTheFormsOfInetAddrAndNothingElse) {
  using Row = std::pair<std::string_view, std::string>;
  for (const auto& [text, expected] :
       {Row{"127.0.0.1", "127.0.0.1"}, Row{"0.0.0.0", "0.0.0.0"}, Row{"1.2.3", "1.2.0.3"},
        Row{"1.65535", "1.0.255.255"}, Row{"2130706433", "127.0.0.1"}, Row{"0x7f.1", "127.0.0.1"},
        Row{"0177.0.0.010", "127.0.0.8"}, Row{"255.255.255.254", "255.255.255.254"}, Row{"0", "0.0.0.0"}}) {
    const auto host = ParseHost(text);
    ASSERT_TRUE(host) << text;
    EXPECT_EQ(HostText(*host), expected);
  }
  for (const char* text : {"", ".", "1.", ".1", "1..2", "1.2.3.4.", "1.2.3.4.5", "1.2.3.4 ", " 1.2.3.4", "-1.2.3.4",
                           "+1.2.3.4", "0x", "08", "1.2.3.4x", "1e3.com", "localhost"}) {
    EXPECT_FALSE(ParseHost(text)) << text;
  }
  for (const char* text :
       {"256.1.1.1", "1.2.3.256", "1.2.65536", "1.16777216", "4294967296", "255.255.255.255", "99999999999999999999"}) {
    EXPECT_FALSE(ParseHost(text)) << text;
  }
}

}  // namespace
}  // namespace quenmark::platform
