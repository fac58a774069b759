#include "simulator/faults.h"

#include <array>
#include <charconv>
#include <utility>

namespace quenmark::simulator {
namespace {

constexpr std::chrono::milliseconds kSlowness{3'000};
constexpr unsigned kMostMilliseconds = 600'000;

constexpr std::array<std::pair<FaultKind, std::string_view>, 12> kKinds{{
    {FaultKind::kStatus401, "status401"},
    {FaultKind::kStatus429, "status429"},
    {FaultKind::kStatus500, "status500"},
    {FaultKind::kSlow, "slow"},
    {FaultKind::kCut, "cut"},
    {FaultKind::kHtml, "html"},
    {FaultKind::kEmpty, "empty"},
    {FaultKind::kHuge, "huge"},
    {FaultKind::kStall, "stall"},
    {FaultKind::kDrip, "drip"},
    {FaultKind::kEnd, "end"},
    {FaultKind::kGoAway, "goaway"},
}};

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
  return kKinds.at(static_cast<std::size_t>(kind)).second;
}

bool OnlyHitsStreams(FaultKind kind) {
  return kind >= FaultKind::kStall;
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
  for (const auto& [kind, name] : kKinds) {
    fault.kind = kind;
    if (kind == FaultKind::kSlow) fault.delay = kSlowness;
    if (text == name) return fault;
    if (kind != FaultKind::kSlow) continue;
    if (text.starts_with(name)) {
      const std::optional<unsigned> delay = Number(text.substr(name.size()));
      if (!delay || *delay > kMostMilliseconds) return std::nullopt;
      fault.delay = std::chrono::milliseconds{*delay};
      return fault;
    }
    fault.delay = {};
  }
  return std::nullopt;
}

bool FaultList::Add(Fault fault) {
  if (m_faults.size() >= kMost) return false;
  m_faults.push_back(std::move(fault));
  return true;
}

std::optional<Fault> FaultList::Take(std::string_view target, bool stream) {
  for (auto fault = m_faults.begin(); fault != m_faults.end(); ++fault) {
    if (target.find(fault->path) == std::string_view::npos || (OnlyHitsStreams(fault->kind) && !stream)) continue;
    const Fault taken = *fault;
    if (fault->count && --*fault->count == 0) m_faults.erase(fault);
    return taken;
  }
  return std::nullopt;
}

}  // namespace quenmark::simulator
