// A socket with the programming model of the platform's Winsock control: TCP, UDP, and TLS over TCP.
//
// A method that fails raises Error and then, unless the handler has set `cancelDisplay`, throws a RunTimeError; what
// fails on its own only raises Error. Times are in milliseconds. Everything happens on the thread of the loop, which
// must outlive the control. A control lives in a shared_ptr, so that it outlives the handler it is dropped in; after a
// close or drop in a handler nothing more of that connection is raised.
//
// GetData and PeekData may wait, and let the loop's messages run meanwhile (the main tick left out). While one of them
// waits no DataArrival of this control is raised; what is left afterwards raises one.
#pragma once

#include "platform/keep.h"
#include "platform/message_loop.h"
#include "sockets/property_bag.h"
#include "tls/tls_socket.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace quenmark::sockets {

// Values of State; 6 (connecting) is never set.
enum WinsockState : std::int32_t {
  kStateClosed = 0,
  kStateOpen = 1,
  kStateListening = 2,
  kStateConnectionPending = 3,
  kStateResolvingHost = 4,
  kStateHostResolved = 5,
  kStateConnected = 7,
  kStateClosing = 8,
  kStateError = 9,
};

enum WinsockProtocol : std::int32_t { kProtocolTcp = 0, kProtocolUdp = 1, kProtocolTls = 2 };

// A value as callers hand it in and out. Its type numbers are those of the platform: 0, 8, 8209, 3, 5, 11.
using WinsockData = std::variant<std::monostate, std::string, tls::Bytes, std::int32_t, double, bool>;
inline constexpr std::int32_t kTypeOfVariable = 0;
inline constexpr std::int32_t kTypeText = 8;
inline constexpr std::int32_t kTypeBytes = 8209;

// Handlers; any may be left empty. They may call anything and must not throw.
struct WinsockEvents {
  std::function<void()> Connect;
  std::function<void()> Close;
  // Accept takes the connection, on this or another control; otherwise it is closed when the handler returns.
  std::function<void(std::int32_t requestId)> ConnectionRequest;
  std::function<void(std::int32_t bytesTotal)> DataArrival;
  // Bytes sent of what the send buffer has held since it was last empty, and bytes still in it.
  std::function<void(std::int64_t bytesSent, std::int64_t bytesRemaining)> SendProgress;
  // Everything is with the system.
  std::function<void()> SendComplete;
  std::function<void(std::int16_t number, const std::string& description, std::int32_t scode, const std::string& source,
                     const std::string& helpFile, std::int32_t helpContext, bool& cancelDisplay)>
      Error;
  // For the host: a persisted property has been written.
  std::function<void(std::string_view name)> PropertyChanged;
};

class ctxWinsock : public std::enable_shared_from_this<ctxWinsock>, private tls::TlsSocketEvents {
 public:
  // `certificates` judges servers and loads the certificates of listeners.
  static std::shared_ptr<ctxWinsock> New(platform::MessageLoop& loop,
                                         std::shared_ptr<tls::CertificateServices> certificates,
                                         const SocketServices& services = {});
  // For make_shared only.
  ctxWinsock(platform::MessageLoop& loop, std::shared_ptr<tls::CertificateServices> certificates,
             SocketServices services);
  ~ctxWinsock() override;
  ctxWinsock(const ctxWinsock&) = delete;
  ctxWinsock& operator=(const ctxWinsock&) = delete;

  void SetEvents(WinsockEvents events) { m_events = std::make_shared<const WinsockEvents>(std::move(events)); }

  // --- Properties ----------------------------------------------------------------------------------------------------
  // The ports of the socket where it has some, else the values set. Another local port or protocol closes the
  // connection; another remote host or port discards what waits to be sent.
  std::int32_t LocalPort() const;
  void LocalPort(std::int32_t value);
  std::int32_t Protocol() const { return m_protocol; }
  void Protocol(std::int32_t value);
  const std::string& RemoteHost() const { return m_remoteHost; }
  void RemoteHost(std::string_view value);
  std::int32_t RemotePort() const;
  void RemotePort(std::int32_t value);
  // Of the waits in GetData and PeekData.
  std::int32_t Timeout() const { return m_timeout; }
  void Timeout(std::int32_t value);
  std::int32_t State() const { return m_state; }
  platform::SocketHandle SocketHandle();
  std::string LocalHostName();
  std::string LocalIP();
  std::string RemoteHostIP();
  std::int32_t SockOpt(std::int32_t optionName, std::int32_t level = platform::kSolSocket);
  void SockOpt(std::int32_t optionName, std::int32_t level, std::int32_t value);

  // LocalPort, Protocol, RemoteHost, RemotePort and Timeout as they are kept between sessions.
  void ReadProperties(PropertyBag& bag);
  void WriteProperties(PropertyBag& bag) const;

  // --- Methods -------------------------------------------------------------------------------------------------------
  // An empty host and port 0 stand for the properties. `localFeatures` goes to the TLS socket.
  void Connect(std::string_view remoteHost = {}, std::int32_t remotePort = 0, std::uint32_t localFeatures = 0);
  // After Bind. The arguments are those of cTlsSocket::InitServerTls, for protocol 2.
  void Listen(std::string_view certFiles = {}, std::string_view pkcs12File = {}, std::string_view password = {},
              const std::vector<tls::Bytes>& certificates = {}, tls::BytesView privateKey = {});
  // Takes the connection of the ConnectionRequest in progress, or else a second handle of that socket. State stays 0
  // until the connection's first event, which raises Connect; what SendData is given before that is kept. What reads of
  // the request's handler have left is told like any arrival; a TLS connection that failed in one is just closed.
  void Accept(std::int32_t requestId);
  void Bind(std::int32_t localPort = 0, std::string_view localIp = {});
  // Text goes out in Windows-1252.
  void SendData(const WinsockData& data);
  // All that is there for maxLen < 0, exactly maxLen bytes otherwise (0: whatever comes first), waited for up to
  // Timeout; fewer when the time is up or the connection ends. What PeekData has read comes first, and alone.
  void GetData(WinsockData& data, std::int32_t type = kTypeOfVariable, std::int32_t maxLen = -1);
  // Reads on from the socket in the same way and keeps what it returns for GetData. A change of State discards it.
  void PeekData(WinsockData& data, std::int32_t type = kTypeOfVariable, std::int32_t maxLen = -1);
  void Close_();

 private:
  using Keep = platform::Keep<ctxWinsock>;
  friend Keep;
  struct IncomingSlot;
  struct Fault {
    std::int32_t number = 0;
    std::string description;
    std::int32_t scode = 0;
    std::string source;
  };

  // The events of the TLS socket
  void OnResolve(tls::cTlsSocket& socket, std::string_view ipAddress) override;
  void OnAccept(tls::cTlsSocket& socket) override;
  void OnClose(tls::cTlsSocket& socket) override;
  void OnConnect(tls::cTlsSocket& socket) override;
  void OnReceive(tls::cTlsSocket& socket) override;
  void OnSend(tls::cTlsSocket& socket) override;
  void OnError(tls::cTlsSocket& socket, std::int32_t errorCode, std::int32_t eventMask) override;

  template <typename... Parameters, typename... Arguments>
  void pvRaise(std::function<void(Parameters...)> WinsockEvents::*event, Arguments&&... arguments) {
    const std::shared_ptr<const WinsockEvents> events = m_events;
    if (events != nullptr && (*events).*event) ((*events).*event)(std::forward<Arguments>(arguments)...);
  }
  // Another socket, or dropped by the owner. Needs a Keep.
  bool pvGoneSince(std::uint64_t generation) const;

  void pvSetState(std::int32_t state, bool keepsUnsent = false);
  void pvRaiseConnect();
  void pvClearSendBuffer();

  // Socket
  std::shared_ptr<tls::cTlsSocket> pvSocket();
  void pvAdopt(std::shared_ptr<tls::cTlsSocket> socket);
  void pvRelease();
  void pvEndConnection();

  // Faults
  Fault pvFaultOf(std::int32_t code) const;
  static Fault pvFaultOf(const tls::SocketError& error);
  void pvReport(const Fault& fault, bool raise);

  // Transfer
  void pvSendStep();
  void pvSendLoop(std::uint64_t generation);
  std::int32_t pvSendOnce(tls::cTlsSocket& socket);
  bool pvEverythingIsOut(const tls::cTlsSocket& socket) const;
  static std::int32_t pvWantedType(const WinsockData& data, std::int32_t type, std::string_view routine);
  static void pvPut(WinsockData& data, std::int32_t type, tls::Bytes bytes);
  tls::Bytes pvReadSocket(std::int32_t maxLen);
  void pvPostAfterRead();
  void pvAfterRead();

  platform::MessageLoop& m_loop;
  std::shared_ptr<tls::CertificateServices> m_certificates;
  SocketServices m_services;
  std::shared_ptr<const WinsockEvents> m_events;
  std::shared_ptr<IncomingSlot> m_shared;  // of all controls of the loop

  std::int32_t m_state = kStateClosed;
  std::int32_t m_localPort = 0;
  std::int32_t m_protocol = kProtocolTcp;
  std::string m_remoteHost;
  std::int32_t m_remotePort = 0;
  std::int32_t m_timeout;

  tls::Bytes m_receiveBuffer;
  tls::Bytes m_sendBuffer;
  std::size_t m_sendPosition = 0;   // first unsent byte of it
  std::uint64_t m_sendEpoch = 0;    // changes when it is emptied
  std::int64_t m_sendDropped = 0;   // bytes sent and no longer in it
  std::int64_t m_tlsSubmitted = 0;  // bytes the TLS socket has taken
  int m_sending = 0;                // running send steps, one at most
  std::uint64_t m_reports = 0;      // errors reported

  std::shared_ptr<tls::cTlsSocket> m_incoming;  // while its ConnectionRequest runs
  std::shared_ptr<tls::cTlsSocket> m_socket;
  bool m_accepted = false;       // the socket came by Accept
  bool m_connectRaised = false;  // for the socket
  bool m_closeWaits = false;     // the socket has ended and Close is still to be raised

  std::uint64_t m_generation = 0;  // changes with the socket
  long m_keeps = 0;                // references that are Keeps, or an event's
  int m_reads = 0;                 // running GetData and PeekData calls
  platform::WindowId m_window = 0;
};

}  // namespace quenmark::sockets
