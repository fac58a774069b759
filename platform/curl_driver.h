// libcurl's multi interface on the message loop: the transfers of all its users at once, on one set of connections.
#pragma once

#include "platform/message_loop.h"

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace quenmark::platform {

// The owner of one transfer. Both its callbacks into libcurl's options and Finished run while the loop looks at the
// descriptors: they note results and must not run the feeder's code.
class CurlTransfer {
 public:
  // Called once for a started transfer that was not stopped. The handle can be started again afterwards.
  virtual void Finished(CURLcode result) = 0;

 protected:
  ~CurlTransfer() = default;
};

struct CurlHandleCloser {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlHandle = std::unique_ptr<CURL, CurlHandleCloser>;

class CurlDriver {
 public:
  // Broken pipes are ignored from here on, as libcurl's users have to see to it themselves. The loop must outlive the
  // driver, the driver every handle that it has prepared.
  explicit CurlDriver(MessageLoop& loop);
  ~CurlDriver();
  CurlDriver(const CurlDriver&) = delete;
  CurlDriver& operator=(const CurlDriver&) = delete;

  MessageLoop& Loop() const { return m_loop; }

  // Resets the handle and sets what holds for every request: http and https alone, TLS 1.2 at least, the trust anchors,
  // no signals, no redirects of libcurl's own. A loopback host is reached without a proxy.
  void Prepare(CURL* handle, const std::string& address) const;
  // The transfer must stay where it is until it is finished or stopped.
  void Start(CURL* handle, CurlTransfer& transfer);
  // Ends a transfer without a call of Finished. Does nothing when it is not running. Not from within a callback.
  void Stop(CURL* handle);

 private:
  static int SocketChanged(CURL* handle, curl_socket_t socket, int what, void* driver, void* unused);
  static int TimerChanged(CURLM* multi, long milliseconds, void* driver);

  void WatchSocket(curl_socket_t socket, int what);
  void Act(curl_socket_t socket, int events);
  void Harvest();
  void Release(CURL* handle);

  MessageLoop& m_loop;
  const std::string m_trustAnchors;  // PEM; empty: the system's alone, which libcurl then keeps parsed
  CURLM* const m_multi;
  std::unordered_map<curl_socket_t, WatchId> m_watches;
  std::unordered_map<CURL*, CurlTransfer*> m_transfers;
  std::optional<MessageLoop::OutsideWork> m_outside;  // while any transfer runs
  WatchId m_timer = 0;
};

}  // namespace quenmark::platform
