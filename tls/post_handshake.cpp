#include "tls/post_handshake.h"

#include "tls/client_handshake.h"
#include "tls/engine.h"
#include "tls/key_schedule.h"
#include "tls/secrets.h"

namespace quenmark::tls {

namespace {

constexpr std::uint8_t kLevelWarning = 1;

void OnHelloRequest(Context& context, const Message& message) {
  if (!message.body.empty()) InvalidSize(MessageName(message.type));
  CountIdle(context, content_type::kHandshake);
  if (TlsIsShutdown(context)) return;
  // RFC 5746 §4.2: without the extension a renegotiation may be an attacker's.
  if (!context.secureRenegotiation) return WriteAlert(context, kLevelWarning, alert::kNoRenegotiation);
  // The version stays.
  BeginHandshake(context, context.localFeatures & ~kFeatureTls13);
  context.clientAuthScheme = 0;
  SendClientHello(context);
  context.state = State::kExpectServerHello;
}

void OnNewSessionTicket(Context& context, const Message& message) {
  ByteReader reader(message.body);
  reader.U32();         // lifetime
  reader.U32();         // age_add
  reader.TakeBlock(1);  // nonce
  const BytesView ticket = reader.TakeBlock(2);
  reader.TakeBlock(2);  // extensions
  RequireDone(reader, MessageName(message.type));
  if (ticket.empty()) InvalidSize(MessageName(message.type));
  CountIdle(context, content_type::kHandshake);
  if (message.body.size() > kMaxTicketBytes) return;
  if (context.sessionTickets.size() == kMaxSessionTickets) context.sessionTickets.erase(context.sessionTickets.begin());
  context.sessionTickets.emplace_back(message.body.begin(), message.body.end());
}

void OnKeyUpdate(Context& context, const Message& message) {
  if (message.body.size() != 1) InvalidSize(MessageName(message.type));
  const std::uint8_t requestUpdate = message.body[0];
  if (requestUpdate > 1) throw ProtocolFailure{"Invalid key update request", alert::kIllegalParameter};
  CountIdle(context, content_type::kHandshake);
  pvTlsDeriveKeyUpdate(context, true, false);
  if (requestUpdate == 1 && !TlsIsShutdown(context)) SendKeyUpdate(context);
}

// RFC 8446 §4.6.2: every request goes on from the handshake's own transcript.
void OnCertificateRequest(Context& context, const Message& message) {
  CountIdle(context, content_type::kHandshake);
  if (TlsIsShutdown(context)) return;
  PrepareClientAuthentication(context, kVersionTls13, message);
  Hash running = context.postHandshakeDigest;
  running.Update(message.whole);
  Bytes flight = MakeClientAuthentication13(context, running);
  const SecretBytes verifyData =
      FinishedVerifyData(context.local.suite->digest, context.local.trafficSecret.View(), running.Current().View());
  const Bytes finished = MakeMessage(message::kFinished, [&](ByteWriter& writer) { writer.Append(verifyData.View()); });
  flight.insert(flight.end(), finished.begin(), finished.end());
  WriteHandshake(context, flight);
}

}  // namespace

// After this side's close_notify the peer's messages still count, but none is answered (RFC 8446 §6.1).
void OnPostHandshake(Context& context, const Message& message) {
  const bool tls13 = context.protocolVersion == kVersionTls13;
  const bool client = !context.isServer;
  if (message.type == message::kHelloRequest && !tls13 && client) return OnHelloRequest(context, message);
  if (message.type == message::kKeyUpdate && tls13) return OnKeyUpdate(context, message);
  if (message.type == message::kNewSessionTicket && tls13 && client) return OnNewSessionTicket(context, message);
  if (message.type == message::kCertificateRequest && tls13 && client) return OnCertificateRequest(context, message);
  UnexpectedMessage(context.state, message.type);
}

void SendKeyUpdate(Context& context) {
  constexpr std::uint8_t kUpdateNotRequested = 0;
  WriteHandshake(context, MakeMessage(message::kKeyUpdate, [](ByteWriter& writer) { writer.U8(kUpdateNotRequested); }));
  pvTlsDeriveKeyUpdate(context, false, true);
}

void RenewSendingKeys(Context& context) {
  const Protection& local = context.local;
  if (local.version != kVersionTls13) return;
  const bool gcm = local.suite->bulk == Bulk::kAes128Gcm || local.suite->bulk == Bulk::kAes256Gcm;
  // One more record and the key update itself must stay below the limit.
  if (local.sequence + 2 >= (gcm ? kMaxAesGcmRecords : kMaxSequence)) SendKeyUpdate(context);
}

}  // namespace quenmark::tls
