// One IPv4 socket whose readiness comes as events on the loop's thread.
//
// No operation throws; unless noted, one answers true on success and LastError says why it failed: a Winsock code, or
// kTimeoutResult. The text of addresses is dotted decimal; ports are 0 to 65535, times are in milliseconds. Everything
// happens on the thread of the loop; the loop must outlive the socket. A socket lives in a shared_ptr, so that it
// outlives the handler or wait it is dropped in.
//
// The Sync calls wait and let the loop's messages run meanwhile, the main tick left out. Notifications for this socket
// that arrive during a wait are kept; SyncProcessMsgQueue raises their events.
#pragma once

#include "platform/adapters.h"
#include "platform/code_page_convert.h"
#include "platform/host_resolver.h"
#include "platform/keep.h"
#include "platform/message_loop.h"
#include "platform/socket_api.h"
#include "platform/socket_notifier.h"
#include "sockets/async_socket_events.h"
#include "sockets/notification_helper.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quenmark::sockets {

inline constexpr std::int32_t kForcedRead = 0x4000;  // OnReceive without a look at what is waiting
inline constexpr std::int32_t kResolved = 0x8000;    // a name lookup has ended
// A host address with this value asks for no sender.
inline constexpr std::string_view kNoSender = "\x01";

class cAsyncSocket : public std::enable_shared_from_this<cAsyncSocket> {
 public:
  static std::shared_ptr<cAsyncSocket> New(platform::MessageLoop& loop, const SocketServices& services = {});
  // For make_shared only.
  explicit cAsyncSocket(std::shared_ptr<NotificationHelper> helper);
  // Closes the handle; cancels a lookup.
  ~cAsyncSocket();
  cAsyncSocket(const cAsyncSocket&) = delete;
  cAsyncSocket& operator=(const cAsyncSocket&) = delete;

  // The events go to whoever this points to and, while one is handled, keeps alive.
  void SetEvents(std::weak_ptr<AsyncSocketEvents> events) { m_events = std::move(events); }

  // --- Properties ----------------------------------------------------------------------------------------------------
  platform::SocketHandle SocketHandle() const { return m_handle; }
  std::int32_t LastError() const { return m_lastError; }
  void SetLastError(std::int32_t value) { m_lastError = value; }
  // An option of four bytes by its Winsock numbers; time-outs in ms. Reading answers 0 on failure.
  std::int32_t SockOpt(std::int32_t optionName, std::int32_t level = platform::kSolSocket);
  bool SetSockOpt(std::int32_t optionName, std::int32_t value, std::int32_t level = platform::kSolSocket);
  // Bytes that can be received now (of the next datagram, for a datagram socket), -1 on failure.
  std::int32_t AvailableBytes();
  // -1 while notifications are selected (kWsaInvalid), as they forbid blocking; 0 otherwise. Changes nothing.
  std::int32_t BlockingMode();
  std::int32_t LastSendBytes() const { return m_lastSendBytes; }
  bool HasPendingEvent() const;
  bool HasPendingResolve() const { return m_resolution != nullptr; }
  std::int32_t SlotIndex() const { return m_slot; }

  // --- Opening and closing -------------------------------------------------------------------------------------------
  bool Create(std::int32_t socketPort = 0, std::int32_t socketType = platform::kSockStream,
              std::int32_t eventMask = platform::kFdAll, std::string_view socketAddress = {});
  // Takes over a handle. On failure it stays the caller's.
  bool Attach(platform::SocketHandle socketHandle, std::int32_t eventMask = platform::kFdAll);
  // Gives the handle up, open; -1 when there is none.
  platform::SocketHandle Detach();
  // Takes a waiting connection into `connectedSocket`, which is made when it is empty. The peer's address is read with
  // GetPeerName.
  bool Accept(std::shared_ptr<cAsyncSocket>& connectedSocket, std::string_view socketAddress = {},
              std::int32_t socketPort = 0);
  bool Bind(std::string_view socketAddress, std::int32_t socketPort);
  bool Listen(std::int32_t connectionBacklog = 5);
  // Creates a stream socket when there is no handle. A name is looked up first: OnResolve, then OnConnect follow.
  bool Connect(std::string_view hostAddress, std::int32_t hostPort);
  bool ShutDown(std::int32_t how = platform::kShutSend);
  // Nothing to close is success.
  bool Close_();

  // --- Control -------------------------------------------------------------------------------------------------------
  bool AsyncSelect(std::int32_t eventMask);
  bool IOCtl(std::int32_t command, std::int32_t& argument);
  bool GetPeerName(std::string& peerAddress, std::int32_t& peerPort);
  bool GetSockName(std::string& socketAddress, std::int32_t& socketPort);
  bool GetLocalHost(std::string& hostName, std::string& hostAddress,
                    std::vector<platform::AdapterAddress>& adaptersInfo);
  static std::string GetErrorDescription(std::int32_t errorCode);
  // Raises a notification: at once, or as a message of its own.
  bool PostEvent(std::int32_t eventMask, bool immediate = false);

  // --- Transfer ------------------------------------------------------------------------------------------------------
  // Receive calls take one notification's worth without waiting. The sender is put into `hostAddress` and `hostPort`
  // when they are given, the address is not kNoSender, and the system knows it (datagrams).
  // Count of bytes, 0 at the end of the stream, -1 on failure. An empty buffer asks the system for nothing: it answers
  // 0 and lets OnReceive come again.
  std::int32_t Receive(std::span<std::uint8_t> buffer, std::string* hostAddress = nullptr,
                       std::int32_t* hostPort = nullptr, std::int32_t flags = 0);
  // All that is waiting (one datagram); empty when there is nothing.
  bool ReceiveArray(std::vector<std::uint8_t>& buffer, std::string* hostAddress = nullptr,
                    std::int32_t* hostPort = nullptr, std::int32_t flags = 0);
  std::string ReceiveText(std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr,
                          std::int32_t codePage = platform::kCodePageUtf8);
  // A datagram goes to the address when there is one; a stream socket has no use for it. A name is looked up first,
  // while messages run.
  std::int32_t Send(std::span<const std::uint8_t> data, std::string_view hostAddress = {}, std::int32_t hostPort = 0,
                    std::int32_t flags = 0);
  // Until everything is sent, or a call fails (kWsaWouldBlock included).
  bool SendArray(std::span<const std::uint8_t> buffer, std::string_view hostAddress = {}, std::int32_t hostPort = 0,
                 std::int32_t flags = 0);
  bool SendText(std::string_view text, std::string_view hostAddress = {}, std::int32_t hostPort = 0,
                std::int32_t codePage = platform::kCodePageUtf8);
  static std::string FromTextArray(std::span<const std::uint8_t> text, std::int32_t codePage);
  static std::vector<std::uint8_t> ToTextArray(std::string_view text, std::int32_t codePage);

  // --- Waiting calls -------------------------------------------------------------------------------------------------
  // Timeout 0: 5000 ms to connect, otherwise the socket's own time-out option, 5000 ms when that is 0.
  // A refused connection answers true too; its OnError comes from SyncProcessMsgQueue.
  bool SyncConnect(std::string_view hostAddress, std::int32_t hostPort, std::int32_t timeout = 0);
  // At least `needLen` UTF-16 units of text; whatever comes first when it is 0. On failure what came until then.
  std::string SyncReceiveText(std::int32_t needLen = 0, std::int32_t timeout = 0, std::string* hostAddress = nullptr,
                              std::int32_t* hostPort = nullptr, std::int32_t codePage = platform::kCodePageUtf8);
  // Exactly `needLen` bytes; whatever comes first when it is 0. On failure `buffer` holds what came until then.
  bool SyncReceiveArray(std::vector<std::uint8_t>& buffer, std::int32_t needLen = 0, std::int32_t timeout = 0,
                        std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr, std::int32_t flags = 0);
  // What comes first, its length in `received`. The buffer must stay valid while messages run.
  bool SyncReceive(std::span<std::uint8_t> buffer, std::int32_t& received, std::int32_t timeout = 0,
                   std::string* hostAddress = nullptr, std::int32_t* hostPort = nullptr, std::int32_t flags = 0);
  bool SyncSendText(std::string_view text, std::int32_t timeout = 0, std::string_view hostAddress = {},
                    std::int32_t hostPort = 0, std::int32_t codePage = platform::kCodePageUtf8);
  bool SyncSendArray(std::span<const std::uint8_t> buffer, std::int32_t timeout = 0, std::string_view hostAddress = {},
                     std::int32_t hostPort = 0, std::int32_t flags = 0);
  bool SyncSend(std::span<const std::uint8_t> data, std::int32_t timeout = 0, std::string_view hostAddress = {},
                std::int32_t hostPort = 0, std::int32_t flags = 0);
  // Until a notification of the mask arrives; 0 or less: for ever. kWsaInterrupted: cancelled or closed meanwhile,
  // kWsaNotConnected: the peer closed.
  bool SyncWaitForEvent(std::int32_t timeout, std::int32_t eventMask);
  // Ends the innermost wait.
  void SyncCancelWait() { m_waiting = false; }
  // Raises the events of the notifications that arrived during waits.
  void SyncProcessMsgQueue();
  // Queues those notifications again, before what has come since, for an owner who is not to be called now.
  void SyncRequeueMsgQueue();

 private:
  friend class NotificationHelper;

  struct Resolution {
    platform::LookupHandle lookup = 0;
    std::int32_t port = 0;
    platform::HostEntry host;
  };
  // One running SyncWaitForEvent of this socket, the innermost while it lives.
  struct Wait {
    explicit Wait(cAsyncSocket& waiting);
    ~Wait();
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;

    cAsyncSocket& socket;
    const std::uint64_t generation;
    Wait* const outer;
    const bool outerWaiting;
    const int exceptions;      // under way when it began
    std::int32_t arrived = 0;  // events seen since it began
  };

  using Keep = platform::Keep<cAsyncSocket>;
  friend Keep;

  // Results
  bool pvSucceed();
  bool pvFail(std::int32_t code);
  bool pvResult(const platform::SocketResult& result);
  // False, with its code set, when there is no handle.
  bool pvHasHandle();
  bool pvIsDatagram() const { return m_type != platform::kSockStream; }

  // Handle
  bool pvOpen(platform::SocketHandle handle, std::int32_t type, std::int32_t eventMask);
  void pvRelease();
  void pvInternalClose();
  void pvDropResolution();

  // Addresses
  bool pvToAddress(std::string_view hostAddress, std::int32_t port, bool allowLookup, platform::InetAddress& address);
  bool pvLookUp(std::string_view name, platform::InetAddress& address);
  bool pvDestination(std::string_view hostAddress, std::int32_t hostPort,
                     std::optional<platform::InetAddress>& destination);
  bool pvStartResolution(std::string_view name, std::int32_t port);
  bool pvConnectTo(const platform::InetAddress& address);

  // Events
  template <typename Handler, typename... Arguments>
  void pvRaise(Handler handler, Arguments&&... arguments);
  static void pvOnNotification(std::shared_ptr<cAsyncSocket> socket, const NotifyRecord& record);
  static bool pvOnResolved(std::shared_ptr<cAsyncSocket> socket, std::int32_t lookup, std::int32_t lParam);
  void pvEndResolution(std::int32_t error);
  void pvDispatch(std::int32_t lParam);
  void pvRaiseByEvent(std::int32_t event);
  void pvKeepForLater(const NotifyRecord& record);
  // Closed, or dropped by whoever owned it. Needs a Keep.
  bool pvClosedSince(std::uint64_t generation) const {
    return m_generation != generation || weak_from_this().use_count() == m_keeps;
  }

  // Transfer and waits
  platform::SocketResult pvReceiveOnce(std::span<std::uint8_t> buffer, std::string* hostAddress, std::int32_t* hostPort,
                                       std::int32_t flags);
  std::int32_t pvSendOnce(std::span<const std::uint8_t> data, const std::optional<platform::InetAddress>& destination,
                          std::int32_t flags);
  std::int32_t pvWait(Wait& wait, platform::MonotonicTime deadline, std::int32_t eventMask);
  bool pvTakeMessage(std::uint32_t number);
  bool pvLetOneMessageRun(const Wait& wait, const platform::Message& first, bool& leftStanding);
  std::int32_t pvTimeout(std::int32_t timeout, std::int32_t optionName);
  std::int32_t pvElapsed(platform::MonotonicTime since);

  platform::SocketHandle m_handle = platform::kInvalidSocket;
  std::shared_ptr<NotificationHelper> m_helper;
  std::int32_t m_slot = -1;
  std::int32_t m_lastError = 0;
  std::int32_t m_lastSendBytes = 0;
  std::unique_ptr<Resolution> m_resolution;
  bool m_waiting = false;
  std::vector<NotifyRecord> m_pendingEvents;  // first in, first out

  std::weak_ptr<AsyncSocketEvents> m_events;
  std::int32_t m_type = platform::kSockStream;
  std::uint64_t m_generation = 0;  // changes whenever the handle does
  Wait* m_waits = nullptr;         // the innermost
  long m_keeps = 0;                // references that are Keeps
};

}  // namespace quenmark::sockets
