#include "platform/host_resolver.h"

#include "platform/winsock_errors.h"
#include "tests/support/name_server.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace quenmark::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint32_t kResolvedMessage = kMessageUser + 1;

class HostResolverTest : public testing::Test {
 protected:
  HostResolverTest() {
    m_window = m_loop.CreateHiddenWindow("resolver test", [this](const Message& message) {
      EXPECT_EQ(message.number, kResolvedMessage);
      m_completions.push_back(message);
    });
  }
  void Start(const std::string& servers) { m_resolver = std::make_unique<HostResolver>(m_loop, servers); }
  LookupHandle LookUp(std::string_view name, HostEntry& entry) {
    return m_resolver->Start(name, entry, m_window, kResolvedMessage);
  }
  bool WaitFor(std::size_t completions) {
    return m_loop.WaitUntil([&] { return m_completions.size() >= completions; },
                            m_loop.TheClock().Monotonic() + seconds{20});
  }

  SystemClock m_clock;
  MessageLoop m_loop{m_clock};
  test::NameServer m_server{m_loop};
  WindowId m_window = 0;
  std::vector<Message> m_completions;
  std::unique_ptr<HostResolver> m_resolver;
};

TEST_F(HostResolverTest, FindsNamesOfTheHostsFileAndOfTheServer) {
  m_server.names["feed.test"] = {{192, 0, 2, 7}, {192, 0, 2, 8}};
  Start(m_server.Address());
  for (const auto& [name, address] : {std::pair<std::string, std::array<std::uint8_t, 4>>{"localhost", {127, 0, 0, 1}},
                                      {"feed.test", {192, 0, 2, 7}},
                                      {"10.1.2.3", {10, 1, 2, 3}}}) {
    m_completions.clear();
    HostEntry entry;
    const LookupHandle lookup = LookUp(name, entry);
    ASSERT_NE(lookup, 0) << name;
    ASSERT_TRUE(WaitFor(1)) << name;
    EXPECT_EQ(m_completions[0].wParam, static_cast<std::uintptr_t>(lookup));
    EXPECT_EQ(m_completions[0].lParam, 0);
    EXPECT_TRUE(entry.finished);
    EXPECT_EQ(entry.error, 0);
    ASSERT_FALSE(entry.addresses.empty()) << name;
    EXPECT_EQ(entry.addresses.front(), address) << name;
  }
  EXPECT_EQ(m_server.queries, 1);
}

TEST_F(HostResolverTest, ReportsFailuresAsWinsockCodes) {
  m_server.names["empty.test"] = {};
  Start(m_server.Address());
  struct Row {
    std::string name;
    int failure;
    std::int32_t code;
  };
  for (const Row& row :
       {Row{"nowhere.test.", 0, kWsaHostNotFound}, Row{"empty.test", 0, kWsaNoData}, Row{"", 0, kWsaHostNotFound},
        Row{"broken.test", 2, kWsaTryAgain}, Row{"refused.test", 5, kWsaTryAgain}, Row{"odd.test", 1, kWsaNoRecovery},
        Row{std::string("empty.test\0b", 12), 0, kWsaHostNotFound}, Row{std::string(300, 'x'), 0, kWsaHostNotFound}}) {
    m_completions.clear();
    m_server.failure = row.failure;
    HostEntry entry;
    LookUp(row.name, entry);
    ASSERT_TRUE(WaitFor(1)) << row.name;
    EXPECT_EQ(entry.error, row.code) << row.name;
    EXPECT_EQ(m_completions[0].lParam, std::intptr_t{row.code} << 16) << row.name;
  }
}

TEST_F(HostResolverTest, CancelEndsOneLookupAndLeavesTheOther) {
  m_server.names["a.test"] = {{192, 0, 2, 1}};
  m_server.names["b.test"] = {{192, 0, 2, 2}};
  Start(m_server.Address());
  auto first = std::make_unique<HostEntry>();
  HostEntry second;
  const LookupHandle cancelled = LookUp("a.test", *first);
  const LookupHandle kept = LookUp("b.test", second);
  EXPECT_NE(cancelled, kept);
  m_resolver->Cancel(cancelled);
  first.reset();  // nothing may write to it now
  ASSERT_TRUE(WaitFor(1));
  EXPECT_EQ(m_completions[0].wParam, static_cast<std::uintptr_t>(kept));
  EXPECT_EQ(second.addresses.size(), 1U);
  m_loop.Sleep(milliseconds{20});
  EXPECT_EQ(m_completions.size(), 1U);
}

TEST_F(HostResolverTest, ASilentServerIsAskedAgain) {
  m_server.silent = true;
  Start(m_server.Address());
  HostEntry entry;
  LookUp("slow.test", entry);
  // The second question comes with the first time-out.
  EXPECT_TRUE(m_loop.WaitUntil([&] { return m_server.queries >= 2; }, m_clock.Monotonic() + seconds{20}));
  EXPECT_FALSE(entry.finished);
  m_resolver.reset();  // with the lookup still running
  m_loop.RunQueued();
  EXPECT_TRUE(m_completions.empty());
}

}  // namespace
}  // namespace quenmark::platform
