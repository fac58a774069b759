#include "providers/pbsock.h"

#include "platform/code_page_convert.h"
#include "platform/http_address.h"
#include "platform/run_time_error.h"
#include "providers/get_between.h"
#include "providers/host_port.h"
#include "providers/text_pieces.h"
#include "sockets/ctx_winsock.h"

#include <charconv>
#include <optional>
#include <utility>

namespace quenmark::providers {

using platform::IgnoreErrors;
using sockets::ctxWinsock;

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kEndOfText = "||!!@@";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::int32_t kSecurePort = 443;
constexpr std::uint32_t kAllTlsVersions = 15;
constexpr auto kStartDelay = 1ms;
constexpr auto kLongestWait = 30s;  // for a close or an error
constexpr auto kPauseAfterFallback = 100ms;

std::string WithEnd(std::string_view text) {
  return std::string(text).append(kEndOfText);
}

// The digits at the beginning, 0 when there are none or too many.
std::int32_t LeadingInteger(std::string_view text) {
  std::int32_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

RawAnswer ParseRawAnswer(std::string received) {
  RawAnswer answer;
  answer.statusCode = LeadingInteger(GetBetween(received, "HTTP/1.1 ", " "));
  received += kEndOfText;
  answer.body = GetBetween(received, "\r\n\r\n", kEndOfText);
  return answer;
}

std::string FormEncoded(std::string_view data) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const std::uint8_t code : platform::BytesFromText(data, platform::kCodePageSystem)) {
    const bool plain = (code >= '0' && code <= '9') || (code >= 'A' && code <= 'Z') || (code >= 'a' && code <= 'z') ||
                       code == '=' || code == '&';
    if (plain) {
      encoded += static_cast<char>(code);
    } else {
      encoded += {'%', kDigits[code >> 4], kDigits[code & 15]};
    }
  }
  return encoded;
}

class PBsock::Request : public std::enable_shared_from_this<Request> {
 public:
  Request(Context& context, std::shared_ptr<tls::CertificateServices> certificates, CloseEvent closeEvent)
      : m_context(context),
        m_closeEvent(std::move(closeEvent)),
        m_answerLimit(ReadHttpLimits(context.store).answerLimit),
        Winsock10(ctxWinsock::New(context.loop, std::move(certificates))),
        Timer1(context.loop, kStartDelay, [this] { Timer1_Timer(); }),
        m_tooLate(context.loop, kLongestWait, [this] { Winsock10_Error(); }) {
    sockets::WinsockEvents events;
    events.Connect = [this] { Winsock10_Connect(); };
    events.DataArrival = [this](std::int32_t) { Winsock10_DataArrival(); };
    events.Close = [this] { Winsock10_Close(); };
    events.Error = [this](std::int16_t, const std::string& description, std::int32_t, const std::string&,
                          const std::string&, std::int32_t, bool&) {
      m_context.log.Debug("{} {}: {}", m_method, m_host.substr(m_host.rfind('@') + 1), description);
      Winsock10_Error();
    };
    Winsock10->SetEvents(std::move(events));
  }

  void hOpen(std::string_view method, std::string_view address) {
    m_method = method;
    m_host = GetBetween(address, "//", "/");
    const std::string whole = WithEnd(address);
    const std::string rest = WithEnd(GetBetween(whole, "//", kEndOfText));
    m_path = "/" + std::string(GetBetween(rest, "/", kEndOfText));
  }

  void setRequestHeader(std::string_view name, std::string_view value) {
    constexpr std::string_view kForbidden("\r\n\0", 3);
    if (name.find_first_of(kForbidden) != std::string_view::npos ||
        value.find_first_of(kForbidden) != std::string_view::npos) {
      throw platform::RunTimeError(platform::kHttpInvalidArgument, "A request header holds a line end");
    }
    m_headers.append(name).append(": ").append(value).append(kLineEnd);
  }

  void hSend(std::string_view data) {
    if (m_started) return;
    m_data = data;
    Timer1.SetEnabled(true);
  }

  // The owner has let go.
  void Abandon() {
    m_closeEvent = {};
    StopSocket();
  }

 private:
  void Timer1_Timer() {
    const auto self = shared_from_this();
    Timer1.SetEnabled(false);
    m_started = true;
    m_outside.emplace(m_context.loop);
    m_tooLate.SetEnabled(true);
    const HostPort target = SplitHostPort(m_host, kSecurePort);
    IgnoreErrors([&] { Winsock10->RemoteHost(target.host); });
    IgnoreErrors([&] { Winsock10->RemotePort(target.port); });
    IgnoreErrors([&] { Winsock10->Protocol(sockets::kProtocolTls); });
    IgnoreErrors([&] { Winsock10->Connect(target.host, target.port, kAllTlsVersions); });
  }

  // The request is written only now.
  void Winsock10_Connect() {
    std::string request = m_method + " " + platform::EscapeAddress(m_path) + " HTTP/1.0\r\nHost: " + m_host + "\r\n";
    request += m_headers;
    std::string encoded;
    if (!m_data.empty()) {
      encoded = FormEncoded(m_data);
      request += "Content-Length: " + std::to_string(encoded.size()) + "\r\n";
    }
    request += "Connection: close\r\n\r\n" + encoded;
    m_received.clear();
    IgnoreErrors([&] { Winsock10->SendData(request); });
  }

  void Winsock10_DataArrival() {
    sockets::WinsockData text = std::string();
    IgnoreErrors([&] {
      Winsock10->GetData(text);
      m_received += std::get<std::string>(text);
    });
    if (m_received.size() > m_answerLimit) Finish({});
  }

  void Winsock10_Close() {
    if (!m_finished) Finish(ParseRawAnswer(std::move(m_received)));
  }

  // The same request by other means.
  void Winsock10_Error() {
    if (std::exchange(m_failed, true)) return;
    const auto self = shared_from_this();
    StopSocket();
    RawAnswer answer;
    IgnoreErrors([&] { answer = Fallback(); });
    Finish(std::move(answer));
  }

  RawAnswer Fallback() {
    const auto request = m_context.http.CreateRequest();
    request->Open(m_method, "https://" + m_host + m_path);
    const std::string lines = ReplaceAll(ReplaceAll(m_headers, kLineEnd, "|"), ": ", ":");
    for (std::size_t start = 0, end = 0; (end = lines.find('|', start)) != std::string::npos; start = end + 1) {
      const std::string_view line = std::string_view(lines).substr(start, end - start);
      const std::size_t colon = line.find(':');
      if (colon == std::string_view::npos) continue;
      std::string_view value = line.substr(colon + 1);
      value = value.substr(0, value.find(':'));
      IgnoreErrors([&] { request->setRequestHeader(line.substr(0, colon), value); });
    }
    try {
      request->Send(m_data);
    } catch (const std::exception& error) {
      m_context.log.Debug("fallback: {}", error.what());
    }
    m_context.loop.Sleep(kPauseAfterFallback);
    RawAnswer answer;
    IgnoreErrors([&] { answer.statusCode = request->Status(); });
    IgnoreErrors([&] { answer.body = request->responseText(); });
    return answer;
  }

  // Raises the event; the owner drops the form in it.
  void Finish(RawAnswer answer) {
    if (std::exchange(m_finished, true)) return;
    const auto self = shared_from_this();
    StopSocket();
    const CloseEvent closeEvent = std::exchange(m_closeEvent, {});
    if (closeEvent) closeEvent(answer.statusCode, answer.body);
  }

  void StopSocket() {
    Timer1.SetEnabled(false);
    m_tooLate.SetEnabled(false);
    m_outside.reset();
    Winsock10->SetEvents({});
    Winsock10->Close_();
  }

  Context& m_context;
  CloseEvent m_closeEvent;
  std::size_t m_answerLimit;  // bytes

  std::string m_received;
  std::string m_path;
  std::string m_host;  // with its port, as the address has it
  std::string m_method;
  std::string m_data;
  std::string m_headers;

  std::shared_ptr<ctxWinsock> Winsock10;
  platform::Timer Timer1;
  platform::Timer m_tooLate;
  std::optional<platform::MessageLoop::OutsideWork> m_outside;
  bool m_started = false;
  bool m_failed = false;
  bool m_finished = false;
};

PBsock::PBsock(Context& context, std::shared_ptr<tls::CertificateServices> certificates, CloseEvent closeEvent)
    : m_request(std::make_shared<Request>(context, std::move(certificates), std::move(closeEvent))) {}

PBsock::~PBsock() {
  m_request->Abandon();
}

void PBsock::hOpen(std::string_view method, std::string_view address, bool /*asynchronous*/) {
  m_request->hOpen(method, address);
}

void PBsock::setRequestHeader(std::string_view name, std::string_view value) {
  m_request->setRequestHeader(name, value);
}

void PBsock::hSend(std::string_view data) {
  m_request->hSend(data);
}

}  // namespace quenmark::providers
