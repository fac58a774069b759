// Host names to IPv4 addresses without blocking: the hosts file, then the name servers of this machine.
#pragma once

#include "platform/message_loop.h"
#include "platform/socket_address.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quenmark::platform {

using LookupHandle = std::int32_t;  // 0: none

// What a lookup found.
struct HostEntry {
  bool finished = false;
  std::int32_t error = 0;  // Winsock code; 0 when there is at least one address
  std::vector<std::array<std::uint8_t, 4>> addresses;
};

class HostResolver {
 public:
  // `nameServers`: "address[:port][,…]" in place of the machine's own; empty: those of the machine. The loop must
  // outlive the resolver.
  HostResolver(MessageLoop& loop, std::string nameServers);
  // Cancels what runs.
  ~HostResolver();
  HostResolver(const HostResolver&) = delete;
  HostResolver& operator=(const HostResolver&) = delete;

  // Starts a lookup. `result` is filled when it has ended, and must live until then or until Cancel; then
  // (message, wParam: the lookup's handle, lParam: the Winsock code in the high half) is posted to the window. Window
  // 0: nothing is posted. 0 when the lookup cannot be started. A lookup ends within about 20 s per name server.
  LookupHandle Start(std::string_view name, HostEntry& result, WindowId window, std::uint32_t message);
  // Ends a lookup without a result. Its message may be queued already; the handle does not come again soon.
  void Cancel(LookupHandle lookup);

 private:
  class Lookup;
  void Sweep(LookupHandle lookup);

  MessageLoop& m_loop;
  std::string m_nameServers;
  LookupHandle m_last = 0;
  std::unordered_map<LookupHandle, std::unique_ptr<Lookup>> m_lookups;
};

}  // namespace quenmark::platform
