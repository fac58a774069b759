#include "platform/adapters.h"

#include "platform/socket_address.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace quenmark::platform {
namespace {

// The kernel's own list of local addresses is the judge: each adapter address appears there.
TEST(Adapters, AreLocalAddressesWithTheirMasks) {
  std::stringstream table;
  table << std::ifstream("/proc/net/fib_trie").rdbuf();
  for (const AdapterAddress& adapter : AdapterAddresses()) {
    EXPECT_NE(table.str().find("-- " + adapter.address + "\n"), std::string::npos) << adapter.address;
    EXPECT_TRUE(ParseHost(adapter.mask) || adapter.mask == "255.255.255.255") << adapter.mask;
    EXPECT_NE(adapter.address.substr(0, 4), "127.");
    EXPECT_NE(adapter.address, "0.0.0.0");
  }
}

}  // namespace
}  // namespace quenmark::platform
