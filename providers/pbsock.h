// One HTTPS request made by hand over the socket control, and repeated through the platform's HTTP client when the
// socket fails. The programming model is that of the client: hOpen, setRequestHeader, hSend.
#pragma once

#include "providers/context.h"
#include "tls/peer_validation.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::providers {

// An instance serves one request. Destroying it, also in its own CloseEvent, ends the request; nothing is raised then.
class PBsock {
 public:
  // Raised once: the status (0 when there is none) and the body as received, in Windows-1252, transfer codings not
  // decoded. The fallback gives status and text as the HTTP client does.
  using CloseEvent = std::function<void(std::int32_t& statusCode, std::string& body)>;

  // The context must outlive the requester.
  PBsock(Context& context, std::shared_ptr<tls::CertificateServices> certificates, CloseEvent closeEvent);
  ~PBsock();
  PBsock(const PBsock&) = delete;
  PBsock& operator=(const PBsock&) = delete;

  // The host of the address must be followed by "/". Whatever the scheme, TLS is used; the port is 443 unless the
  // address has one. `asynchronous` means nothing.
  void hOpen(std::string_view method, std::string_view address, bool asynchronous = true);
  // CR, LF or NUL in name or value is a RunTimeError.
  void setRequestHeader(std::string_view name, std::string_view value);
  // The request begins after this has returned. Data is sent form-encoded but for "=" and "&". A second call before
  // that replaces the data; a later one does nothing.
  void hSend(std::string_view data = {});

 private:
  class Request;
  std::shared_ptr<Request> m_request;  // outlives its handlers
};

// An answer taken apart: the number behind "HTTP/1.1 ", 0 without it, and what follows the first empty line, "" without
// one.
struct RawAnswer {
  std::int32_t statusCode = 0;
  std::string body;
};
RawAnswer ParseRawAnswer(std::string received);

// Every character but digits and the letters A to Z as "%" and its Windows-1252 code; "=" and "&" stay.
std::string FormEncoded(std::string_view data);

}  // namespace quenmark::providers
