#include "simulator/faults.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace quenmark::simulator {
namespace {

constexpr unsigned kAnswers = 1U << static_cast<unsigned>(FaultTarget::kAnswer);
constexpr unsigned kQuotes = 1U << static_cast<unsigned>(FaultTarget::kQuoteStream);
constexpr unsigned kEvents = 1U << static_cast<unsigned>(FaultTarget::kEventStream);
constexpr unsigned kAll = ~0U;

struct KindRow {
  FaultKind kind;
  std::string_view name;
  unsigned targets;
  unsigned number = 0;  // where the name stands without one
  unsigned most = 0;    // number that may follow the name; 0: none may
};
constexpr std::array<KindRow, 20> kKinds{{
    {FaultKind::kStatus401, "status401", kAll},
    {FaultKind::kStatus429, "status429", kAll},
    {FaultKind::kStatus500, "status500", kAll},
    {FaultKind::kSlow, "slow", kAll, 3'000, 600'000},
    {FaultKind::kCut, "cut", kAll},
    {FaultKind::kHtml, "html", kAll},
    {FaultKind::kEmpty, "empty", kAll},
    {FaultKind::kHuge, "huge", kAll},
    {FaultKind::kStall, "stall", kQuotes | kEvents},
    {FaultKind::kDrip, "drip", kQuotes | kEvents},
    {FaultKind::kEnd, "end", kQuotes},
    {FaultKind::kGoAway, "goaway", kQuotes},
    {FaultKind::kClose, "close", kEvents, 1'001, 4'999},
    {FaultKind::kTlsClose, "tlsclose", kEvents},
    {FaultKind::kReset, "reset", kEvents | kAnswers},
    {FaultKind::kGarbage, "garbage", kEvents},
    {FaultKind::kHalfFrame, "halfframe", kEvents},
    {FaultKind::kHttp10, "http10", kAnswers},
    {FaultKind::kChunked, "chunked", kAnswers},
    {FaultKind::kOdd, "odd", kAnswers},
}};

const KindRow& RowOf(FaultKind kind) {
  return kKinds.at(static_cast<std::size_t>(kind));
}

// The whole of `text` as a number.
std::optional<unsigned> Number(std::string_view text) {
  unsigned value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc{} || stop != end) return std::nullopt;
  return value;
}

}  // namespace

std::string_view FaultName(FaultKind kind) {
  return RowOf(kind).name;
}

std::optional<Fault> ParseFault(std::string_view text) {
  Fault fault{FaultKind::kSlow, {}, {}};
  if (const std::size_t star = text.rfind('*'); star != std::string_view::npos) {
    const std::optional<unsigned> count = Number(text.substr(star + 1));
    if (!count || *count == 0) return std::nullopt;
    fault.count = *count;
    text = text.substr(0, star);
  }
  if (const std::size_t at = text.find('@'); at != std::string_view::npos) {
    fault.path = text.substr(at + 1);
    text = text.substr(0, at);
  }
  for (const KindRow& row : kKinds) {
    if (!text.starts_with(row.name)) continue;
    const std::string_view behind = text.substr(row.name.size());
    const std::optional<unsigned> number = behind.empty() ? row.number : Number(behind);
    if (!number || *number > std::max(row.most, row.number) || (row.most == 0 && !behind.empty())) return std::nullopt;
    fault.kind = row.kind;
    if (row.kind == FaultKind::kSlow) fault.delay = std::chrono::milliseconds{*number};
    if (row.kind == FaultKind::kClose) fault.closeCode = static_cast<std::uint16_t>(*number);
    return fault;
  }
  return std::nullopt;
}

namespace {

// `path` with "$" at its end: the target ends there.
bool Matches(std::string_view target, std::string_view path) {
  if (!path.ends_with('$')) return target.find(path) != std::string_view::npos;
  return target.ends_with(path.substr(0, path.size() - 1));
}

}  // namespace

bool FaultList::Add(Fault fault) {
  if (m_faults.size() >= kMost) return false;
  m_faults.push_back(std::move(fault));
  return true;
}

std::optional<Fault> FaultList::Take(std::string_view target, FaultTarget what) {
  for (auto fault = m_faults.begin(); fault != m_faults.end(); ++fault) {
    const bool hits = (RowOf(fault->kind).targets >> static_cast<unsigned>(what) & 1U) != 0;
    if (!hits || !Matches(target, fault->path)) continue;
    const Fault taken = *fault;
    if (fault->count && --*fault->count == 0) m_faults.erase(fault);
    return taken;
  }
  return std::nullopt;
}

}  // namespace quenmark::simulator
