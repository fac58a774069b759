// A TLS 1.2 and 1.3 engine: bytes in, bytes out. It knows no socket, clock or file; the owner feeds it what came from
// the network and sends what it produces, also when a call fails (the alert is in there). Nothing here throws.
// Single-threaded.
//
// Output parameters are appended to. A call that runs while another one runs on the same context (from the
// client-certificate owner) fails.
#pragma once

#include "tls/context.h"

#include <string>
#include <string_view>

namespace quenmark::tls {

// Clears the context (its services and its local certificates and key stay) and makes it a client, state 2. `owner` may
// be null and must outlive the context's use. `localFeatures`: 4 offers TLS 1.2, 8 TLS 1.3. `alpnProtocols`:
// "|"-separated.
[[nodiscard]] bool TlsInitClient(Context& context, std::string_view remoteHostName, std::uint32_t localFeatures,
                                 ClientCertificateOwner* owner, std::string_view alpnProtocols);
// The same for a server, state 6. Certificates in DER, leaf first; the key in DER.
[[nodiscard]] bool TlsInitServer(Context& context, std::string_view remoteHostName,
                                 const std::vector<Bytes>& localCertificates, BytesView localPrivateKey,
                                 std::string_view alpnProtocols, std::uint32_t localFeatures);

// Until TlsIsReady: a fresh client writes its ClientHello, otherwise the input is parsed. Application data that comes
// with it waits for TlsReceive. A received close_notify is no failure: the answer is in `output` and the context
// closed.
[[nodiscard]] bool TlsHandshake(Context& context, BytesView input, Bytes& output);

// Parses the input and appends the application data in it to `plaintext`, after what waited. Empty input hands out only
// what waited. On failure `plaintext` still gets what was good before the fault.
[[nodiscard]] bool TlsReceive(Context& context, BytesView input, Bytes& plaintext, Bytes& output);

// Appends the plaintext as records of at most 16384 bytes. Fails, and does nothing, before the handshake is complete
// and after TlsShutdown.
[[nodiscard]] bool TlsSend(Context& context, BytesView plaintext, Bytes& output);

// Appends close_notify; state 10. Does nothing when that was done before.
[[nodiscard]] bool TlsShutdown(Context& context, Bytes& output);

// State 1. Keys and everything of the handshake are wiped.
void TlsClose(Context& context);

bool TlsIsClosed(const Context& context);
bool TlsIsStarted(const Context& context);
bool TlsIsReady(const Context& context);
bool TlsIsShutdown(const Context& context);

// The text of the last failure, empty for none; its number and source.
std::string TlsGetLastError(const Context& context, std::int32_t& number, std::string& source);

}  // namespace quenmark::tls
