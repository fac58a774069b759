#include "platform/http_client.h"

#include "platform/code_page.h"
#include "platform/curl_driver.h"
#include "platform/curl_list.h"
#include "platform/curl_stream.h"
#include "platform/http_address.h"
#include "platform/message_loop.h"
#include "platform/response_text.h"
#include "platform/run_time_error.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace quenmark::platform {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr int kRedirectLimit = 10;
constexpr std::size_t kHeadLimit = 256u << 10;  // bytes of the answer's header fields

// What the requests of one client share. It lives as long as the last of them.
struct ClientState {
  ClientState(MessageLoop& loop, std::string agent) : driver(loop), userAgent(std::move(agent)) {}

  CurlDriver driver;
  const std::string userAgent;
  HttpLimits limits;
};

// A handler's exception that leaves a wait takes the transfer with it.
struct StopAtEnd {
  CurlDriver& driver;
  CURL* handle;
  ~StopAtEnd() { driver.Stop(handle); }
};

struct Fault {
  CURLcode code;
  std::int32_t number;
  const char* text;
};
constexpr Fault kFaults[] = {
    {CURLE_URL_MALFORMAT, kHttpInvalidAddress, "The address is not valid"},
    {CURLE_COULDNT_RESOLVE_HOST, kHttpHostNotFound, "The host name could not be resolved"},
    {CURLE_COULDNT_RESOLVE_PROXY, kHttpHostNotFound, "The proxy's name could not be resolved"},
    {CURLE_COULDNT_CONNECT, kHttpCannotConnect, "The connection could not be made"},
    {CURLE_OPERATION_TIMEDOUT, kHttpTimeout, "The time limit was reached"},
    {CURLE_FILESIZE_EXCEEDED, kHttpAnswerTooLarge, "The answer is too large"},
    {CURLE_PEER_FAILED_VERIFICATION, kHttpInvalidCertificate, "The server's certificate is not trusted"},
    {CURLE_SSL_ISSUER_ERROR, kHttpInvalidCertificate, "The server's certificate is not trusted"},
    {CURLE_SSL_CACERT_BADFILE, kHttpInvalidCertificate, "The trust anchors could not be read"},
    {CURLE_SSL_CONNECT_ERROR, kHttpSecurityProblem, "The secure connection could not be made"},
    {CURLE_BAD_CONTENT_ENCODING, kHttpDownloadFailed, "The answer's content coding could not be undone"},
    {CURLE_PARTIAL_FILE, kHttpDownloadFailed, "The answer was cut off"},
    {CURLE_GOT_NOTHING, kHttpDownloadFailed, "The connection was closed without an answer"},
    {CURLE_RECV_ERROR, kHttpDownloadFailed, "The connection was lost"},
    {CURLE_SEND_ERROR, kHttpDownloadFailed, "The connection was lost"},
};
constexpr Fault kOtherFault{CURLE_OK, kHttpDownloadFailed, "The request failed"};

[[noreturn]] void Raise(std::int32_t number, std::string_view text, const HttpAddress& address) {
  throw RunTimeError(number, fmt::format("{}: {}", text, address.Printable()));
}

constexpr std::string_view kTokenMarks = "!#$%&'*+-.^_`|~";

bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kTokenMarks.find(c) != std::string_view::npos;
  });
}

bool IsOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::any_of(names.begin(), names.end(), [name](auto other) { return EqualsIgnoreAsciiCase(name, other); });
}

// The work of one request object. A Send holds it, so it outlives the object that a handler destroys meanwhile.
class Exchange final : public CurlTransfer {
 public:
  explicit Exchange(std::shared_ptr<ClientState> client) : m_client(std::move(client)), m_handle(curl_easy_init()) {
    if (!m_handle) throw RunTimeError(7, "No memory for an HTTP request");
  }
  ~Exchange() { m_client->driver.Stop(m_handle.get()); }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  void Open(std::string_view method, std::string_view address);
  void SetHeader(std::string_view name, std::string_view value);
  void Send(std::string_view body);
  int Status() const {
    RequireState(State::kAnswered);
    return m_status;
  }
  const std::string& Text() const {
    RequireState(State::kAnswered);
    return m_text;
  }

 private:
  enum class State { kIdle, kOpen, kSending, kAnswered };
  struct Header {
    std::string name;
    std::string value;
  };
  // What goes out next; redirects change it.
  struct Hop {
    std::string method;
    std::string url;
    HttpAddress address;
    std::string body;
    bool sameOrigin = true;  // so far
  };

  void RequireState(State state) const {
    if (m_state != state) throw RunTimeError(kHttpWrongState, "The request is not in the state for this call");
  }
  void Follow(Hop& hop);
  std::optional<Hop> Redirect(const Hop& hop) const;
  void Perform(const Hop& hop, microseconds left);
  void SetOptions(const Hop& hop, microseconds left, CurlList& headers);
  void SetMethod(const Hop& hop);
  void AddHeaders(const Hop& hop, CurlList& headers) const;
  bool HasHeader(std::string_view name) const;
  [[noreturn]] void RaiseResult(CURLcode code, const HttpAddress& address) const;
  void Finished(CURLcode result) override { m_result = result; }
  static std::size_t TakeBody(char* data, std::size_t unit, std::size_t count, void* exchange);
  static std::size_t TakeHeader(char* data, std::size_t unit, std::size_t count, void* exchange);

  const std::shared_ptr<ClientState> m_client;
  const CurlHandle m_handle;
  State m_state = State::kIdle;
  HttpLimits m_limits;

  std::string m_method;
  std::string m_url;
  HttpAddress m_address;
  std::vector<Header> m_headers;

  std::optional<CURLcode> m_result;  // of the current hop, once it has ended
  bool m_tooLarge = false;
  bool m_headComplete = false;
  std::size_t m_headSize = 0;
  std::string m_body;

  int m_status = 0;
  std::string m_text;
};

void Exchange::Open(std::string_view method, std::string_view address) {
  if (m_state == State::kSending) RequireState(State::kOpen);
  m_state = State::kIdle;
  std::string url = EscapeAddress(address);
  std::optional<HttpAddress> parsed = ParseAddress(url);
  if (!parsed || parsed->host.empty()) throw RunTimeError(kHttpInvalidAddress, "The address is not valid");
  if (!parsed->IsHttp()) Raise(kHttpUnknownProtocol, "The protocol is not supported", *parsed);
  if (!IsToken(method)) Raise(kHttpInvalidArgument, "The method is not valid", *parsed);
  m_method = AsciiUpper(method);
  m_url = std::move(url);
  m_address = std::move(*parsed);
  m_headers.clear();
  m_limits = m_client->limits;
  m_state = State::kOpen;
}

void Exchange::SetHeader(std::string_view name, std::string_view value) {
  RequireState(State::kOpen);
  if (!IsToken(name) || value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
    Raise(kHttpInvalidArgument, "The request header is not valid", m_address);
  }
  if (IsOneOf(name, {"Host", "Connection", "Content-Length", "Transfer-Encoding"})) return;
  for (Header& header : m_headers) {
    if (!EqualsIgnoreAsciiCase(header.name, name)) continue;
    header.value = value;
    return;
  }
  m_headers.push_back({std::string(name), std::string(value)});
}

void Exchange::Send(std::string_view body) {
  RequireState(State::kOpen);
  m_state = State::kSending;
  Hop hop{m_method, m_url, m_address, std::string(body)};
  if (m_method == "GET" || m_method == "HEAD") hop.body.clear();
  try {
    Follow(hop);
    const char* type = nullptr;
    curl_easy_getinfo(m_handle.get(), CURLINFO_CONTENT_TYPE, &type);
    m_text = DecodeResponse(std::exchange(m_body, {}), type == nullptr ? "" : type);
  } catch (...) {
    m_state = State::kIdle;
    throw;
  }
  m_state = State::kAnswered;
}

// Sends the hop and what it is redirected to.
void Exchange::Follow(Hop& hop) {
  microseconds left = m_limits.totalTimeout;
  for (int redirects = 0;; ++redirects) {
    Perform(hop, left);
    long status = 0;
    curl_off_t taken = 0;
    curl_easy_getinfo(m_handle.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(m_handle.get(), CURLINFO_TOTAL_TIME_T, &taken);
    m_status = static_cast<int>(status);
    left -= microseconds{taken};
    std::optional<Hop> next = Redirect(hop);
    if (!next) return;
    if (redirects == kRedirectLimit) Raise(kHttpRedirectFailed, "There are too many redirects", hop.address);
    hop = std::move(*next);
  }
}

// Where the answer to the hop leads, nothing when it is the last one.
std::optional<Exchange::Hop> Exchange::Redirect(const Hop& hop) const {
  if (!IsRedirect(m_status)) return std::nullopt;
  const char* location = nullptr;
  curl_easy_getinfo(m_handle.get(), CURLINFO_REDIRECT_URL, &location);
  if (location == nullptr) return std::nullopt;
  const std::optional<std::string> target = RedirectTarget(hop.address, location);
  if (!target) Raise(kHttpRedirectFailed, "The redirect leads to an address that is not allowed", hop.address);
  Hop next = hop;
  next.url = *target;
  next.address = ParseAddress(*target).value();
  next.sameOrigin = hop.sameOrigin && next.address.SameOrigin(hop.address);
  const bool repeats = m_status == 307 || m_status == 308;
  if ((!repeats && hop.method == "POST") || (m_status == 303 && hop.method != "HEAD")) {
    next.method = "GET";
    next.body.clear();
  }
  return next;
}

void Exchange::Perform(const Hop& hop, microseconds left) {
  CurlList headers;
  m_body.clear();
  m_headSize = 0;
  m_tooLarge = false;
  m_headComplete = false;
  m_result.reset();
  if (left < milliseconds{1}) RaiseResult(CURLE_OPERATION_TIMEDOUT, hop.address);
  SetOptions(hop, left, headers);
  m_client->driver.Start(m_handle.get(), *this);
  const StopAtEnd stop{m_client->driver, m_handle.get()};
  m_client->driver.Loop().WaitUntil([this] { return m_result.has_value(); }, MonotonicTime::max());
  // libcurl takes a head that ends with the connection for a whole one.
  if (*m_result == CURLE_OK && !m_headComplete) m_result = CURLE_PARTIAL_FILE;
  if (*m_result != CURLE_OK) RaiseResult(*m_result, hop.address);
}

void Exchange::SetOptions(const Hop& hop, microseconds left, CurlList& headers) {
  CURL* const handle = m_handle.get();
  m_client->driver.Prepare(handle, hop.url);
  SetMethod(hop);
  AddHeaders(hop, headers);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.first);
  curl_easy_setopt(handle, CURLOPT_USERAGENT, m_client->userAgent.c_str());
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
  const auto count = [](auto time) {
    return static_cast<long>(std::max<std::int64_t>(std::chrono::ceil<milliseconds>(time).count(), 1));
  };
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, count(m_limits.connectTimeout));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, count(left));
  // The declared length is checked at once, the decoded bytes as they come.
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(m_limits.answerLimit));
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Exchange::TakeBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Exchange::TakeHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
}

void Exchange::SetMethod(const Hop& hop) {
  CURL* const handle = m_handle.get();
  if (hop.method == "GET") {
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    return;
  }
  if (hop.method == "HEAD") {
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    return;
  }
  if (!hop.body.empty() || IsOneOf(hop.method, {"POST", "PUT", "PATCH"})) {
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(hop.body.size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, hop.body.data());
  }
  if (hop.method != "POST") curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, hop.method.c_str());
}

void Exchange::AddHeaders(const Hop& hop, CurlList& headers) const {
  for (const Header& header : m_headers) {
    if (!hop.sameOrigin && IsOneOf(header.name, {"Authorization", "Proxy-Authorization", "Cookie"})) continue;
    if (hop.body.empty() && hop.method != m_method && IsOneOf(header.name, {"Content-Type"})) continue;
    // libcurl takes "Name:" for the wish to leave the header out and "Name;" for an empty one.
    headers.Add(header.value.empty() ? header.name + ";" : header.name + ": " + header.value);
  }
  if (!HasHeader("Content-Type")) {
    headers.Add(hop.body.empty() ? "Content-Type:" : "Content-Type: text/plain;charset=UTF-8");
  }
  headers.Add("Expect:");
}

bool Exchange::HasHeader(std::string_view name) const {
  return std::any_of(m_headers.begin(), m_headers.end(),
                     [name](const Header& header) { return EqualsIgnoreAsciiCase(header.name, name); });
}

void Exchange::RaiseResult(CURLcode code, const HttpAddress& address) const {
  if (m_tooLarge) code = CURLE_FILESIZE_EXCEEDED;
  const auto* row =
      std::find_if(std::begin(kFaults), std::end(kFaults), [code](const Fault& fault) { return fault.code == code; });
  const Fault& fault = row == std::end(kFaults) ? kOtherFault : *row;
  Raise(fault.number, fault.text, address);
}

std::size_t Exchange::TakeBody(char* data, std::size_t unit, std::size_t count, void* exchange) {
  auto& self = *static_cast<Exchange*>(exchange);
  const std::size_t size = unit * count;
  self.m_tooLarge = size > self.m_limits.answerLimit - std::min(self.m_body.size(), self.m_limits.answerLimit);
  if (self.m_tooLarge) return CURL_WRITEFUNC_ERROR;
  self.m_body.append(data, size);
  return size;
}

std::size_t Exchange::TakeHeader(char* data, std::size_t unit, std::size_t count, void* exchange) {
  auto& self = *static_cast<Exchange*>(exchange);
  const std::string_view line(data, unit * count);
  if (line.starts_with("HTTP/")) self.m_headComplete = false;
  if (line == "\r\n" || line == "\n") self.m_headComplete = true;
  self.m_headSize += unit * count;
  self.m_tooLarge = self.m_headSize > kHeadLimit;
  return self.m_tooLarge ? CURL_WRITEFUNC_ERROR : unit * count;
}

class CurlHttpRequest final : public HttpRequest {
 public:
  explicit CurlHttpRequest(std::shared_ptr<ClientState> client)
      : m_exchange(std::make_shared<Exchange>(std::move(client))) {}

  void Open(std::string_view method, std::string_view address) override { m_exchange->Open(method, address); }
  void setRequestHeader(std::string_view name, std::string_view value) override { m_exchange->SetHeader(name, value); }
  void Send(std::string_view body) override {
    const std::shared_ptr<Exchange> exchange = m_exchange;
    exchange->Send(body);
  }
  int Status() const override { return m_exchange->Status(); }
  const std::string& responseText() const override { return m_exchange->Text(); }

 private:
  const std::shared_ptr<Exchange> m_exchange;
};

class CurlHttpClient final : public HttpClient {
 public:
  CurlHttpClient(MessageLoop& loop, std::string userAgent)
      : m_state(std::make_shared<ClientState>(loop, std::move(userAgent))) {}

  std::unique_ptr<HttpRequest> CreateRequest() override { return std::make_unique<CurlHttpRequest>(m_state); }
  std::unique_ptr<HttpStream> CreateStream() override {
    return MakeCurlStream(m_state, m_state->driver, m_state->limits);
  }
  void SetLimits(const HttpLimits& limits) override { m_state->limits = limits; }

 private:
  const std::shared_ptr<ClientState> m_state;
};

}  // namespace

std::unique_ptr<HttpClient> MakeHttpClient(MessageLoop& loop, std::string userAgent) {
  return std::make_unique<CurlHttpClient>(loop, std::move(userAgent));
}

}  // namespace quenmark::platform
