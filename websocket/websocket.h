// The WebSocket client (RFC 6455, permessage-deflate of RFC 7692): one object, one connection at a time.
//
// All calls and events happen on the thread of the loop. Nothing is thrown: every failure is an OnError or OnClose
// event with a close code and a text. Handlers may call anything, also block in the loop or destroy the object;
// messages that arrive while a handler blocks are raised from within it, in the order of arrival.
#pragma once

#include "platform/message_loop.h"
#include "websocket/handshake.h"
#include "websocket/random_range.h"
#include "websocket/transport.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quenmark::websocket {

// What the component takes from below.
struct WebsocketServices {
  TransportFactory makeTransport;
  RandomSource random;
  Sha1 sha1;
};

// A received message, valid until the handler returns.
class MessageData {
 public:
  explicit MessageData(std::string_view data) : m_data(data) {}

  // Well-formed UTF-8 when the message type is 1.
  std::string_view Text() const { return m_data; }
  BytesView AsBytes() const { return {reinterpret_cast<const std::uint8_t*>(m_data.data()), m_data.size()}; }

 private:
  std::string_view m_data;
};

// Handlers; any may be left empty.
struct WebsocketEvents {
  // Type 1 is text, 2 bytes; 3 to 7 and 11 to 15 are the frame's opcode, with its bytes as received.
  std::function<void(const MessageData& data, std::int32_t msgType)> OnMessage;
  std::function<void(const std::string& remoteHost, const std::string& remoteIp, const std::string& remotePort)>
      OnConnect;
  // The server redirected; the component connects to the new address when the handler returns.
  std::function<void(const std::string& newUrl)> OnReConnect;
  std::function<void(std::int32_t code, const std::string& reason)> OnClose;
  std::function<void(std::int32_t code, const std::string& description)> OnError;
  std::function<void(const std::string& data)> OnPong;
  // During fragmented sends, counted in payload bytes as sent. Setting `cancel` ends the send at once: the peer is left
  // with an unfinished message.
  std::function<void(std::int32_t bytesSent, std::int32_t bytesTotal, bool& cancel)> onProgress;
};

// What is to be sent: text, bytes, or something that is neither and is refused. Refers to the caller's memory, which
// must stay until the call returns.
class SendData {
 public:
  enum class Kind { kUnsupported, kString, kByteArray };

  SendData() = default;
  SendData(std::string_view text) : m_kind(Kind::kString), m_text(text) {}
  SendData(const std::string& text) : SendData(std::string_view(text)) {}
  SendData(const char* text) : SendData(std::string_view(text)) {}
  SendData(BytesView bytes) : m_kind(Kind::kByteArray), m_bytes(bytes) {}
  SendData(const Bytes& bytes) : SendData(BytesView(bytes)) {}

  Kind What() const { return m_kind; }
  std::string_view Text() const { return m_text; }
  BytesView AsBytes() const { return m_bytes; }

 private:
  Kind m_kind = Kind::kUnsupported;
  std::string_view m_text;
  BytesView m_bytes;
};

// How SendAdvanced builds its frame.
struct FrameOptions {
  bool utf8Encode = false;  // text as UTF-8; otherwise as UTF-16LE
  bool compress = false;
  bool fin = true;
  bool rsv1 = false;  // without effect when compressed
  bool rsv2 = false;
  bool rsv3 = false;
};

// Values of readyState.
inline constexpr std::int32_t kStateClosed = 0;
inline constexpr std::int32_t kStateOpen = 1;
inline constexpr std::int32_t kStateConnecting = 2;
inline constexpr std::int32_t kStateClosing = 3;  // closing or failed

// The one-line status: a text and its colour, 0x00BBGGRR.
struct StatusLine {
  std::string_view text;
  std::uint32_t colour = 0;
};

class WebsocketState;

class Websocket {
 public:
  Websocket(platform::MessageLoop& loop, WebsocketServices services, WebsocketEvents events);
  // Closes the socket without a close frame; no event follows.
  ~Websocket();
  Websocket(const Websocket&) = delete;
  Websocket& operator=(const Websocket&) = delete;

  // Starts over with a new connection. `port` is used when the address has none. Each of `headers` is a header line
  // without its line end.
  void Connect(std::string_view url, std::string_view port = {}, std::string_view protocols = {},
               std::string_view extensions = {}, std::span<const std::string> headers = {});
  // Connects again with what the last Connect was given; an empty address means the last one. The port stays when the
  // address has none.
  void ReConnect(std::string_view url = {});

  // Text as a text message, bytes as a binary one, in fragments of ChunkSize; `noUtf8Conversion` sends text as a binary
  // message of UTF-16LE.
  void Send(const SendData& data, bool noUtf8Conversion = false);
  // One frame, built as asked. Opcodes are 0 to 15.
  void SendAdvanced(const SendData& data, std::int32_t opcode, const FrameOptions& options);
  void Ping(std::string_view data = {});

  // Sends a close frame and leaves the closing to the server; a second call closes the socket.
  void Disconnect();
  // Closes at once, without close frame or event.
  void ShutDown();

  std::int32_t readyState() const;
  // While a send or a receive pass is running.
  bool isBusy() const;
  // What is asked of the server; once connected, what it answered.
  const std::string& Protocols() const;
  const std::string& Extensions() const;
  bool UseCompression() const;
  void SetUseCompression(bool useCompression);
  // Bytes of a fragment frame, header included; default 4096.
  double ChunkSize() const;
  // Above 0x7FFFFFFF: an OnError event, the old value stays. Below 126, Send falls back to the default.
  void SetChunkSize(double chunkSize);
  const StatusLine& Status() const;

  std::string GetStatusCodeText(std::int32_t code) const;

 private:
  std::shared_ptr<WebsocketState> m_state;
};

}  // namespace quenmark::websocket
