#include "platform/curl_driver.h"

#include "platform/http_address.h"
#include "platform/run_time_error.h"
#include "platform/stop_signals.h"
#include "platform/trust_anchors.h"

#include <algorithm>
#include <chrono>

namespace quenmark::platform {
namespace {

constexpr long kLargestHead = 512L * 1024;  // bytes
constexpr long kIdleConnections = 16;

CURLM* MakeMulti() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* multi = curl_multi_init();
  if (multi == nullptr) throw RunTimeError(7, "No memory for HTTP transfers");
  return multi;
}

}  // namespace

CurlDriver::CurlDriver(MessageLoop& loop)
    : m_loop(loop), m_trustAnchors(HasOwnTrustAnchors() ? LoadTrustAnchors() : std::string()), m_multi(MakeMulti()) {
  IgnoreBrokenPipes();
  curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &CurlDriver::SocketChanged);
  curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &CurlDriver::TimerChanged);
  curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(m_multi, CURLMOPT_MAXCONNECTS, kIdleConnections);
}

CurlDriver::~CurlDriver() {
  for (const auto& [handle, transfer] : m_transfers) curl_multi_remove_handle(m_multi, handle);
  curl_multi_cleanup(m_multi);  // unwatches the sockets that it closes
  for (const auto& [socket, watch] : m_watches) m_loop.Unwatch(watch);
  m_loop.CancelCall(m_timer);
  curl_global_cleanup();
}

void CurlDriver::Prepare(CURL* handle, const std::string& address) const {
  curl_easy_reset(handle);
  curl_easy_setopt(handle, CURLOPT_URL, address.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  curl_easy_setopt(handle, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  // libcurl 7.88 stalls on a request head over TLS that does not fit into its upload buffer; thousands of symbols in
  // one address make a large one.
  curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, kLargestHead);
  // A name look-up cannot be interrupted; without this, giving up on one would block until it ends by itself.
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
  if (IsLoopbackAddress(address)) curl_easy_setopt(handle, CURLOPT_PROXY, "");
  if (m_trustAnchors.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, kSystemTrustAnchors);
    curl_easy_setopt(handle, CURLOPT_CAPATH,
                     nullptr);  // with a folder of anchors libcurl parses them for each connection
  } else {
    curl_blob anchors{const_cast<char*>(m_trustAnchors.data()), m_trustAnchors.size(), CURL_BLOB_NOCOPY};
    curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &anchors);
  }
}

void CurlDriver::Start(CURL* handle, CurlTransfer& transfer) {
  m_transfers[handle] = &transfer;
  if (!m_outside) m_outside.emplace(m_loop);
  if (curl_multi_add_handle(m_multi, handle) != CURLM_OK) {
    Release(handle);
    throw RunTimeError(7, "No memory for an HTTP transfer");
  }
}

void CurlDriver::Stop(CURL* handle) {
  if (!m_transfers.contains(handle)) return;
  curl_multi_remove_handle(m_multi, handle);
  Release(handle);
}

void CurlDriver::Release(CURL* handle) {
  m_transfers.erase(handle);
  if (m_transfers.empty()) m_outside.reset();
}

int CurlDriver::SocketChanged(CURL*, curl_socket_t socket, int what, void* driver, void*) {
  static_cast<CurlDriver*>(driver)->WatchSocket(socket, what);
  return 0;
}

int CurlDriver::TimerChanged(CURLM*, long milliseconds, void* driver) {
  auto& self = *static_cast<CurlDriver*>(driver);
  if (milliseconds < 0) {
    self.m_loop.CancelCall(self.m_timer);
    return 0;
  }
  const MonotonicTime when = self.m_loop.TheClock().Monotonic() + std::chrono::milliseconds{milliseconds};
  self.m_timer = self.m_loop.CallAt(self.m_timer, when, [&self] { self.Act(CURL_SOCKET_TIMEOUT, 0); });
  return 0;
}

void CurlDriver::WatchSocket(curl_socket_t socket, int what) {
  const auto found = m_watches.find(socket);
  if (what == CURL_POLL_REMOVE) {
    if (found == m_watches.end()) return;
    m_loop.Unwatch(found->second);
    m_watches.erase(found);
    return;
  }
  const Readiness interest{.read = (what & CURL_POLL_IN) != 0, .write = (what & CURL_POLL_OUT) != 0};
  if (found != m_watches.end()) {
    m_loop.ChangeWatch(found->second, interest);
    return;
  }
  m_watches[socket] = m_loop.Watch(socket, interest, Trigger::kLevel, [this, socket](Readiness ready) {
    Act(socket, (ready.read ? CURL_CSELECT_IN : 0) | (ready.write ? CURL_CSELECT_OUT : 0) |
                    (ready.error ? CURL_CSELECT_ERR : 0));
  });
}

void CurlDriver::Act(curl_socket_t socket, int events) {
  int running = 0;
  curl_multi_socket_action(m_multi, socket, events, &running);
  Harvest();
}

void CurlDriver::Harvest() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* const handle = message->easy_handle;
    const CURLcode result = message->data.result;
    CurlTransfer* const transfer = m_transfers.at(handle);
    curl_multi_remove_handle(m_multi, handle);  // the message is gone with it
    Release(handle);
    transfer->Finished(result);
  }
}

}  // namespace quenmark::platform
