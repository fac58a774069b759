// Error numbers of the socket layers: the Winsock codes, what they read as, and how the system's own numbers map to
// them.
#pragma once

#include <cstdint>
#include <string_view>

namespace quenmark::platform {

inline constexpr std::int32_t kWsaInterrupted = 10004;
inline constexpr std::int32_t kWsaInvalid = 10022;
inline constexpr std::int32_t kWsaTooManySockets = 10024;
inline constexpr std::int32_t kWsaWouldBlock = 10035;
inline constexpr std::int32_t kWsaAlready = 10037;
inline constexpr std::int32_t kWsaNotSocket = 10038;
inline constexpr std::int32_t kWsaMessageSize = 10040;
inline constexpr std::int32_t kWsaNoProtocolOption = 10042;
inline constexpr std::int32_t kWsaNotSupported = 10045;
inline constexpr std::int32_t kWsaAddressNotAvailable = 10049;
inline constexpr std::int32_t kWsaNetworkReset = 10052;
inline constexpr std::int32_t kWsaConnectionAborted = 10053;
inline constexpr std::int32_t kWsaConnectionReset = 10054;
inline constexpr std::int32_t kWsaNoBuffers = 10055;
inline constexpr std::int32_t kWsaIsConnected = 10056;
inline constexpr std::int32_t kWsaNotConnected = 10057;
inline constexpr std::int32_t kWsaShutDown = 10058;
inline constexpr std::int32_t kWsaTimedOut = 10060;
inline constexpr std::int32_t kWsaRefused = 10061;
inline constexpr std::int32_t kWsaNotInitialised = 10093;
inline constexpr std::int32_t kWsaSystemCallFailure = 10107;
inline constexpr std::int32_t kWsaHostNotFound = 11001;
inline constexpr std::int32_t kWsaTryAgain = 11002;
inline constexpr std::int32_t kWsaNoRecovery = 11003;
inline constexpr std::int32_t kWsaNoData = 11004;
// The timeout of a waiting call, as an HRESULT.
inline constexpr std::int32_t kTimeoutResult = static_cast<std::int32_t>(0x800705B4);

// The code for an errno value; 0 for 0, kWsaSystemCallFailure for one without a counterpart.
std::int32_t WinsockErrorOf(int systemError);
// The system's text for a code, without a trailing line break; empty for an unknown one. A code within 0x8007xxxx reads
// as the code in its low half.
std::string_view WinsockErrorText(std::int32_t code);

}  // namespace quenmark::platform
