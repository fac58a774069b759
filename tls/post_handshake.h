// Handshake messages after the handshake: HelloRequest, NewSessionTicket, KeyUpdate, post-handshake authentication.
#pragma once

#include "tls/handshake.h"

namespace quenmark::tls {

void OnPostHandshake(Context& context, const Message& message);

// Tells the peer that the next record comes under new sending keys, and changes to them. TLS 1.3.
void SendKeyUpdate(Context& context);

// Changes the sending keys in time when the records of TLS 1.3 AES-GCM under one key near their limit.
void RenewSendingKeys(Context& context);

}  // namespace quenmark::tls
