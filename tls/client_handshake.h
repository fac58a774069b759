// The client's side of the handshake.
#pragma once

#include "tls/handshake.h"

namespace quenmark::tls {

// Starts a handshake: the context gets a fresh one, offering the versions of `features`.
void BeginHandshake(Context& context, std::uint32_t features);

// Builds the ClientHello from what the handshake knows and queues it.
void SendClientHello(Context& context);

// State 3.
void OnServerHello(Context& context, const Message& message);
// State 4: the messages that have an order, and the others.
void OnServerMessage(Context& context, const Message& message);
void SkipMessage(Context& context, const Message& message);
// encrypted_extensions (8).
void ReadEncryptedExtensions(Context& context, const Message& message);
// State 5.
void OnLegacyServerFinished(Context& context, const Message& message);

// certificate_request (13) of the version in use: remembers the context and chooses the scheme, asking the owner when
// nothing fits.
void PrepareClientAuthentication(Context& context, std::uint16_t version, const Message& message);

// The client's TLS 1.3 answer to a certificate request: certificate and, with a scheme, certificate_verify. Hashes both
// into `transcript`.
Bytes MakeClientAuthentication13(const Context& context, Hash& transcript);

}  // namespace quenmark::tls
