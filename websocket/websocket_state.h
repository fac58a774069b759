// The inside of the component; see websocket.h. It outlives the component while one of its handlers runs.
#pragma once

#include "websocket/deflate.h"
#include "websocket/status_texts.h"
#include "websocket/websocket.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace quenmark::websocket {

inline constexpr StatusLine kStatusConnecting{"Connecting...", 0x00FFFF};
inline constexpr StatusLine kStatusConnected{"Connected!", 0x00FF00};
inline constexpr StatusLine kStatusClosed{"Closed", 0xFFFFFF};
inline constexpr StatusLine kStatusError{"Error", 0x0000FF};

inline constexpr double kDefaultChunkSize = 4096;

class WebsocketState : public std::enable_shared_from_this<WebsocketState> {
 public:
  WebsocketState(platform::MessageLoop& loop, WebsocketServices services, WebsocketEvents events);

  // Second half of construction: a transport needs someone to report to.
  void Start();
  // The owner let go: no event from now on.
  void Drop();

  // --- the public members ---
  void Connect(std::string_view url, std::string_view port, std::string_view protocols, std::string_view extensions,
               std::span<const std::string> headers);
  void ReConnect(std::string_view url);
  void Send(const SendData& data, bool noUtf8Conversion);
  void SendAdvanced(const SendData& data, std::int32_t opcode, const FrameOptions& options);
  void Ping(std::string_view data);
  void Disconnect();
  void ShutDown();
  void SetUseCompression(bool useCompression);
  void SetChunkSize(double chunkSize);
  std::string CodeText(std::int32_t code) const;

  std::int32_t readyState = kStateClosed;
  std::string protocols;
  std::string extensions;
  bool useCompression = false;
  double chunkSize = kDefaultChunkSize;
  int busy = 0;  // send and receive passes running
  StatusLine status = kStatusClosed;

  // --- events of the transport ---
  void OnTransportResolve(std::string_view ipAddress);
  void OnTransportConnect();
  void OnTransportReceive();
  void OnTransportSend();
  void OnTransportClose();
  void OnTransportError(std::int32_t errorCode, std::int32_t eventMask);
  // Only the present transport is heard, and not while it closes at the component's own wish.
  bool Hears(const TransportEvents& sink) const { return m_sink.get() == &sink && !m_closing && !m_dropped; }
  std::shared_ptr<Transport> TheTransport() const { return m_transport; }

 private:
  // The fragments of a message that is not complete yet.
  struct Assembly {
    bool active = false;
    std::uint8_t opcode = 0;
    bool rsv1 = false;
    std::string payload;
  };

  // Runs a handler. False when it dropped the component or began another connection: the caller then stops.
  template <typename Handler, typename... Arguments>
  bool Raise(const Handler& handler, Arguments&&... arguments) {
    if (m_dropped) return false;
    const std::uint64_t connection = m_connection;
    if (handler) handler(std::forward<Arguments>(arguments)...);
    return !m_dropped && m_connection == connection;
  }
  bool RaiseError(std::int32_t code, const std::string& description) {
    return Raise(m_events.OnError, code, description);
  }
  // The last event of a connection that this side then closes: what the server does while the handler waits is not
  // heard.
  template <typename Handler>
  void EndWith(const Handler& handler, std::int32_t code, const std::string& text) {
    m_sink.reset();
    if (Raise(handler, code, text)) CloseSocket();
  }
  void EndNormally() { EndWith(m_events.OnClose, kNormalClosure, CodeText(kNormalClosure)); }

  // websocket_connect.cpp
  void Reset();
  void MakeTransport();
  void Follow(std::string_view url);
  void Open();
  void FailConnect(const std::string& description);
  bool CollectAndValidate();
  bool HoldsEnds() const { return m_answered && readyState == kStateConnecting; }
  bool ApplyAnswer(AnswerVerdict verdict);
  bool AcceptUpgrade(AnswerVerdict& verdict);
  bool Redirect(const std::string& location);
  void CloseSocket();

  // websocket_receive.cpp
  void ReceivePass();
  bool DeliverBeforeTheEnd();
  bool TakeFrame();
  bool RefuseHeader(const FrameHeader& header);
  bool TakeWholeFrame(const FrameHeader& header, std::size_t end);
  bool BeginMessage(const FrameHeader& header, std::size_t end);
  bool TakeFragment(const FrameHeader& header, std::size_t end);
  bool TakeInterleaved(const FrameHeader& header, std::size_t end);
  bool FinishMessage();
  bool Inflate(BytesView payload, std::string& data);
  bool DeliverInflated(bool inflated, std::uint8_t opcode, std::string& data);
  bool Dispatch(std::uint8_t opcode, std::string_view data);
  void AnswerPing(std::string_view data);
  bool HandleClose(std::string_view payload);
  bool FailDelivery();
  void ForgetReceived();

  // websocket_send.cpp
  bool Compressing() const { return useCompression && DeflateNegotiated(extensions); }
  bool Compress(BytesView payload, Bytes& output);
  void SendMessage(BytesView payload, std::uint8_t msgType);
  bool SendFragments(BytesView& payload, std::uint8_t msgType);
  void SendFrame(std::uint8_t firstByte, BytesView payload);

  platform::MessageLoop& m_loop;
  const WebsocketServices m_services;
  const WebsocketEvents m_events;
  RandomRange m_random;

  std::shared_ptr<TransportEvents> m_sink;  // what the present transport reports to; none once it has ended
  std::shared_ptr<Transport> m_transport;
  std::uint64_t m_connection = 0;  // changes whenever another connection begins or everything is reset
  bool m_answered = false;         // the answer is being acted on: what comes while its handlers wait is kept for later
  std::function<void()> m_heldEnd;  // the end of the transport, when that came meanwhile
  bool m_closing = false;
  bool m_dropped = false;
  bool m_sendingClose = false;
  int m_redirects = 0;
  int m_closeAttempts = 0;  // Disconnect calls since the last forced close

  UrlFields m_url;
  std::string m_remoteIp;
  std::string m_extraHeaders;
  std::string m_key;

  std::unique_ptr<cZipArchive> m_compressor;
  ReceiveBuffer m_received;
  Assembly m_assembly;
  std::optional<std::string> m_unansweredPing;  // the latest, while too much waits to be sent
  std::string m_spareMessage;                   // memory for the next message that is inflated
  Bytes m_spareFrame;                           // memory for the next frame sent
};

// Counts a send or receive pass while it runs.
class BusyMark {
 public:
  explicit BusyMark(int& count) : m_count(count) { ++m_count; }
  ~BusyMark() { --m_count; }
  BusyMark(const BusyMark&) = delete;
  BusyMark& operator=(const BusyMark&) = delete;

 private:
  int& m_count;
};

}  // namespace quenmark::websocket
