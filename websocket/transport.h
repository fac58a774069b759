// What the component needs of a connection. One object serves one connection.
#pragma once

#include "websocket/frame.h"
#include "websocket/receive_buffer.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::websocket {

// Called by the transport on the loop's thread. Inside any of these the transport may be closed, and the component may
// let go of it; the transport sees to it that it lives until the call returns.
class TransportEvents {
 public:
  virtual ~TransportEvents() = default;

  virtual void OnResolve(std::string_view ipAddress) = 0;
  // The connection is up: with TLS, after the handshake and the check of the certificate.
  virtual void OnConnect() = 0;
  // Data is waiting. Raised again while a read leaves some behind.
  virtual void OnReceive() = 0;
  // What waited to be sent has gone, or part of it.
  virtual void OnSend() = 0;
  // The peer closed; everything it had sent has been announced by OnReceive before.
  virtual void OnClose() = 0;
  virtual void OnError(std::int32_t errorCode, std::int32_t eventMask) = 0;
};

class Transport {
 public:
  virtual ~Transport() = default;

  // Begins to connect; a name is resolved first. Events tell the rest. False when that failed at once.
  virtual bool Connect(const std::string& host, std::int32_t port, bool useTls, std::uint32_t localFeatures) = 0;

  // No connection that data could be sent on: without TLS no socket, with TLS a closed engine.
  virtual bool IsClosed() const = 0;
  // Whether there is a socket handle.
  virtual bool HasSocket() const = 0;

  // Bytes that Receive would give, at least; 0 when nothing is known to wait.
  virtual std::int64_t AvailableBytes() = 0;
  // Appends waiting bytes to the buffer: at most `atMost` where the transport can choose, else what it has decrypted.
  // False when reading fails.
  virtual bool Receive(ReceiveBuffer& buffer, std::size_t atMost) = 0;

  // Takes all the bytes or fails. What the socket does not take now is kept and sent, in order, when it does.
  virtual bool SendArray(BytesView bytes) = 0;
  virtual bool SendText(std::string_view text) = 0;
  // Bytes that were taken and wait for the socket, at most; OnSend follows while there are any.
  virtual std::size_t UnsentBytes() const = 0;

  // The three steps of closing: close_notify, the sending side, the socket itself.
  virtual void Close_() = 0;
  virtual void ShutDown() = 0;
  virtual void CloseSocket() = 0;

  virtual std::string RemoteHostName() const = 0;
  // The text of a socket or TLS error number, empty for an unknown one.
  virtual std::string GetErrorDescription(std::int32_t errorCode) const = 0;
};

// Makes an unconnected transport that raises its events on `events` as long as that object exists.
using TransportFactory = std::function<std::shared_ptr<Transport>(std::weak_ptr<TransportEvents> events)>;

}  // namespace quenmark::websocket
