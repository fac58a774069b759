#include "providers/stream_request.h"

#include "platform/http_stream.h"
#include "platform/run_time_error.h"
#include "providers/http_requests.h"
#include "providers/open_charts.h"

#include <algorithm>
#include <memory>

namespace quenmark::providers {
namespace {

using platform::HttpStream;
using platform::RunTimeError;

constexpr std::size_t kPieceSize = 512;            // bytes per read
constexpr std::size_t kBodyLimit = 64u << 20;      // bytes of one answer; more is a failed read
constexpr std::int64_t kAssumedLength = 2048;      // of an answer that does not tell
constexpr std::int64_t kReservedLength = 1 << 20;  // at most taken for it at once

struct StreamFault {
  std::uint32_t number;
  const char* source;
  const char* description;
};

constexpr StreamFault kOpenFault{0x800403E8, "InternetOpen()", "Failed to open an Internet connection"};
constexpr StreamFault kConnectFault{0x800403E9, "InternetConnect()", "Failed to open an Internet connection (ii)"};
constexpr StreamFault kRequestFault{0x800403EA, "HttpOpenRequest()", "Failed to open HTTP request"};
constexpr StreamFault kSendFault{0x800403EB, "HttpSendRequest()", "Failed to send HTTP Request"};
constexpr StreamFault kStatusFault{0x800405DD, "HTTPGetResponse()", "HTTP Error, Code: "};
constexpr StreamFault kReadFault{0x800405DC, "InternetReadFileBinary()", "An Error occured reading from the URL"};

[[noreturn]] void Raise(const StreamFault& fault, const std::string& detail = {}) {
  throw RunTimeError(static_cast<std::int32_t>(fault.number), fault.description + detail, fault.source);
}

void Require(bool worked, const StreamFault& fault) {
  if (!worked) Raise(fault);
}

void OpenStream(const StreamTarget& target, HttpStream& stream) {
  Require(stream.Open(BuildUserAgent()), kOpenFault);
  Require(stream.Connect(target.host, target.port), kConnectFault);
  std::string object = target.path;
  if (target.get && !target.query.empty()) object += "?" + target.query;
  Require(stream.OpenRequest(target.get ? "GET" : "POST", object, target.secure), kRequestFault);
  stream.AddHeaders(target.headers);
  Require(stream.Send(target.get ? std::string_view{} : target.query), kSendFault);
}

void TakeHead(const HttpStream& stream, HttpResult& result) {
  result.statusCode = stream.StatusCode();
  result.statusLine = result.statusCode == 0 ? "[Bad/Unknown Response]"
                                             : fmt::format("[{}] {}", result.statusCode, stream.StatusText());
  if (result.statusCode != 200) {
    Raise(kStatusFault, fmt::format("{}: {}", result.statusCode, result.statusLine));
  }
  const std::int64_t length = stream.ContentLength() > 0 ? stream.ContentLength() : kAssumedLength;
  result.body.reserve(static_cast<std::size_t>(std::min(length, kReservedLength)));
}

// Tells on every second pass, beginning with the third, whether the charts show something else than at the start.
class ChartCheck {
 public:
  ChartCheck(Context& context, const std::string& list) : m_context(context), m_list(list) {}

  bool Changed() {
    if (++m_passes < 3) return false;
    m_passes = 1;
    m_open.Rebuild(m_context);
    return m_open.Text() != m_list;
  }

 private:
  Context& m_context;
  const std::string& m_list;
  OpenSymbols m_open;
  int m_passes = 0;
};

void ReadStream(Context& context, HttpStream& stream, const StreamHooks& hooks, HttpResult& result) {
  const platform::MonotonicTime end = context.clock.Monotonic() + hooks.readTime;
  QuoteScan scan([&hooks](const StreamQuote& quote) { platform::IgnoreErrors([&] { hooks.onQuote(quote); }); });
  ChartCheck charts(context, hooks.symbolList);
  std::string piece;
  for (;;) {
    context.loop.RunQueued();
    const HttpStream::ReadEnd outcome = stream.Read(piece, kPieceSize, end);
    if (outcome == HttpStream::ReadEnd::kEnd) return;
    if (outcome == HttpStream::ReadEnd::kFailed) Raise(kReadFault);
    result.body.insert(result.body.end(), piece.begin(), piece.end());
    if (result.body.size() > kBodyLimit) Raise(kReadFault);
    scan.Feed(piece);
    if (context.clock.Monotonic() >= end) {
      hooks.onTimeUp();
      return;
    }
    if (charts.Changed()) return;
  }
}

}  // namespace

HttpResult StreamRequest(Context& context, const StreamTarget& target, const StreamHooks& hooks) {
  HttpResult result;
  const std::unique_ptr<HttpStream> stream = context.http.CreateStream();
  try {
    OpenStream(target, *stream);
    TakeHead(*stream, result);
    ReadStream(context, *stream, hooks, result);
  } catch (const RunTimeError& error) {
    platform::IgnoreErrors([&] { context.store.SaveSetting(kConfigurationApp, kApiSection, "SID", kAskNewSession); });
    result.errorText = fmt::format("{} ({}, Code: {:X})", error.Description(), error.Source(),
                                   static_cast<std::uint32_t>(error.Number()));
    context.log.Error("quote stream: {}", result.errorText);
  }
  stream->Close();
  result.bodyLength = static_cast<std::int32_t>(result.body.size());
  return result;
}

}  // namespace quenmark::providers
