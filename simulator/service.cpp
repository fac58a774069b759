#include "simulator/service.h"

#include "simulator/gzip.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

namespace quenmark::simulator {
namespace {

constexpr std::size_t kHugeAnswer = 50'000'000;
constexpr std::size_t kLeastCompressed = 256;
constexpr std::string_view kControlBase = "/sim/";

constexpr std::string_view kMaintenancePage =
    "<!DOCTYPE html><html><head><title>Maintenance</title></head><body><h1>We will be back soon</h1></body></html>";

HttpAnswer TextAnswer(int status, std::string_view type, std::string_view body) {
  HttpAnswer answer;
  answer.status = status;
  answer.contentType = type;
  answer.body = body;
  return answer;
}

// The answer that stands in for the real one; nothing for a fault that spoils the real one.
std::optional<HttpAnswer> Replacement(FaultKind kind, bool tradeStation) {
  switch (kind) {
    case FaultKind::kStatus401:
      if (tradeStation) return StationErrorAnswer(401, "Unauthorized", "Invalid Access Token");
      return FaultAnswer(401, "Invalid Access Token", "keymanagement.service.invalid_access_token");
    case FaultKind::kStatus429:
      if (tradeStation) return StationErrorAnswer(429, "TooManyRequests", "Quota exceeded");
      return FaultAnswer(429, "Rate limit quota violation. Quota limit exceeded.", "policies.ratelimit.QuotaViolation");
    case FaultKind::kStatus500:
      if (tradeStation) return StationErrorAnswer(500, "InternalServerError", "Internal Server Error");
      return TextAnswer(500, "text/plain", "Internal Server Error");
    case FaultKind::kHtml:
      return TextAnswer(200, "text/html", kMaintenancePage);
    case FaultKind::kEmpty:
      return TextAnswer(200, "application/json", "");
    default:
      break;
  }
  return std::nullopt;
}

// The client does not get the whole answer.
bool Spoils(FaultKind kind) {
  return kind != FaultKind::kSlow && kind != FaultKind::kHttp10 && kind != FaultKind::kChunked &&
         kind != FaultKind::kOdd;
}

void Apply(FaultKind kind, HttpAnswer& answer) {
  answer.cut = kind == FaultKind::kCut;
  answer.reset = kind == FaultKind::kReset;
  answer.chunked = kind == FaultKind::kChunked;
  if (kind == FaultKind::kHttp10) answer.version = "HTTP/1.0";
  if (kind == FaultKind::kHuge && answer.body.size() < kHugeAnswer) answer.padding = kHugeAnswer - answer.body.size();
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace

std::optional<Provider> ParseProvider(std::string_view text) {
  if (text == "tradier") return Provider::kTradier;
  if (text == "tradestation") return Provider::kTradeStation;
  if (text == "vendor") return Provider::kVendor;
  return std::nullopt;
}

Service::Service(const ServiceOptions& options)
    : m_market(options.market),
      m_events(m_market, options.events),
      m_log(options.logFile),
      m_tradier(m_market, m_sent, m_events, options.token),
      m_tradeStation(m_market, m_sent, m_log, options.streams, options.token),
      m_vendor(m_market, m_sent, m_events, options.news),
      m_provider(options.provider),
      m_gzip(options.gzip) {
  for (const Fault& fault : options.faults) {
    if (!m_faults.Add(fault)) throw std::runtime_error("too many faults");
  }
}

std::optional<Fault> Service::Begin(const HttpRequest& request) {
  if (request.target.starts_with(kControlBase)) return std::nullopt;
  const std::optional<std::string_view> station = StationEndpoint(request);
  const FaultTarget target = IsEvents(request)                                ? FaultTarget::kEventStream
                             : station && TradeStationApi::IsStream(*station) ? FaultTarget::kQuoteStream
                                                                              : FaultTarget::kAnswer;
  return m_faults.Take(request.target, target);
}

bool Service::IsEvents(const HttpRequest& request) const {
  return Serves(Provider::kTradier) && request.scheme == "https" && request.method == "GET" &&
         request.Path() == "/v1/markets/events" && UpperCase(request.Header("Upgrade")) == "WEBSOCKET";
}

std::optional<std::string_view> Service::StationEndpoint(const HttpRequest& request) const {
  constexpr std::string_view kBase = "/v3/";
  const std::string_view path = request.Path();
  if (!Serves(Provider::kTradeStation) || !path.starts_with(kBase)) return std::nullopt;
  return path.substr(kBase.size());
}

HttpAnswer Service::Answer(const HttpRequest& request, const std::optional<Fault>& fault) {
  std::optional<HttpAnswer> replacement;
  if (fault) replacement = Replacement(fault->kind, StationEndpoint(request).has_value());
  const bool whole = !fault || !Spoils(fault->kind);
  const bool odd = fault && fault->kind == FaultKind::kOdd;
  HttpAnswer answer = replacement ? std::move(*replacement) : Route(request, whole, odd);
  if (!replacement && IsEvents(request)) {
    answer = TextAnswer(101, "", "");
    answer.events = std::make_shared<EventStream>(m_events, fault);
  } else if (fault && answer.stream) {
    answer.stream->Commit(fault->kind);
  } else if (fault) {
    Apply(fault->kind, answer);
  }
  const bool compressible = m_gzip && answer.padding == 0 && answer.body.size() >= kLeastCompressed;
  if (compressible && request.Header("Accept-Encoding").find("gzip") != std::string_view::npos) {
    answer.body = Gzip(answer.body);
    answer.contentEncoding = "gzip";
  }
  m_log.Request(request, answer.status, fault ? FaultName(fault->kind) : "", m_market.Now());
  return answer;
}

void Service::Abandon(const HttpRequest& request, const std::optional<Fault>& fault) {
  m_log.Request(request, 0, fault ? FaultName(fault->kind) : "", m_market.Now());
}

HttpAnswer Service::Route(const HttpRequest& request, bool recorded, bool odd) {
  constexpr std::string_view kLiveBase = "/v1/";
  constexpr std::string_view kSandboxBase = "/sandbox/v1/";
  const std::string_view path = request.Path();
  if (path.starts_with(kControlBase)) return Control(request);
  if (const std::optional<std::string_view> station = StationEndpoint(request)) {
    return m_tradeStation.Answer(request, *station, recorded);
  }
  if (Serves(Provider::kTradier)) {
    if (path.starts_with(kLiveBase)) return m_tradier.Answer(request, path.substr(kLiveBase.size()), false, recorded);
    if (path.starts_with(kSandboxBase))
      return m_tradier.Answer(request, path.substr(kSandboxBase.size()), true, recorded);
  }
  if (std::optional<HttpAnswer> answer = m_vendor.Answer(request, recorded, odd)) return std::move(*answer);
  return TextAnswer(404, "text/plain", "Not Found");
}

HttpAnswer Service::Control(const HttpRequest& request) {
  const std::string_view path = request.Path();
  if (request.method == "GET" && path == "/sim/state") return State();
  const std::string text{Trimmed(request.body)};
  bool done = false;
  if (request.method == "POST" && path == "/sim/fault") {
    done = ApplyFault(text);
  } else if (request.method == "POST" && path == "/sim/session") {
    const std::optional<Session> session = ParseSession(text);
    if (session) m_market.SetSession(*session);
    done = session.has_value();
  } else if (request.method == "POST" && path == "/sim/price") {
    done = ApplyPrice(text);
  } else if (request.method == "POST" && path == "/sim/hold") {
    done = text == "on" || text == "off";
    if (done) m_market.Hold(text == "on");
  } else if (request.method == "POST" && path == "/sim/rate") {
    done = ApplyRate(text);
  } else if (request.method == "POST" && path == "/sim/sessions") {
    done = text == "expire";
    if (done) m_events.ExpireSessions();
  } else if (request.method == "POST" && path == "/sim/message") {
    m_events.Broadcast(request.body);
    done = true;
  } else {
    return TextAnswer(404, "text/plain", "Not Found");
  }
  return done ? TextAnswer(200, "text/plain", "ok\n") : TextAnswer(400, "text/plain", "not understood\n");
}

HttpAnswer Service::State() {
  const StreamCounts& counts = m_tradeStation.Streams();
  Node streams = Node::Object();
  streams.Add("opened", Node::Number(counts.opened))
      .Add("open", Node::Number(counts.open))
      .Add("objects", Node::Number(counts.objects));
  const EventCounts& sent = m_events.counts;
  Node events = Node::Object();
  events.Add("opened", Node::Number(sent.opened))
      .Add("open", Node::Number(sent.open))
      .Add("subscriptions", Node::Number(sent.subscriptions))
      .Add("messages", Node::Number(sent.messages))
      .Add("events", Node::Number(sent.events));
  Node state = Node::Object();
  state.Add("session", Node::Text(std::string{SessionName(m_market.CurrentSession())}))
      .Add("now", Node::Number(m_market.Now()))
      .Add("streams", std::move(streams))
      .Add("events", std::move(events))
      .Add("symbols", m_sent.ToNode());
  return TextAnswer(200, "application/json", ToJson(state));
}

bool Service::ApplyFault(const std::string& text) {
  if (text == "none") {
    m_faults.Clear();
    return true;
  }
  std::optional<Fault> fault = ParseFault(text);
  return fault && m_faults.Add(std::move(*fault));
}

// Of event streams, the open ones included.
bool Service::ApplyRate(const std::string& text) {
  double rate = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, rate);
  if (error != std::errc{} || stop != end || !(rate == 0 || (rate >= kLeastRate && rate <= kMostRate))) return false;
  m_events.SetRate(rate);
  return true;
}

// "SYM 12.34"
bool Service::ApplyPrice(const std::string& text) {
  const std::size_t blank = text.rfind(' ');
  if (blank == std::string::npos) return false;
  double price = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + blank + 1, end, price);
  if (error != std::errc{} || stop != end || !(price > 0) || price > 1e6) return false;
  return m_market.SetPrice(UpperCase(Trimmed(text.substr(0, blank))), std::llround(price * 100));
}

}  // namespace quenmark::simulator
