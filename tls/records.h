// The record layer: received bytes cut into records, unprotected and dispatched; records built in the send buffer.
#pragma once

#include "tls/context.h"

namespace quenmark::tls {

// Parses all whole records of what was received; the start of a further one is kept. Throws ProtocolFailure or
// RaisedError. Stops when the context closes.
void ParseRecords(Context& context, BytesView input);

// Counts a record of this type that brought nothing; too many in a row fail, alert 10.
void CountIdle(Context& context, int type);

// One record of at most kMaxPlaintext bytes, protected when sending keys are active.
void WriteRecord(Context& context, std::uint8_t type, BytesView payload);
// Handshake messages, cut into records when they do not fit one.
void WriteHandshake(Context& context, BytesView messages);
// TLS 1.3: never protected (RFC 8446 section 5).
void WriteChangeCipherSpec(Context& context);
// Does nothing when the sending keys are used up.
void WriteAlert(Context& context, std::uint8_t level, int description);

// Forms of a record protected by `protection`, for sending and receiving. `record` is a whole record, header included.
void Seal(Protection& protection, std::uint8_t type, BytesView payload, Bytes& out);
struct Opened {
  std::uint8_t type = 0;
  std::size_t size = 0;  // of the content appended
};
// Appends the content to `out`. On failure `out` has rubbish behind its old end.
Opened Open(Protection& protection, CryptoServices& services, BytesView record, Bytes& out);

}  // namespace quenmark::tls
