#include "platform/host_resolver.h"

#include "platform/winsock_errors.h"

#include <ares.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <optional>

namespace quenmark::platform {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;

// 2.5 + 5 + 10 s per name server: about as long as the desktop platform tries.
constexpr int kFirstTimeout = 2500;  // ms
constexpr int kTries = 3;
constexpr std::size_t kLongestName = 255;  // RFC 1035 §2.3.4

struct StatusRow {
  int status;
  std::int32_t code;
};

constexpr StatusRow kStatuses[] = {
    {ARES_SUCCESS, 0},
    {ARES_ENOTFOUND, kWsaHostNotFound},
    {ARES_EBADNAME, kWsaHostNotFound},
    {ARES_ENODATA, kWsaNoData},
    {ARES_ETIMEOUT, kWsaTryAgain},
    {ARES_ESERVFAIL, kWsaTryAgain},
    {ARES_ECONNREFUSED, kWsaTryAgain},
    {ARES_ENOMEM, kWsaNoBuffers},
};

std::int32_t CodeOf(int status) {
  for (const StatusRow& row : kStatuses) {
    if (row.status == status) return row.code;
  }
  return kWsaNoRecovery;
}

}  // namespace

// One lookup on a channel of its own, so that it can be cancelled alone and always follows the machine's present
// configuration.
class HostResolver::Lookup {
 public:
  Lookup(HostResolver& resolver, LookupHandle handle, HostEntry& result, WindowId window, std::uint32_t message)
      : m_resolver(resolver), m_handle(handle), m_result(&result), m_window(window), m_message(message) {}
  ~Lookup() {
    m_result = nullptr;
    if (m_channel != nullptr) ares_destroy(m_channel);
    for (const auto& [descriptor, watch] : m_watches) Loop().Unwatch(watch);
    Loop().CancelCall(m_timer);
  }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  bool Start(const std::string& name) {
    ares_options options{};
    options.timeout = kFirstTimeout;
    options.tries = kTries;
    options.sock_state_cb = OnSocketState;
    options.sock_state_cb_data = this;
    if (ares_init_options(&m_channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB) !=
        ARES_SUCCESS) {
      m_channel = nullptr;
      return false;
    }
    const std::string& servers = m_resolver.m_nameServers;
    if (!servers.empty() && ares_set_servers_ports_csv(m_channel, servers.c_str()) != ARES_SUCCESS) return false;
    ares_gethostbyname(m_channel, name.c_str(), AF_INET, OnHost, this);
    ArmTimer();
    return true;
  }
  bool Finished() const { return m_result == nullptr; }

 private:
  MessageLoop& Loop() { return m_resolver.m_loop; }

  // Called by c-ares, also from within ares_gethostbyname and ares_destroy.
  static void OnHost(void* lookup, int status, int /*timeouts*/, hostent* host) {
    static_cast<Lookup*>(lookup)->Finish(status, host);
  }
  void Finish(int status, const hostent* host) {
    if (Finished()) return;
    HostEntry& result = *m_result;
    m_result = nullptr;
    for (char** next = host != nullptr ? host->h_addr_list : nullptr; next != nullptr && *next != nullptr; ++next) {
      if (host->h_addrtype != AF_INET || host->h_length != 4) break;
      std::memcpy(result.addresses.emplace_back().data(), *next, 4);
    }
    result.error = CodeOf(status);
    if (result.error == 0 && result.addresses.empty()) result.error = kWsaNoData;
    result.finished = true;
    if (m_window == 0) return;
    Loop().Post({m_window, m_message, static_cast<std::uintptr_t>(m_handle), std::intptr_t{result.error} << 16});
  }

  static void OnSocketState(void* lookup, ares_socket_t descriptor, int readable, int writable) {
    static_cast<Lookup*>(lookup)->WatchSocket(descriptor, readable != 0, writable != 0);
  }
  void WatchSocket(int descriptor, bool readable, bool writable) {
    const auto known = m_watches.find(descriptor);
    const Readiness interest{.read = readable, .write = writable};
    if (!readable && !writable) {
      if (known == m_watches.end()) return;
      Loop().Unwatch(known->second);
      m_watches.erase(known);
    } else if (known != m_watches.end()) {
      Loop().ChangeWatch(known->second, interest);
    } else {
      m_watches[descriptor] = Loop().Watch(descriptor, interest, Trigger::kLevel, [this, descriptor](Readiness ready) {
        Process(ready.read || ready.error ? descriptor : ARES_SOCKET_BAD,
                ready.write || ready.error ? descriptor : ARES_SOCKET_BAD);
      });
    }
  }
  // May end with this lookup gone.
  void Process(ares_socket_t readable, ares_socket_t writable) {
    ares_process_fd(m_channel, readable, writable);
    ArmTimer();
    m_resolver.Sweep(m_handle);
  }
  void ArmTimer() {
    timeval time{};
    if (Finished() || ares_timeout(m_channel, nullptr, &time) == nullptr) {
      Loop().CancelCall(m_timer);
      return;
    }
    const auto wait = seconds{time.tv_sec} + microseconds{time.tv_usec};
    m_timer = Loop().CallAt(m_timer, Loop().TheClock().Monotonic() + wait,
                            [this] { Process(ARES_SOCKET_BAD, ARES_SOCKET_BAD); });
  }

  HostResolver& m_resolver;
  LookupHandle m_handle;
  HostEntry* m_result;  // null when finished
  WindowId m_window;
  std::uint32_t m_message;
  ares_channel m_channel = nullptr;
  std::unordered_map<int, WatchId> m_watches;
  WatchId m_timer = 0;
  MessageLoop::OutsideWork m_outside{m_resolver.m_loop};
};

HostResolver::HostResolver(MessageLoop& loop, std::string nameServers)
    : m_loop(loop), m_nameServers(std::move(nameServers)) {}

HostResolver::~HostResolver() = default;

LookupHandle HostResolver::Start(std::string_view name, HostEntry& result, WindowId window, std::uint32_t message) {
  result = {};
  do {
    m_last = m_last == INT32_MAX ? 1 : m_last + 1;
  } while (m_lookups.contains(m_last));
  const LookupHandle handle = m_last;
  if (name.empty() || name.size() > kLongestName || name.find('\0') != std::string_view::npos) {
    result.finished = true;
    result.error = kWsaHostNotFound;
    if (window != 0)
      m_loop.Post({window, message, static_cast<std::uintptr_t>(handle), std::intptr_t{result.error} << 16});
    return handle;
  }
  const auto [place, added] =
      m_lookups.emplace(handle, std::make_unique<Lookup>(*this, handle, result, window, message));
  if (!place->second->Start(std::string(name))) {
    m_lookups.erase(place);
    return 0;
  }
  Sweep(handle);
  return handle;
}

void HostResolver::Cancel(LookupHandle lookup) {
  m_lookups.erase(lookup);
}

void HostResolver::Sweep(LookupHandle lookup) {
  const auto found = m_lookups.find(lookup);
  if (found != m_lookups.end() && found->second->Finished()) m_lookups.erase(found);
}

}  // namespace quenmark::platform
