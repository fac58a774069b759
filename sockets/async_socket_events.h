// What an asynchronous socket tells its owner.
#pragma once

#include <cstdint>
#include <string_view>

namespace quenmark::sockets {

class cAsyncSocket;

// Handlers may call back into the socket, close it and drop the last reference to it. They must not throw.
// Event masks are the kFd… values of platform/socket_notifier.h and kForcedRead, kResolved of async_socket.h.
class AsyncSocketEvents {
 public:
  virtual ~AsyncSocketEvents() = default;

  virtual void OnResolve(cAsyncSocket& /*socket*/, std::string_view /*ipAddress*/) {}
  virtual void OnAccept(cAsyncSocket& /*socket*/) {}
  virtual void OnClose(cAsyncSocket& /*socket*/) {}
  virtual void OnConnect(cAsyncSocket& /*socket*/) {}
  virtual void OnReceive(cAsyncSocket& /*socket*/) {}
  virtual void OnSend(cAsyncSocket& /*socket*/) {}
  virtual void OnError(cAsyncSocket& /*socket*/, std::int32_t /*errorCode*/, std::int32_t /*eventMask*/) {}
  // Messages wait during a synchronous wait. Left unhandled, the wait dispatches one of them.
  virtual void OnMessagePending(cAsyncSocket& /*socket*/, bool& /*handled*/) {}
  // Setting `cancel` keeps back the event itself and AfterNotify.
  virtual void BeforeNotify(cAsyncSocket& /*socket*/, std::int32_t /*eventMask*/, bool& /*cancel*/) {}
  virtual void AfterNotify(cAsyncSocket& /*socket*/, std::int32_t /*eventMask*/) {}
};

}  // namespace quenmark::sockets
