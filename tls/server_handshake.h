// The server's side of the handshake.
#pragma once

#include "tls/handshake.h"

namespace quenmark::tls {

// State 6.
void OnClientHello(Context& context, const Message& message);
// State 7, TLS 1.2.
void OnClientKeyExchange(Context& context, const Message& message);
// State 8.
void OnClientFinished(Context& context, const Message& message);

}  // namespace quenmark::tls
