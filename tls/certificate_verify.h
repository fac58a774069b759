// The check of a certificate chain that stands in a file, for command lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::platform {
class MessageLoop;
}

namespace quenmark::tls {

struct VerifyOptions {
  std::string host;
  std::string chainFile;             // PEM, end-entity first
  std::string rootsFile;             // PEM, the only trust; empty: the system's
  std::optional<std::int64_t> time;  // Unix seconds; the present when not set
  bool checkRevocation = false;
};

inline constexpr int kVerifyValid = 0;
inline constexpr int kVerifyInvalid = 1;
inline constexpr int kVerifyUnreadable = 2;

struct VerifyAnswer {
  int exitStatus = kVerifyUnreadable;
  std::string text;  // "valid" or the error text, without a line end
};

VerifyAnswer VerifyChainFile(const VerifyOptions& options, platform::MessageLoop& loop);

// Unix seconds, or a time like 2026-02-28T23:59:60.5+01:00 (RFC 3339 §5.6); fractions are cut off.
std::optional<std::int64_t> ParseVerifyTime(std::string_view text);

}  // namespace quenmark::tls
