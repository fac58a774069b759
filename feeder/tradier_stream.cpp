#include "feeder/tradier_stream.h"

#include "feeder/quote_snapshot.h"
#include "feeder/tradier_requests.h"
#include "platform/code_page.h"
#include "platform/run_time_error.h"
#include "providers/get_between.h"
#include "providers/http_requests.h"
#include "providers/text_pieces.h"

#include <utility>

namespace quenmark::feeder {
namespace {

using platform::IgnoreErrors;
using providers::GetBetween;

constexpr std::string_view kStreamPort = "443";
constexpr double kChunkSize = 4096;
constexpr std::int32_t kTextMessage = 1;
constexpr std::int32_t kTextOpcode = 1;

// Whether the text contains the part, looked for by the letter of it, at `rare`, that events have fewest of.
bool ContainsByLetter(std::string_view text, std::string_view part, std::size_t rare) {
  std::size_t at = text.find(part[rare], rare);
  for (; at != std::string_view::npos; at = text.find(part[rare], at + 1)) {
    if (text.substr(at - rare, part.size()) == part) return true;
  }
  return false;
}
constexpr std::string_view kNoSession = "session not found";
constexpr std::string_view kError = R"("error")";

// A flag that is set as long as it lives.
struct Mark {
  explicit Mark(bool& inside) : flag(inside) { flag = true; }
  ~Mark() { flag = false; }
  Mark(const Mark&) = delete;
  Mark& operator=(const Mark&) = delete;
  bool& flag;
};

}  // namespace

TradierStream::TradierStream(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                             platform::Timer& closeTimer, websocket::WebsocketServices services)
    : m_context(context),
      m_open(open),
      m_subscribed(subscribed),
      m_closeTimer(closeTimer),
      m_events(context),
      m_ws(context.loop, std::move(services), Handlers()) {}

websocket::WebsocketEvents TradierStream::Handlers() {
  websocket::WebsocketEvents events;
  events.OnMessage = [this](const websocket::MessageData& data, std::int32_t msgType) {
    if (msgType == kTextMessage) IgnoreErrors([&] { OnMessage(data.Text()); });
  };
  events.OnConnect = [this](const std::string& host, const std::string&, const std::string&) {
    m_context.log.Info("stream: connected to {}", host);
  };
  events.OnClose = [this](std::int32_t, const std::string&) { m_context.EndProgram("the stream was closed"); };
  events.OnError = [this](std::int32_t code, const std::string& description) {
    m_context.log.Info("stream: error {}: {}", code, description);
  };
  return events;
}

bool TradierStream::IsOpenOrConnect() {
  if (m_ws.readyState() == websocket::kStateOpen) return true;
  m_subscribed.clear();
  m_ws.SetUseCompression(false);
  m_ws.SetChunkSize(kChunkSize);
  m_ws.Connect(m_context.hosts.stream, kStreamPort);
  return false;
}

void TradierStream::FollowCharts() {
  const bool open = m_ws.readyState() == websocket::kStateOpen;
  if (m_open.Text() == m_subscribed) {
    // With the last chart gone there is nothing to subscribe, but the connection is back all the same.
    if (open) m_closeTimer.SetEnabled(false);
    return;
  }
  if (!open) {
    if (m_context.sandboxMarker.empty()) m_closeTimer.SetEnabled(true);
    return;
  }
  m_closeTimer.SetEnabled(false);
  m_subscribed = m_open.Text();
  if (!m_subscribed.empty()) {
    const std::string symbols = providers::JoinedSymbols(m_subscribed);
    IgnoreErrors([&] { ApplyQuoteSnapshot(m_context, ApiRequest(m_context, SnapshotPath(symbols))); });
  }
  SubscribeSymbols();
}

void TradierStream::SubscribeSymbols() {
  if (m_subscribed.size() <= 1) return;
  if (m_context.sessionId.empty() || m_context.sessionId == providers::kAskNewSession) CreateSession();
  const std::string_view symbols = std::string_view(m_subscribed).substr(0, m_subscribed.size() - 1);
  std::string message(R"({"symbols": [)");
  message.append(symbols).append(R"(], "sessionid": ")").append(m_context.sessionId).append(R"(", "linebreak": true})");
  if (m_ws.readyState() != websocket::kStateOpen) return;
  m_ws.SendAdvanced(message, kTextOpcode, {.utf8Encode = true});
  m_context.log.Debug("stream: subscribed {} symbols", m_open.Symbols().size());
}

void TradierStream::CreateSession() {
  // The message that the stored session is not known can come while another one is being asked for.
  if (m_creatingSession) return;
  // A tick would take the mark in the store for a missing session and ask again.
  const platform::MessageLoop::MainTickPause pause(m_context.loop);
  const Mark creating(m_creatingSession);
  const std::string answer = providers::ApiRequest(m_context, "markets/events/session");
  std::string_view id;
  if (!providers::RequestFailed(answer)) id = GetBetween(answer, R"("sessionid":")", "\"");
  if (id.empty()) m_context.EndProgram("no streaming session could be created");
  m_context.sessionId = id;
  IgnoreErrors([&] { m_context.store.SaveSetting(providers::kConfigurationApp, providers::kApiSection, "SID", id); });
}

void TradierStream::OnMessage(std::string_view text) {
  if (ContainsByLetter(text, kNoSession, kNoSession.find(' '))) {
    IgnoreErrors([&] {
      m_context.store.SaveSetting(providers::kConfigurationApp, providers::kApiSection, "SID",
                                  providers::kAskNewSession);
    });
    CreateSession();
  } else if (ContainsByLetter(text, kError, kError.find('r'))) {
    const std::string_view symbol = GetBetween(text, R"("error":")", " ");
    if (!platform::EqualsIgnoreAsciiCase(symbol, "sessionid")) providers::RemoveOpenChart(m_context, symbol);
  } else {
    m_events.HandleStreamEvent(text);
  }
}

}  // namespace quenmark::feeder
