#include "feeder/news_icons.h"

#include "platform/code_page.h"
#include "platform/files.h"
#include "platform/http_address.h"
#include "platform/run_time_error.h"
#include "providers/http_requests.h"
#include "providers/text_pieces.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace quenmark::feeder {
namespace {

using namespace std::chrono_literals;

constexpr auto kPauseBetween = 10ms;
constexpr std::chrono::milliseconds kLongestFetch = 10s;  // with its redirects
constexpr int kMostRedirects = 5;
constexpr auto kAgain = 1h;
constexpr std::size_t kLongestSymbol = 64;   // bytes
constexpr std::size_t kMostSymbols = 20000;  // remembered
constexpr std::string_view kPngSignature("\x89PNG\r\n\x1A\n", 8);

// False when no head of an answer comes.
bool Ask(platform::HttpStream& stream, const std::string& address) {
  const auto parts = platform::ParseAddress(address);
  if (!parts || !parts->IsHttp()) return false;
  int port = 0;
  std::from_chars(parts->port.data(), parts->port.data() + parts->port.size(), port);
  const std::size_t path = address.find('/', address.find("//") + 2);
  const std::string object = address.substr(path, address.find('#', path) - path);
  return stream.Open(providers::BuildUserAgent()) && stream.Connect(parts->host, port) &&
         stream.OpenRequest("GET", object, parts->scheme == "https") && stream.Send({});
}

// The body; nothing when it is not complete in time, or too large.
std::optional<std::string> ReadBody(platform::HttpStream& stream, platform::MonotonicTime deadline) {
  std::string body;
  std::string piece;
  while (body.size() <= NewsIcons::kLargestIcon) {
    const auto end = stream.Read(piece, NewsIcons::kLargestIcon, deadline);
    if (end == platform::HttpStream::ReadEnd::kEnd) return body;
    if (end != platform::HttpStream::ReadEnd::kData) break;
    body += piece;
  }
  return std::nullopt;
}

}  // namespace

NewsIcons::NewsIcons(providers::Context& context)
    : m_context(context), m_next(context.loop, kPauseBetween, [this] { FetchNext(); }) {}

std::string NewsIcons::FileOf(std::string_view symbol) const {
  return m_context.programFolder + "/Files/Img/" + std::string(symbol) + "_ico.png";
}

void NewsIcons::Want(std::string_view symbols) {
  if (m_context.hosts.icons.empty()) return;
  const platform::MonotonicTime now = m_context.clock.Monotonic();
  if (now < m_sourceNotBefore) return;
  for (const std::string_view piece : providers::Split(symbols, ',')) {
    const std::string symbol = platform::AsciiUpper(providers::Trimmed(piece));
    if (symbol.size() > kLongestSymbol || !platform::IsSafeInFileName(symbol)) continue;
    if (m_notBefore.size() >= kMostSymbols && !Busy()) m_notBefore.clear();
    if (m_notBefore.size() >= kMostSymbols) return;
    const auto [place, isNew] = m_notBefore.try_emplace(symbol, now + kAgain);
    if (!isNew && now < place->second) continue;
    place->second = now + kAgain;
    if (!platform::FileExists(FileOf(symbol))) m_queue.push_back(symbol);
  }
  if (!m_fetching && !m_queue.empty()) m_next.SetEnabled(true);
}

void NewsIcons::FetchNext() {
  m_next.SetEnabled(false);
  if (m_fetching || m_queue.empty()) return;
  const std::string symbol = std::exchange(m_queue.front(), {});
  m_queue.pop_front();
  m_fetching = true;
  Outcome outcome = Outcome::kNoAnswer;
  platform::IgnoreErrors([&] { outcome = Fetch(symbol); });
  m_fetching = false;
  if (outcome == Outcome::kNoAnswer) {
    m_context.log.Debug("icons: no answer");
    m_sourceNotBefore = m_context.clock.Monotonic() + kAgain;
    m_queue.clear();
    m_notBefore.clear();
  }
  if (!m_queue.empty()) m_next.SetEnabled(true);
}

// The source has answered even when its answer is of no use.
NewsIcons::Outcome NewsIcons::Fetch(const std::string& symbol) {
  if (m_client == nullptr) m_client = platform::MakeHttpClient(m_context.loop, providers::BuildUserAgent());
  platform::HttpLimits limits = providers::ReadHttpLimits(m_context.store);
  const auto now = [this] { return m_context.clock.Monotonic(); };
  const platform::MonotonicTime deadline = now() + std::min(limits.totalTimeout, kLongestFetch);
  std::string address = m_context.hosts.icons + "/ico/?s=" + providers::InQuery(symbol);
  for (int redirects = 0; redirects <= kMostRedirects && !address.empty(); ++redirects) {
    limits.totalTimeout = std::chrono::ceil<std::chrono::milliseconds>(deadline - now());
    m_client->SetLimits(limits);
    const auto stream = m_client->CreateStream();
    if (!Ask(*stream, address)) return redirects == 0 ? Outcome::kNoAnswer : Outcome::kDone;
    const auto icon = ReadBody(*stream, deadline);
    if (!icon) return Outcome::kDone;
    if (stream->StatusCode() == 200) {
      SaveIcon(symbol, *icon);
      return Outcome::kDone;
    }
    address = stream->RedirectAddress();
  }
  return Outcome::kDone;
}

void NewsIcons::SaveIcon(std::string_view symbol, const std::string& icon) {
  if (!icon.starts_with(kPngSignature)) return;
  platform::IgnoreErrors([&] { platform::CreatePrivateFolders(m_context.programFolder + "/Files/Img"); });
  platform::IgnoreErrors([&] { platform::SalvarArquivo(FileOf(symbol), icon); });
}

}  // namespace quenmark::feeder
