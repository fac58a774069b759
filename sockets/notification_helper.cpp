#include "sockets/notification_helper.h"

#include "platform/thread_ids.h"
#include "sockets/async_socket.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace quenmark::sockets {

using platform::Message;

std::string NotificationHelper::WindowName() {
  return fmt::format("{}:{}:AsyncSocket Helper Window", platform::ProcessId(), platform::ThreadId());
}

std::shared_ptr<NotificationHelper> NotificationHelper::Of(platform::MessageLoop& loop,
                                                           const SocketServices& services) {
  const platform::WindowId window = loop.FindHiddenWindow(WindowName());
  if (window != 0) {
    if (auto helper = std::static_pointer_cast<NotificationHelper>(loop.WindowData(window))) return helper;
  }
  auto helper = std::make_shared<NotificationHelper>(loop, services);
  helper->pvCreateWindow();
  return helper;
}

NotificationHelper::NotificationHelper(platform::MessageLoop& loop, const SocketServices& services)
    : m_loop(loop),
      m_api(services.api != nullptr ? *services.api : m_systemApi),
      m_notifier(loop, m_api),
      m_resolver(loop, services.nameServers),
      m_table(kFirstTableSize) {}

NotificationHelper::~NotificationHelper() {
  m_loop.DestroyWindow(m_window);
}

void NotificationHelper::pvCreateWindow() {
  m_window = m_loop.CreateHiddenWindow(WindowName(), [self = weak_from_this()](const Message& message) {
    if (const auto helper = self.lock()) helper->pvOnMessage(message);
  });
  m_loop.SetWindowData(m_window, weak_from_this());
}

bool NotificationHelper::HasWindow() const {
  return m_loop.WindowData(m_window) != nullptr;
}

// --- Table -----------------------------------------------------------------------------------------------------------

std::int32_t NotificationHelper::Register(const std::shared_ptr<cAsyncSocket>& socket) {
  const std::int32_t size = TableSize();
  if (m_registered == size) m_table.resize(static_cast<std::size_t>(std::min(size * 2, kLargestTableSize)));
  const auto slots = m_table.size();
  for (std::size_t i = 0; i < slots; ++i) {
    const std::size_t index = (static_cast<std::size_t>(m_nextFree) + i) % slots;
    if (m_table[index].taken) continue;
    m_table[index] = {socket, true};
    m_nextFree = static_cast<std::int32_t>(index) + 1;
    ++m_registered;
    return static_cast<std::int32_t>(index);
  }
  return -1;
}

void NotificationHelper::Unregister(std::int32_t slot) {
  m_table[static_cast<std::size_t>(slot)] = {};
  --m_registered;
  const std::uint32_t number = SocketMessage(slot);
  m_loop.RemoveMessages(m_window, [number](const Message& message) { return message.number == number; });
  for (NotifyRecord& record : m_ring) {
    if (record.number == number) record.number = 0;
  }
}

// --- Notifications ---------------------------------------------------------------------------------------------------

bool NotificationHelper::Post(std::int32_t slot, std::int32_t wParam, std::int32_t lParam) {
  return m_loop.Post(
      {m_window, SocketMessage(slot), static_cast<std::uintptr_t>(static_cast<std::uint32_t>(wParam)), lParam});
}

void NotificationHelper::pvOnMessage(const Message& message) {
  if (message.number < kMessageResolved || message.number > kMessageLast) return;
  m_ring[m_write] = {message.number, static_cast<std::int32_t>(static_cast<std::uint32_t>(message.wParam)),
                     static_cast<std::int32_t>(message.lParam)};
  const std::size_t start = m_read;
  m_write = (m_write + 1) & (m_ring.size() - 1);
  m_read = m_write;
  NotifyProc(m_ring, start, m_write);
}

std::int32_t NotificationHelper::NotifyProc(std::span<const NotifyRecord> table, std::size_t start, std::size_t end) {
  for (std::size_t index = start; index != end; index = (index + 1) & (table.size() - 1)) {
    const NotifyRecord record = table[index];  // a handler may write over it
    pvNotify(record);
  }
  return 0;
}

void NotificationHelper::pvNotify(const NotifyRecord& record) {
  if (record.number == kMessageResolved) {
    // By index: a handler may enlarge the table.
    for (std::size_t slot = 0; slot < m_table.size(); ++slot) {
      std::shared_ptr<cAsyncSocket> socket = m_table[slot].socket.lock();
      if (socket != nullptr && cAsyncSocket::pvOnResolved(std::move(socket), record.wParam, record.lParam)) return;
    }
    return;
  }
  if (record.number < kMessageFirstSocket || record.number - kMessageFirstSocket >= m_table.size()) return;
  if (record.wParam == -1) return;
  m_notifier.Taken(record.wParam, record.lParam);
  std::shared_ptr<cAsyncSocket> socket = m_table[record.number - kMessageFirstSocket].socket.lock();
  if (socket != nullptr) cAsyncSocket::pvOnNotification(std::move(socket), record);
}

}  // namespace quenmark::sockets
