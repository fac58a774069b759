// The transport's events to the owner's, and the read pass that turns records into plaintext.
#include "platform/winsock_errors.h"
#include "tls/tls_socket.h"

#include <utility>

namespace quenmark::tls {

using platform::kFdClose;
using platform::kFdConnect;
using platform::kFdRead;
using platform::kFdWrite;
using sockets::cAsyncSocket;

namespace {

// Unread plaintext that is kept for an owner who has shut the connection down, while the peer's end is awaited.
constexpr std::size_t kMaxUnreadAfterShutdown = std::size_t{1024} * 1024;
constexpr std::string_view kReceive = "cTlsSocket.pvOnReceive";

}  // namespace

// --- Raising ---------------------------------------------------------------------------------------------------------

template <typename Event, typename... Arguments>
void cTlsSocket::pvRaise(Event event, Arguments&&... arguments) {
  if (const auto events = m_events.lock()) (events.get()->*event)(*this, std::forward<Arguments>(arguments)...);
}

bool cTlsSocket::pvGoneSince(std::uint64_t generation) const {
  return m_generation != generation || SocketHandle() == platform::kInvalidSocket ||
         weak_from_this().use_count() == m_keeps;
}

bool cTlsSocket::pvNotify(std::int32_t eventMask, Handler handler) {
  const std::uint64_t generation = m_generation;
  m_firedEvents |= eventMask;
  bool handled = false;
  pvRaise(&TlsSocketEvents::BeforeNotify, eventMask, handled);
  if (pvGoneSince(generation)) return false;
  if (handled) return true;
  pvRaise(handler);
  if (pvGoneSince(generation)) return false;
  pvRaise(&TlsSocketEvents::AfterNotify, eventMask);
  return !pvGoneSince(generation);
}

void cTlsSocket::pvRaiseEngineError(std::int32_t eventMask) {
  pvRaise(&TlsSocketEvents::OnError, LastError().number, eventMask);
}

void cTlsSocket::pvRaiseSendFailure(std::int32_t eventMask) {
  pvRaiseTransportError(m_oSocket->LastError(), eventMask);
}

void cTlsSocket::pvRaiseClose() {
  if (std::exchange(m_closeRaised, true)) return;
  m_oSocket->SetLastError(0);
  pvNotify(kFdClose, &TlsSocketEvents::OnClose);
}

// An event in a handler that waits may find plaintext that is to be told when that handler returns.
bool cTlsSocket::pvTellPlain() {
  if (!m_untold || pvPlainLength() == 0) return true;
  m_untold = false;
  return pvNotify(kFdRead, &TlsSocketEvents::OnReceive);
}

bool cTlsSocket::pvRaiseEnding() {
  if (!m_ending.pending) return true;
  if (pvGoneSince(m_generation)) m_ending = {};
  if (!m_ending.pending || !pvTellPlain()) return false;
  const std::uint64_t generation = m_generation;
  const Ending ending = std::exchange(m_ending, {});
  if (ending.error) {
    if (LastError().number != *ending.error) m_oSocket->SetLastError(*ending.error);
    pvRaise(&TlsSocketEvents::OnError, *ending.error, kFdRead);
  }
  if (pvGoneSince(generation)) return false;
  if (ending.close) pvRaiseClose();
  return !ending.error && !pvGoneSince(generation);
}

bool cTlsSocket::FireOnClientCertificate(const std::vector<Bytes>& issuers) {
  const Keep keep(*this);
  bool confirmed = false;
  pvRaise(&TlsSocketEvents::OnClientCertificate, issuers, confirmed);
  return confirmed;
}

// --- The transport's events ------------------------------------------------------------------------------------------

void cTlsSocket::OnResolve(cAsyncSocket& /*socket*/, std::string_view ipAddress) {
  pvRaise(&TlsSocketEvents::OnResolve, ipAddress);
}

void cTlsSocket::OnMessagePending(cAsyncSocket& /*socket*/, bool& handled) {
  pvRaise(&TlsSocketEvents::OnMessagePending, handled);
}

void cTlsSocket::OnError(cAsyncSocket& /*socket*/, std::int32_t errorCode, std::int32_t eventMask) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::OnError, errorCode, eventMask);
  const Keep keep(*this, 1);
  pvRaiseTransportError(errorCode, eventMask);
}

void cTlsSocket::pvRaiseTransportError(std::int32_t errorCode, std::int32_t eventMask) {
  m_transportError = errorCode;
  if ((eventMask & kFdClose) != 0) TlsClose(m_context);
  if (m_waits > 0) m_oSocket->SyncCancelWait();
  // A peer that has said good-bye may answer this side's with a reset. The owner is told of the end only.
  const bool ended = m_closeRaised || m_ending.close;
  const std::uint64_t generation = m_generation;
  if (!pvTellPlain()) return;
  pvRaiseEnding();
  if (ended || pvGoneSince(generation)) return;
  m_oSocket->SetLastError(errorCode);
  pvRaise(&TlsSocketEvents::OnError, errorCode, eventMask);
}

void cTlsSocket::BeforeNotify(cAsyncSocket& /*socket*/, std::int32_t eventMask, bool& cancel) {
  if (!m_useTls) pvRaise(&TlsSocketEvents::BeforeNotify, eventMask, cancel);
}

void cTlsSocket::AfterNotify(cAsyncSocket& /*socket*/, std::int32_t eventMask) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::AfterNotify, eventMask);
  if (eventMask != kFdRead || pvPlainLength() > 0) return;
  // While the engine or the validation is at work nothing is read; reading goes on behind them.
  if (m_context.busy || m_validating) {
    m_readWaits = true;
  } else {
    pvRearm();
  }
}

void cTlsSocket::OnAccept(cAsyncSocket& /*socket*/) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::OnAccept);
  const Keep keep(*this, 1);
  pvNotify(platform::kFdAccept, &TlsSocketEvents::OnAccept);
}

void cTlsSocket::OnConnect(cAsyncSocket& /*socket*/) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::OnConnect);
  if (TlsIsStarted(m_context)) return;  // StartTls behind a waiting connect was earlier than its event
  const Keep keep(*this, 1);
  if (pvStartClient()) return;
  if (m_context.lastError.number == 0) m_transportError = m_oSocket->LastError();
  TlsClose(m_context);
  pvRaiseEngineError(kFdConnect);
}

void cTlsSocket::OnReceive(cAsyncSocket& /*socket*/) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::OnReceive);
  const Keep keep(*this, 1);
  if (m_ending.pending) {
    pvRaiseEnding();
  } else if (TlsIsClosed(m_context)) {
    // What comes behind the end is thrown away, so that the end of the transport is seen.
    BytesView ignored;
    if (!m_input.empty()) (void)pvReadOnce(ignored);
  } else if (pvPlainLength() == 0 || (TlsIsShutdown(m_context) && pvPlainLength() < kMaxUnreadAfterShutdown)) {
    pvOnReceive(Reader::kNotification);
  }
}

void cTlsSocket::OnSend(cAsyncSocket& /*socket*/) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::OnSend);
  const Keep keep(*this, 1);
  if (!pvOnSend()) return pvRaiseSendFailure(kFdWrite);
  if (pvEstablished() && pvDrained()) pvNotify(kFdWrite, &TlsSocketEvents::OnSend);
}

void cTlsSocket::OnClose(cAsyncSocket& /*socket*/) {
  if (!m_useTls) return pvRaise(&TlsSocketEvents::OnClose);
  const Keep keep(*this, 1);
  pvOnClose();
}

void cTlsSocket::pvOnClose() {
  if (m_context.busy || m_validating) {
    m_closeWaits = true;
    return;
  }
  const std::uint64_t generation = m_generation;
  pvOnReceive(Reader::kClose);
  if (pvGoneSince(generation)) return;
  TlsClose(m_context);
  pvRaiseClose();
}

// The transport's events that came while the engine or the validation was at work.
void cTlsSocket::pvResumeEvents() {
  if (std::exchange(m_readWaits, false)) pvRearm();
  if (std::exchange(m_closeWaits, false)) m_oSocket->PostEvent(kFdClose);
}

bool cTlsSocket::PostEvent(std::int32_t eventMask, bool immediately) {
  if (!m_useTls || !immediately) return m_oSocket->PostEvent(eventMask, immediately);
  const Keep keep(*this);
  const std::uint64_t generation = m_generation;
  static constexpr std::pair<std::int32_t, Handler> kHandlers[] = {{kFdRead, &TlsSocketEvents::OnReceive},
                                                                   {kFdWrite, &TlsSocketEvents::OnSend},
                                                                   {platform::kFdAccept, &TlsSocketEvents::OnAccept},
                                                                   {kFdConnect, &TlsSocketEvents::OnConnect},
                                                                   {kFdClose, &TlsSocketEvents::OnClose}};
  m_firedEvents |= eventMask;
  if (eventMask == kFdClose) {
    TlsClose(m_context);
    m_closeRaised = true;
  }
  for (const auto& [mask, handler] : kHandlers) {
    if (mask == eventMask) pvRaise(handler);
  }
  if (pvGoneSince(generation)) return true;
  pvRaise(&TlsSocketEvents::AfterNotify, eventMask);
  if (eventMask == kFdRead && pvPlainLength() == 0) pvRearm();
  return true;
}

// --- The read pass ---------------------------------------------------------------------------------------------------

// False when the transport failed. The input is empty when nothing is waiting.
bool cTlsSocket::pvReadOnce(BytesView& input) {
  const std::int32_t count = m_oSocket->Receive(m_input);
  input = BytesView(m_input).first(count > 0 ? static_cast<std::size_t>(count) : 0);
  if (count >= 0) return true;
  if (!m_oSocket->HasPendingEvent()) return false;
  m_oSocket->SetLastError(0);
  return true;
}

void cTlsSocket::pvRearm() {
  if (SocketHandle() == platform::kInvalidSocket) return;
  const std::int32_t error = m_oSocket->LastError();
  m_oSocket->Receive({});
  m_oSocket->SetLastError(error);
}

// False when the transport or the engine failed, or the connection did not outlive the events. Needs a Keep.
bool cTlsSocket::pvOnReceive(Reader reader) {
  const std::uint64_t generation = m_generation;
  const std::size_t before = pvPlainLength();
  bool transportGood = true;
  Step step = Step::kMore;
  while (step == Step::kMore && !m_context.busy && !m_validating && !TlsIsClosed(m_context)) {
    BytesView input;
    transportGood = pvReadOnce(input);
    if (input.empty() && m_context.decrypted.empty()) break;
    step = TlsIsReady(m_context) ? pvReceiveStep(input, reader) : pvHandshakeStep(input, reader);
    if (step == Step::kGone || pvGoneSince(generation)) return false;
  }
  if (reader == Reader::kOwner) {
    // The owner is about to get the data; what ended the connection is told behind it.
    m_untold = false;
    const bool grew = pvPlainLength() > before;
    if (grew && m_ending.pending && m_oSocket->PostEvent(sockets::kForcedRead)) return true;
  } else if (!pvTellPlain()) {
    return false;
  }
  return pvRaiseEnding() && transportGood;
}

// Notes what the engine's call has ended.
void cTlsSocket::pvNoteEnding(bool good, bool closeAfterError) {
  if (good && !TlsIsClosed(m_context)) return;
  if (good) {
    // Before the first handshake is complete, anybody can say so.
    m_peerClosedCleanly = m_context.handshakesCompleted > 0;
    m_ending = {true, {}, true};
  } else {
    m_ending = {true, LastError().number, closeAfterError};
  }
}

// What ended the connection before goes first.
void cTlsSocket::pvNoteSendFailure() {
  if (!m_ending.pending) m_ending = {true, m_transportError = m_oSocket->LastError(), false};
}

cTlsSocket::Step cTlsSocket::pvReceiveStep(BytesView input, Reader reader) {
  const std::uint64_t generation = m_generation;
  const std::size_t before = pvPlainLength();
  const bool good = TlsReceive(m_context, input, m_plain, m_out);  // may ask the owner for a certificate
  if (pvGoneSince(generation)) return Step::kGone;
  m_untold |= pvPlainLength() > before;
  pvNoteEnding(good, false);
  if (!pvSealUnsent()) pvNoteEnding(false, false);
  if (!pvOnSend()) pvNoteSendFailure();
  pvResumeEvents();
  return reader == Reader::kClose && !input.empty() && !m_ending.pending ? Step::kMore : Step::kStop;
}

cTlsSocket::Step cTlsSocket::pvHandshakeStep(BytesView input, Reader reader) {
  const std::uint64_t generation = m_generation;
  const std::uint32_t completed = m_context.handshakesCompleted;
  const bool good = TlsHandshake(m_context, input, m_out);  // may ask the owner for a certificate
  if (pvGoneSince(generation)) return Step::kGone;
  pvNoteEnding(good, true);
  const bool wasPending = m_ending.pending;
  if (!pvOnSend()) pvNoteSendFailure();
  pvResumeEvents();
  const bool broken = m_ending.pending && !wasPending;
  // A peer may send more in one go with the last message of the handshake: data, its end, the start of another one.
  if (m_context.handshakesCompleted == completed || broken) {
    return reader == Reader::kClose && !m_ending.pending ? Step::kMore : Step::kStop;
  }
  if (!pvFinishHandshake()) return Step::kGone;
  return m_ending.pending ? Step::kStop : Step::kMore;
}

// --- The end of the handshake ----------------------------------------------------------------------------------------

bool cTlsSocket::pvPeerIsValid(CertificateError& error) {
  error = {kEngineError, {}, std::string(kReceive)};
  const std::vector<Bytes>& chain = m_context.remoteCertificates;
  if (chain.empty()) {
    error.description = "No server certificate found";
    return false;
  }
  if (!m_validatedCertificate.empty() && chain.front() != m_validatedCertificate) {
    error.description = "The server certificate has changed";
    return false;
  }
  if (m_certificates == nullptr) {
    error.description = "No certificate services";
    return false;
  }
  const std::vector<Bytes> received = chain;
  const bool checkRevocation = (m_localFeatures & kFeatureCheckRevocation) != 0;
  const std::string host = m_remoteHostName;
  m_validating = true;
  const bool valid =
      m_certificates->ValidateChain({host, &received, m_rootStore, PeerUsage::kServer, checkRevocation}, error);
  m_validating = false;
  if (valid) {
    m_validatedCertificate = received.front();
  } else {
    error.source = std::string(kReceive) + "\r\ncTlsSocket.pvPkiCertChainValidate";
    if (error.number == 0) error.number = kEngineError;
  }
  return valid;
}

// Ends the connection; nothing that waits goes out or is handed out.
void cTlsSocket::pvRefusePeer(const CertificateError& error) {
  TlsClose(m_context);
  pvFail(error);
  m_peerClosedCleanly = false;
  m_ending = {};
  m_context.decrypted.clear();
  m_unsent.clear();
  m_out.clear();
  m_sendPosition = 0;
  pvResumeEvents();
  pvRaiseEngineError(kFdRead);
}

// Seals what waited, unless it has to wait on. False when the engine failed.
bool cTlsSocket::pvSealUnsent() {
  if (m_unsent.empty() || !pvEstablished()) return true;
  const Bytes waiting = std::exchange(m_unsent, {});
  m_firedEvents |= kFdWrite;       // a waiting SyncSendArray looks again
  if (TlsIsShutdown(m_context)) {  // nothing follows this side's own end
    m_plainSubmitted -= static_cast<std::int64_t>(waiting.size());
    return true;
  }
  return TlsSend(m_context, waiting, m_out);
}

// Judges the peer, lets go what waited and tells the owner. False when the connection is not to go on.
bool cTlsSocket::pvFinishHandshake() {
  const std::uint64_t generation = m_generation;
  const bool first = !m_established;
  const bool endedBefore = m_ending.pending;
  if (!m_isServer && (m_localFeatures & kFeatureIgnoreCertificateErrors) == 0) {
    CertificateError error;
    const bool valid = pvPeerIsValid(error);
    if (pvGoneSince(generation)) return false;
    if (!valid) {
      pvRefusePeer(error);
      return false;
    }
    pvResumeEvents();
    if (TlsIsClosed(m_context) && !endedBefore) return false;  // the transport broke meanwhile
  }
  m_established = true;
  // Behind the end of the connection nothing else would hand it out to a handler that reads.
  if (!m_context.decrypted.empty()) m_untold = TlsReceive(m_context, {}, m_plain, m_out);
  if (!pvSealUnsent()) {
    pvRaiseEngineError(kFdWrite);
    return false;
  }
  if (!pvOnSend()) pvNoteSendFailure();
  if (!first) return true;
  return pvNotify(kFdConnect, &TlsSocketEvents::OnConnect) &&
         (m_isServer || m_closeRaised || pvNotify(kFdWrite, &TlsSocketEvents::OnSend));
}

}  // namespace quenmark::tls
