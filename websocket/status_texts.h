// The texts that go with close codes and with HTTP statuses that refuse the upgrade.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace quenmark::websocket {

// Close codes (RFC 6455 §7.4.1) that the component reports itself.
inline constexpr std::int32_t kNormalClosure = 1000;
inline constexpr std::int32_t kProtocolError = 1002;
inline constexpr std::int32_t kUnsupportedData = 1003;
inline constexpr std::int32_t kAbnormalClosure = 1006;
inline constexpr std::int32_t kInvalidData = 1007;
inline constexpr std::int32_t kPolicyViolation = 1008;
inline constexpr std::int32_t kMessageTooBig = 1009;
inline constexpr std::int32_t kMandatoryExtension = 1010;
inline constexpr std::int32_t kInternalError = 1011;
inline constexpr std::int32_t kBadGateway = 1014;
inline constexpr std::int32_t kSocketError = 1016;

// The text of a socket or TLS error number, empty for an unknown one.
using ErrorDescriber = std::function<std::string(std::int32_t code)>;

// What a close code means. Numbers outside 1000 to 1016 are looked up with `describe` first.
std::string GetStatusCodeText(std::int32_t code, const ErrorDescriber& describe);

struct StatusError {
  std::int32_t code = 0;  // close code
  std::string description;
};
// The error for an HTTP status that refuses the upgrade.
StatusError HttpStatusError(std::int32_t status);

}  // namespace quenmark::websocket
