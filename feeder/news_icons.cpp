#include "feeder/news_icons.h"

#include "platform/code_page.h"
#include "platform/files.h"
#include "platform/http_address.h"
#include "platform/run_time_error.h"
#include "providers/http_requests.h"
#include "providers/text_pieces.h"

#include <charconv>
#include <utility>

namespace quenmark::feeder {
namespace {

using namespace std::chrono_literals;

constexpr auto kPauseBetween = 10ms;
constexpr auto kLongestFetch = 10s;
constexpr auto kAgain = 1h;
constexpr std::size_t kLongestSymbol = 64;   // bytes
constexpr std::size_t kMostSymbols = 20000;  // remembered
constexpr std::string_view kPngSignature("\x89PNG\r\n\x1A\n", 8);

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

NewsIcons::Outcome NewsIcons::Fetch(const std::string& symbol) {
  const std::string address = m_context.hosts.icons + "/ico/?s=" + providers::InQuery(symbol);
  const auto parts = platform::ParseAddress(address);
  int port = 0;
  if (!parts || !parts->IsHttp()) return Outcome::kNoAnswer;
  std::from_chars(parts->port.data(), parts->port.data() + parts->port.size(), port);
  const std::string object = address.substr(address.find('/', address.find("//") + 2));

  if (m_client == nullptr) m_client = platform::MakeHttpClient(m_context.loop, providers::BuildUserAgent());
  const auto stream = m_client->CreateStream();
  const platform::MonotonicTime deadline = m_context.clock.Monotonic() + kLongestFetch;
  if (!stream->Open(providers::BuildUserAgent()) || !stream->Connect(parts->host, port) ||
      !stream->OpenRequest("GET", object, parts->scheme == "https") || !stream->Send({})) {
    return Outcome::kNoAnswer;
  }
  if (stream->StatusCode() != 200) return Outcome::kDone;
  std::string icon;
  std::string piece;
  for (auto end = platform::HttpStream::ReadEnd::kData; end == platform::HttpStream::ReadEnd::kData;) {
    end = stream->Read(piece, kLargestIcon, deadline);
    if (end == platform::HttpStream::ReadEnd::kTimeUp || end == platform::HttpStream::ReadEnd::kFailed) {
      return Outcome::kNoAnswer;
    }
    if (end == platform::HttpStream::ReadEnd::kData) icon += piece;
    if (icon.size() > kLargestIcon) return Outcome::kDone;
  }
  if (!icon.starts_with(kPngSignature)) return Outcome::kDone;
  platform::IgnoreErrors([&] { platform::CreatePrivateFolders(m_context.programFolder + "/Files/Img"); });
  platform::IgnoreErrors([&] { platform::SalvarArquivo(FileOf(symbol), icon); });
  return Outcome::kDone;
}

}  // namespace quenmark::feeder
