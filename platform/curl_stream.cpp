#include "platform/curl_stream.h"

#include "platform/code_page.h"
#include "platform/curl_list.h"
#include "platform/http_address.h"
#include "platform/run_time_error.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>
#include <vector>

namespace quenmark::platform {
namespace {

constexpr std::size_t kReadAhead = 64u << 10;   // bytes kept for the reader before the transfer is paused
constexpr std::size_t kHeadLimit = 256u << 10;  // bytes of the answer's header fields

// The value of a header line of that name, nothing for another one.
std::optional<std::string_view> HeaderValue(std::string_view line, std::string_view name) {
  if (line.size() <= name.size() || line[name.size()] != ':') return std::nullopt;
  if (!EqualsIgnoreAsciiCase(line.substr(0, name.size()), name)) return std::nullopt;
  line.remove_prefix(name.size() + 1);
  const std::size_t first = line.find_first_not_of(" \t");
  if (first == std::string_view::npos) return "";
  return line.substr(first, line.find_last_not_of(" \t\r\n") - first + 1);
}

class CurlStream final : public HttpStream, private CurlTransfer {
 public:
  CurlStream(std::shared_ptr<void> owner, CurlDriver& driver, const HttpLimits& limits)
      : m_owner(std::move(owner)), m_driver(driver), m_limits(limits) {}
  ~CurlStream() override { Close(); }

  bool Open(std::string_view userAgent) override {
    m_handle.reset(curl_easy_init());
    m_userAgent = userAgent;
    return m_handle != nullptr;
  }

  bool Connect(std::string_view host, int port) override {
    m_host = host;
    m_port = port;
    return m_handle && !host.empty() && port > 0 && port < 65536 &&
           host.find_first_of("/?#@\\ ") == std::string_view::npos;
  }

  bool OpenRequest(std::string_view method, std::string_view objectName, bool secure) override {
    if (!m_handle || !objectName.starts_with('/')) return false;
    m_method = method;
    m_address = EscapeAddress((secure ? "https://" : "http://") + m_host + ":" + std::to_string(m_port) +
                              std::string(objectName));
    return ParseAddress(m_address).has_value();
  }

  void AddHeaders(std::string_view lines) override {
    while (!lines.empty()) {
      const std::size_t end = lines.find("\r\n");
      AddHeader(lines.substr(0, end));
      if (end == std::string_view::npos) return;
      lines.remove_prefix(end + 2);
    }
  }

  bool Send(std::string_view body) override;

  int StatusCode() const override { return m_statusCode; }
  const std::string& StatusText() const override { return m_statusText; }
  std::int64_t ContentLength() const override { return m_contentLength; }
  std::string RedirectAddress() const override;

  ReadEnd Read(std::string& piece, std::size_t most, MonotonicTime deadline) override;

  void Close() override {
    if (!m_handle) return;
    m_driver.Stop(m_handle.get());
    m_handle.reset();
  }

 private:
  struct Header {
    std::string name;
    std::string line;
  };

  void AddHeader(std::string_view line);
  void SetOptions(std::string_view body);
  void TakeHeaderLine(std::string_view line);
  void Finished(CURLcode result) override { m_result = result; }
  static std::size_t TakeBody(char* data, std::size_t unit, std::size_t count, void* stream);
  static std::size_t TakeHeader(char* data, std::size_t unit, std::size_t count, void* stream);

  const std::shared_ptr<void> m_owner;
  CurlDriver& m_driver;
  const HttpLimits m_limits;
  CurlHandle m_handle;
  std::string m_userAgent;
  std::string m_host;
  int m_port = 0;
  std::string m_method;
  std::string m_address;
  std::vector<Header> m_headers;
  CurlList m_headerList;
  std::string m_body;

  std::size_t m_headSize = 0;
  bool m_headComplete = false;
  int m_statusCode = 0;
  std::string m_statusText;
  std::int64_t m_contentLength = 0;

  std::string m_buffer;  // read from m_bufferStart on
  std::size_t m_bufferStart = 0;
  bool m_paused = false;
  std::optional<CURLcode> m_result;
};

void CurlStream::AddHeader(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos || line.find_first_of(std::string_view("\r\n\0", 3)) != line.npos) {
    return;
  }
  const std::string_view name = line.substr(0, colon);
  std::erase_if(m_headers, [name](const Header& header) { return EqualsIgnoreAsciiCase(header.name, name); });
  m_headers.push_back({std::string(name), std::string(line)});
}

void CurlStream::SetOptions(std::string_view body) {
  CURL* const handle = m_handle.get();
  m_driver.Prepare(handle, m_address);
  m_headerList.Clear();
  for (const Header& header : m_headers) m_headerList.Add(header.line);
  m_headerList.Add("Expect:");
  m_headerList.Add("Cache-Control: no-cache");
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, m_headerList.first);
  curl_easy_setopt(handle, CURLOPT_USERAGENT, m_userAgent.c_str());
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_limits.connectTimeout.count()));
  if (m_method != "GET") {
    m_body = body;
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(m_body.size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, m_body.data());
  }
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &CurlStream::TakeBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &CurlStream::TakeHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
}

bool CurlStream::Send(std::string_view body) {
  if (!m_handle || m_address.empty()) return false;
  SetOptions(body);
  try {
    m_driver.Start(m_handle.get(), *this);
  } catch (const RunTimeError&) {
    return false;
  }
  MessageLoop& loop = m_driver.Loop();
  loop.WaitUntil([this] { return m_headComplete || m_result.has_value(); },
                 loop.TheClock().Monotonic() + m_limits.totalTimeout);
  return m_headComplete;
}

std::string CurlStream::RedirectAddress() const {
  const char* location = nullptr;
  if (m_handle && IsRedirect(m_statusCode)) curl_easy_getinfo(m_handle.get(), CURLINFO_REDIRECT_URL, &location);
  if (location == nullptr) return {};
  return RedirectTarget(ParseAddress(m_address).value(), location).value_or("");
}

HttpStream::ReadEnd CurlStream::Read(std::string& piece, std::size_t most, MonotonicTime deadline) {
  piece.clear();
  if (!m_handle) return ReadEnd::kFailed;
  MessageLoop& loop = m_driver.Loop();
  const auto hasData = [this] { return m_bufferStart < m_buffer.size(); };
  if (!hasData() && !m_result) loop.WaitUntil([&] { return hasData() || m_result.has_value(); }, deadline);
  if (hasData()) {
    piece.assign(m_buffer, m_bufferStart, most);
    m_bufferStart += piece.size();
    if (!hasData()) {
      m_buffer.clear();
      m_bufferStart = 0;
      // Unpausing may hand over what libcurl holds at once.
      if (std::exchange(m_paused, false)) curl_easy_pause(m_handle.get(), CURLPAUSE_CONT);
    }
    return ReadEnd::kData;
  }
  if (!m_result) return ReadEnd::kTimeUp;
  return *m_result == CURLE_OK ? ReadEnd::kEnd : ReadEnd::kFailed;
}

void CurlStream::TakeHeaderLine(std::string_view line) {
  if (line.starts_with("HTTP/")) {
    m_statusCode = 0;
    m_statusText.clear();
    m_contentLength = 0;
    const std::size_t code = std::min(line.find(' '), line.size() - 1) + 1;
    std::from_chars(line.data() + code, line.data() + line.size(), m_statusCode);
    const std::size_t text = line.find(' ', code);
    if (text != std::string_view::npos) m_statusText = line.substr(text + 1, line.find_last_not_of("\r\n") - text);
  } else if (const auto length = HeaderValue(line, "Content-Length")) {
    std::from_chars(length->data(), length->data() + length->size(), m_contentLength);
  } else if (line == "\r\n" || line == "\n") {
    m_headComplete = m_statusCode >= 200;  // after 1xx another head follows
  }
}

std::size_t CurlStream::TakeHeader(char* data, std::size_t unit, std::size_t count, void* stream) {
  auto& self = *static_cast<CurlStream*>(stream);
  const std::size_t size = unit * count;
  self.m_headSize += size;
  if (self.m_headSize > kHeadLimit) return CURL_WRITEFUNC_ERROR;
  if (!self.m_headComplete) self.TakeHeaderLine({data, size});
  return size;
}

std::size_t CurlStream::TakeBody(char* data, std::size_t unit, std::size_t count, void* stream) {
  auto& self = *static_cast<CurlStream*>(stream);
  if (self.m_buffer.size() - self.m_bufferStart >= kReadAhead) {
    self.m_paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  self.m_buffer.append(data, unit * count);
  return unit * count;
}

}  // namespace

std::unique_ptr<HttpStream> MakeCurlStream(std::shared_ptr<void> owner, CurlDriver& driver, const HttpLimits& limits) {
  return std::make_unique<CurlStream>(std::move(owner), driver, limits);
}

}  // namespace quenmark::platform
