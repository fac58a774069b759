// What a TLS socket tells its owner.
#pragma once

#include "tls/algorithms.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace quenmark::tls {

class cTlsSocket;

// Handlers may call back into the socket, close it and drop the last reference to it. They must not throw.
// Event masks are the kFd… values of platform/socket_notifier.h.
class TlsSocketEvents {
 public:
  virtual ~TlsSocketEvents() = default;

  virtual void OnResolve(cTlsSocket& /*socket*/, std::string_view /*ipAddress*/) {}
  virtual void OnAccept(cTlsSocket& /*socket*/) {}
  // Once per connection: after the peer's close_notify, a failed handshake or the end of the transport.
  virtual void OnClose(cTlsSocket& /*socket*/) {}
  // With TLS: the handshake is complete and the peer's chain is valid.
  virtual void OnConnect(cTlsSocket& /*socket*/) {}
  virtual void OnReceive(cTlsSocket& /*socket*/) {}
  virtual void OnSend(cTlsSocket& /*socket*/) {}
  // The number of LastError; the mask of the operation that met it.
  virtual void OnError(cTlsSocket& /*socket*/, std::int32_t /*errorCode*/, std::int32_t /*eventMask*/) {}
  virtual void OnMessagePending(cTlsSocket& /*socket*/, bool& /*handled*/) {}
  // Setting `handled` keeps back the event itself and AfterNotify.
  virtual void BeforeNotify(cTlsSocket& /*socket*/, std::int32_t /*eventMask*/, bool& /*handled*/) {}
  virtual void AfterNotify(cTlsSocket& /*socket*/, std::int32_t /*eventMask*/) {}
  // The server asks for a certificate, and nothing local fits. `issuers`: distinguished names in DER. Set `confirmed`
  // after setting the local certificates and key of the socket that connects.
  virtual void OnClientCertificate(cTlsSocket& /*socket*/, const std::vector<Bytes>& /*issuers*/, bool& /*confirmed*/) {
  }
};

}  // namespace quenmark::tls
