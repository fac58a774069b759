// Handshake messages: reassembly, dispatch by (state, message), and what both roles share. Handlers throw
// ProtocolFailure or RaisedError.
#pragma once

#include "platform/byte_cursor.h"
#include "tls/context.h"
#include "tls/records.h"

#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

namespace quenmark::tls {

using platform::ByteReader;
using platform::ByteWriter;

struct Message {
  std::uint8_t type = 0;
  BytesView whole;  // header included
  BytesView body;
};

// The handshake content of one record.
void ParseHandshake(Context& context, BytesView content);

// ---- failures ----

[[noreturn]] void UnexpectedMessage(State state, std::uint8_t type);
// "Invalid data size for name", alert 50.
[[noreturn]] void InvalidSize(const std::string& name);
// Fails like that unless everything was read.
void RequireDone(const ByteReader& reader, const std::string& name);
[[noreturn]] void UnexpectedExtension(std::uint16_t type, int alert = alert::kIllegalParameter);

// ---- extensions ----

// Where an extension may stand, besides the ClientHello.
enum class ExtensionPlace : std::uint8_t {
  kServerHello12 = 1,
  kServerHello13 = 2,
  kHelloRetryRequest = 4,
  kEncryptedExtensions = 8,
};

struct Extension {
  std::uint16_t type = 0;
  BytesView data;
};

// Reads a 2-byte-length list of extensions; a type that stands twice fails, alert 47.
std::vector<Extension> ReadExtensions(ByteReader& reader);
// A server may answer only what the client offered (alert 110), each in its place (alert 47).
void RequireAllowed(const Handshake& handshake, const Extension& extension, ExtensionPlace place);
// Appends an extension whose data `body` writes.
template <typename Body>
void WriteExtension(ByteWriter& writer, std::uint16_t type, Body body) {
  writer.U16(type);
  writer.Block(2, body);
}

// ---- messages ----

// A message whose body `body` writes into a ByteWriter. Raises when it cannot be encoded.
template <typename Body>
Bytes MakeMessage(std::uint8_t type, Body body) {
  Bytes bytes;
  ByteWriter writer(bytes);
  writer.U8(type);
  writer.Block(3, [&] { body(writer); });
  if (!writer.Ok()) throw RaisedError{fmt::format("Invalid data size for {}", MessageName(type)), "pvTlsBuildMessage"};
  return bytes;
}

// certificate (11) for either version, with an empty list when `send` is false.
Bytes MakeCertificate(const Context& context, std::uint16_t version, bool send);
// certificate_verify (15) of TLS 1.3 over a transcript digest.
Bytes MakeCertificateVerify13(const Context& context, std::uint16_t scheme, BytesView transcriptDigest);
// What such a signature covers (RFC 8446 section 4.4.3).
Bytes SignedContent13(bool byServer, BytesView transcriptDigest);
// "Handshake verification failed", alert 51, or 50 when the lengths differ.
void RequireVerifyData(Context& context, BytesView received, BytesView expected);

// Appends to the transcript and queues as one flight. `flight` may hold several messages.
void SendHandshake(Context& context, BytesView flight);
// Handshake complete: state 9.
void CompleteHandshake(Context& context);

std::vector<std::uint16_t> ReadU16List(ByteReader& reader, const std::string& name);
bool Contains(const std::vector<std::uint16_t>& list, std::uint16_t value);
// The names of a "|"-separated list, in order, empty ones left out.
std::vector<std::string> SplitProtocols(const std::string& list);
BytesView AsBytes(std::string_view text);
std::string AsText(BytesView bytes);

}  // namespace quenmark::tls
