// Where the context's secrets come from and which keys they activate.
#pragma once

#include "tls/context.h"

namespace quenmark::tls {

// Chooses the group and, when it differs from the current one, makes a fresh key pair. Raises for an unknown group.
void pvTlsSetupExchGroup(Context& context, std::uint16_t group);

// Makes the RSA pre-master secret and encrypts it to the leaf certificate. Raises.
void pvTlsSetupExchRsaCertificate(Context& context, BytesView certificate);
// Decrypts the client's pre-master secret with the local private key. Raises.
void pvTlsSetupExchRsaPreMasterSecret(Context& context, BytesView encrypted);

// The pre-master or ECDHE secret. A peer key that is no valid point fails with "Invalid remote key", alert 47.
SecretBytes pvTlsGetSharedSecret(Context& context, Exchange exchange);

// TLS 1.3, transcript through ServerHello: activates the handshake keys of both directions.
void DeriveHandshakeSecrets(Context& context);
// TLS 1.3, transcript through the server's Finished. Activates sending; `remote` is what to receive with.
struct ApplicationSecrets {
  Protection local;
  Protection remote;
};
ApplicationSecrets DeriveApplicationSecrets(Context& context, BytesView transcriptDigest);
// The next generation of receiving keys, or of sending keys.
void pvTlsDeriveKeyUpdate(Context& context, bool updateRemote, bool updateLocal);

// TLS 1.2: master secret and both directions' keys, which wait in pendingLocal and pendingRemote. `sessionDigest`
// covers the transcript through ClientKeyExchange.
void pvTlsDeriveLegacySecrets(Context& context, BytesView sessionDigest);

// Verify data of a TLS 1.2 Finished.
Bytes LegacyVerifyData(const Handshake& handshake, bool fromClient);

}  // namespace quenmark::tls
