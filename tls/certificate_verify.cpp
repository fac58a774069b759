#include "tls/certificate_verify.h"

#include "platform/clock.h"
#include "platform/date_text.h"
#include "platform/message_loop.h"
#include "tls/certificate_services.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>

namespace quenmark::tls {

namespace {

// The loop's clocks with the wall clock stopped at one moment.
class StoppedClock final : public platform::Clock {
 public:
  StoppedClock(const platform::Clock& clock, std::int64_t seconds) : m_clock(clock), m_seconds(seconds) {}

  platform::WallTime Now() const override { return platform::WallTime(std::chrono::seconds(m_seconds)); }
  platform::MonotonicTime Monotonic() const override { return m_clock.Monotonic(); }
  platform::ZoneInformation Zone() const override { return m_clock.Zone(); }
  platform::CivilTime LocalNow() const override { return m_clock.LocalNow(); }

 private:
  const platform::Clock& m_clock;
  std::int64_t m_seconds;
};

// Digits of a fixed place; -1 when they are none.
int Digits(std::string_view text, std::size_t at, std::size_t count) {
  int value = -1;
  if (text.size() < at + count || text[at] == '-') return -1;
  const char* first = text.data() + at;
  return std::from_chars(first, first + count, value).ptr == first + count ? value : -1;
}

// Seconds east of Greenwich.
std::optional<int> ParseOffset(std::string_view text) {
  if (text == "Z" || text == "z") return 0;
  const int hours = Digits(text, 1, 2);
  const int minutes = Digits(text, 4, 2);
  if (text.size() != 6 || (text[0] != '+' && text[0] != '-') || text[3] != ':' || hours < 0 || hours > 23 ||
      minutes < 0 || minutes > 59) {
    return std::nullopt;
  }
  return (text[0] == '-' ? -60 : 60) * (hours * 60 + minutes);
}

}  // namespace

std::optional<std::int64_t> ParseVerifyTime(std::string_view text) {
  std::int64_t seconds = 0;
  const char* end = text.data() + text.size();
  if (const auto read = std::from_chars(text.data(), end, seconds); read.ec == std::errc{} && read.ptr == end) {
    return seconds;
  }
  constexpr std::size_t kFixed = 19;  // yyyy-mm-ddThh:mm:ss
  if (text.size() <= kFixed || text[4] != '-' || text[7] != '-' || (text[10] != 'T' && text[10] != 't') ||
      text[13] != ':' || text[16] != ':') {
    return std::nullopt;
  }
  const int second = Digits(text, 17, 2);
  const platform::CivilTime time{Digits(text, 0, 4),  Digits(text, 5, 2),  Digits(text, 8, 2),
                                 Digits(text, 11, 2), Digits(text, 14, 2), second == 60 ? 59 : second};
  std::string_view rest = text.substr(kFixed);
  if (rest.front() == '.') {
    const std::size_t fraction = std::min(rest.find_first_not_of("0123456789", 1), rest.size());
    if (fraction == 1) return std::nullopt;
    rest.remove_prefix(fraction);
  }
  const auto offset = ParseOffset(rest);
  if (!offset || !platform::IsValid(time)) return std::nullopt;
  return platform::ToSeconds(time) + (second == 60 ? 1 : 0) - *offset;
}

VerifyAnswer VerifyChainFile(const VerifyOptions& options, platform::MessageLoop& loop) {
  const auto services = MakeCertificateServices(loop);
  CertificateError error;
  Identity chain;
  if (!services->ImportPem(options.chainFile, chain, error)) {
    return {kVerifyUnreadable, fmt::format("cannot read {}: {}", options.chainFile, error.description)};
  }
  if (chain.certificates.empty()) return {kVerifyUnreadable, "no certificate in " + options.chainFile};
  ChainRequest request;
  request.remoteHostName = options.host;
  request.chain = &chain.certificates;
  request.checkRevocation = options.checkRevocation;
  if (!options.rootsFile.empty() && !services->ImportRoots(options.rootsFile, request.rootStore, error)) {
    return {kVerifyUnreadable, fmt::format("cannot read {}: {}", options.rootsFile, error.description)};
  }
  bool valid = false;
  if (options.time) {
    StoppedClock clock(loop.TheClock(), *options.time);
    valid = MakeCertificateServices(loop, &clock)->ValidateChain(request, error);
  } else {
    valid = services->ValidateChain(request, error);
  }
  return valid ? VerifyAnswer{kVerifyValid, "valid"} : VerifyAnswer{kVerifyInvalid, error.description};
}

}  // namespace quenmark::tls
