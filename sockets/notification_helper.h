// The notification helper: what all sockets of one message loop share. It owns the hidden window that their
// notifications and name lookups arrive at, the table of registered sockets, and the seams to the system.
#pragma once

#include "platform/host_resolver.h"
#include "platform/message_loop.h"
#include "platform/socket_api.h"
#include "platform/socket_notifier.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace quenmark::sockets {

class cAsyncSocket;

inline constexpr std::uint32_t kMessageResolved = platform::kMessageUser + 1;
inline constexpr std::uint32_t kMessageFirstSocket = platform::kMessageUser + 2;  // plus the slot
inline constexpr std::uint32_t kMessageLast = 0xBFFF;
// The message number of the socket in `slot`.
constexpr std::uint32_t SocketMessage(std::int32_t slot) {
  return kMessageFirstSocket + static_cast<std::uint32_t>(slot);
}
inline constexpr std::int32_t kFirstTableSize = 512;
inline constexpr std::int32_t kLargestTableSize = 48126;  // slots; the last one's message is kMessageLast

// One notification as it lies in the ring.
struct NotifyRecord {
  std::uint32_t number = 0;
  std::int32_t wParam = 0;
  std::int32_t lParam = 0;
};
static_assert(sizeof(NotifyRecord) == 12);

// What a test may put in place of the machine's own. Taken by the helper, that is, by the first socket of a loop.
struct SocketServices {
  platform::SocketApi* api = nullptr;  // must outlive the sockets
  std::string nameServers;             // as for platform::HostResolver
};

class NotificationHelper : public std::enable_shared_from_this<NotificationHelper> {
 public:
  // The helper of the loop's hidden window; made when there is none. It lives as long as a socket holds it.
  static std::shared_ptr<NotificationHelper> Of(platform::MessageLoop& loop, const SocketServices& services);
  static std::string WindowName();

  NotificationHelper(platform::MessageLoop& loop, const SocketServices& services);
  ~NotificationHelper();
  NotificationHelper(const NotificationHelper&) = delete;
  NotificationHelper& operator=(const NotificationHelper&) = delete;

  platform::MessageLoop& Loop() { return m_loop; }
  platform::SocketApi& Api() { return m_api; }
  platform::SocketNotifier& Notifier() { return m_notifier; }
  platform::HostResolver& Resolver() { return m_resolver; }
  platform::WindowId Window() const { return m_window; }
  // False when the window has been destroyed.
  bool HasWindow() const;

  // The slot taken, -1 when the table is full.
  std::int32_t Register(const std::shared_ptr<cAsyncSocket>& socket);
  // Empties the slot; what is still queued for it is dropped, since slot and handle are soon in use again.
  void Unregister(std::int32_t slot);
  std::int32_t TableSize() const { return static_cast<std::int32_t>(m_table.size()); }
  std::int32_t RegisteredCount() const { return m_registered; }

  // Posts a notification to the slot's socket.
  bool Post(std::int32_t slot, std::int32_t wParam, std::int32_t lParam);
  // Hands the records from `start` up to, not including, `end` to their sockets. The table's size is a power of two and
  // the walk wraps round. Returns 0.
  std::int32_t NotifyProc(std::span<const NotifyRecord> table, std::size_t start, std::size_t end);

 private:
  struct Slot {
    std::weak_ptr<cAsyncSocket> socket;
    bool taken = false;
  };

  void pvCreateWindow();
  void pvOnMessage(const platform::Message& message);
  void pvNotify(const NotifyRecord& record);

  platform::MessageLoop& m_loop;
  platform::SystemSocketApi m_systemApi;
  platform::SocketApi& m_api;
  platform::SocketNotifier m_notifier;
  platform::HostResolver m_resolver;
  platform::WindowId m_window = 0;

  std::vector<Slot> m_table;
  std::int32_t m_nextFree = 0;
  std::int32_t m_registered = 0;

  // Each record is delivered in the turn of the loop that brought it, so the ring never holds more than one unread.
  std::array<NotifyRecord, 64> m_ring;
  std::size_t m_read = 0;
  std::size_t m_write = 0;
};

}  // namespace quenmark::sockets
