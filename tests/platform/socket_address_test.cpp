#include "platform/socket_address.h"

#include <gtest/gtest.h>

namespace quenmark::platform {
namespace {

TEST(SocketAddress, ReadsTheFormsOfInetAddrAndNothingElse) {
  using Row = std::pair<std::string_view, std::string>;
  for (const auto& [text, expected] :
       {Row{"127.0.0.1", "127.0.0.1"}, Row{"0.0.0.0", "0.0.0.0"}, Row{"1.2.3", "1.2.0.3"},
        Row{"1.65535", "1.0.255.255"}, Row{"2130706433", "127.0.0.1"}, Row{"0x7f.1", "127.0.0.1"},
        Row{"0177.0.0.010", "127.0.0.8"}, Row{"255.255.255.254", "255.255.255.254"}, Row{"0", "0.0.0.0"},
        // refused
        Row{"", ""}, Row{".", ""}, Row{"1.", ""}, Row{".1", ""}, Row{"1..2", ""}, Row{"1.2.3.4.", ""},
        Row{"1.2.3.4.5", ""}, Row{"1.2.3.4 ", ""}, Row{" 1.2.3.4", ""}, Row{"-1.2.3.4", ""}, Row{"+1.2.3.4", ""},
        Row{"0x", ""}, Row{"08", ""}, Row{"1.2.3.4x", ""}, Row{"1e3.com", ""}, Row{"localhost", ""},
        Row{"256.1.1.1", ""}, Row{"1.2.3.256", ""}, Row{"1.2.65536", ""}, Row{"1.16777216", ""}, Row{"4294967296", ""},
        Row{"255.255.255.255", ""}, Row{"99999999999999999999", ""}}) {
    const auto host = ParseHost(text);
    EXPECT_EQ(host ? HostText(*host) : "", expected) << text;
  }
}

}  // namespace
}  // namespace quenmark::platform
