// Numbers of the TLS protocol and the names they have in messages.
#pragma once

#include <cstdint>
#include <string>

namespace quenmark::tls {

enum class State : std::int32_t {
  kNew = 0,
  kClosed = 1,
  kHandshakeStart = 2,
  kExpectServerHello = 3,
  kExpectExtensions = 4,
  kExpectServerFinished = 5,
  kExpectClientHello = 6,
  kExpectClientKeyExchange = 7,
  kExpectClientFinished = 8,
  kPostHandshake = 9,
  kShutdown = 10,
};

namespace content_type {
constexpr std::uint8_t kChangeCipherSpec = 20;
constexpr std::uint8_t kAlert = 21;
constexpr std::uint8_t kHandshake = 22;
constexpr std::uint8_t kApplicationData = 23;
}  // namespace content_type

namespace message {
constexpr std::uint8_t kHelloRequest = 0;
constexpr std::uint8_t kClientHello = 1;
constexpr std::uint8_t kServerHello = 2;
constexpr std::uint8_t kNewSessionTicket = 4;
constexpr std::uint8_t kEncryptedExtensions = 8;
constexpr std::uint8_t kCertificate = 11;
constexpr std::uint8_t kServerKeyExchange = 12;
constexpr std::uint8_t kCertificateRequest = 13;
constexpr std::uint8_t kServerHelloDone = 14;
constexpr std::uint8_t kCertificateVerify = 15;
constexpr std::uint8_t kClientKeyExchange = 16;
constexpr std::uint8_t kFinished = 20;
constexpr std::uint8_t kKeyUpdate = 24;
constexpr std::uint8_t kMessageHash = 254;
}  // namespace message

namespace extension {
constexpr std::uint16_t kServerName = 0;
constexpr std::uint16_t kSupportedGroups = 10;
constexpr std::uint16_t kEcPointFormats = 11;
constexpr std::uint16_t kSignatureAlgorithms = 13;
constexpr std::uint16_t kAlpn = 16;
constexpr std::uint16_t kExtendedMasterSecret = 23;
constexpr std::uint16_t kRecordSizeLimit = 28;
constexpr std::uint16_t kSupportedVersions = 43;
constexpr std::uint16_t kCookie = 44;
constexpr std::uint16_t kCertificateAuthorities = 47;
constexpr std::uint16_t kPostHandshakeAuth = 49;
constexpr std::uint16_t kKeyShare = 51;
constexpr std::uint16_t kRenegotiationInfo = 65281;
}  // namespace extension

namespace alert {
constexpr int kCloseNotify = 0;
constexpr int kUnexpectedMessage = 10;
constexpr int kBadRecordMac = 20;
constexpr int kRecordOverflow = 22;
constexpr int kHandshakeFailure = 40;
constexpr int kCertificateUnknown = 46;
constexpr int kIllegalParameter = 47;
constexpr int kDecodeError = 50;
constexpr int kDecryptError = 51;
constexpr int kProtocolVersion = 70;
constexpr int kInternalError = 80;
constexpr int kUserCanceled = 90;
constexpr int kNoRenegotiation = 100;
constexpr int kMissingExtension = 109;
constexpr int kUnsupportedExtension = 110;
constexpr int kNoApplicationProtocol = 120;
}  // namespace alert

// The names; a code without one gives "Unknown (code)".
std::string StateName(State state);
std::string AlertName(int code);
std::string SignatureSchemeName(int code);
// With the code behind the name: "finished (20)".
std::string MessageName(int type);
std::string ExtensionName(int type);

// "0x1301".
std::string Hexadecimal(int code);

}  // namespace quenmark::tls
