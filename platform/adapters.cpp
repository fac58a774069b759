#include "platform/adapters.h"

#include "platform/socket_address.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

namespace quenmark::platform {
namespace {

std::string DottedText(const sockaddr* address) {
  if (address == nullptr || address->sa_family != AF_INET) return {};
  sockaddr_in record{};
  std::memcpy(&record, address, sizeof(record));
  std::array<std::uint8_t, 4> host{};
  std::memcpy(host.data(), &record.sin_addr, host.size());
  return HostText(host);
}

}  // namespace

std::vector<AdapterAddress> AdapterAddresses() {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(first, freeifaddrs);
  std::vector<AdapterAddress> addresses;
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if ((entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
    const std::string address = DottedText(entry->ifa_addr);
    if (address.empty() || address == "0.0.0.0") continue;
    addresses.push_back({address, DottedText(entry->ifa_netmask)});
  }
  return addresses;
}

}  // namespace quenmark::platform
