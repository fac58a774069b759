#include "tls/engine.h"

#include "tls/client_handshake.h"
#include "tls/post_handshake.h"
#include "tls/records.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace quenmark::tls {

namespace {

constexpr std::string_view kModule = "mdTlsThunks.";
constexpr std::uint8_t kLevelWarning = 1;
constexpr std::uint8_t kLevelFatal = 2;

void Record(Context& context, std::int32_t number, std::string description, std::string source, int alertCode) {
  context.lastError = {number, std::move(description), std::move(source), alertCode};
}

// Everything that belongs to a finished handshake, or to a closed connection, is wiped.
void DropSecrets(Context& context) {
  if (context.state >= State::kPostHandshake || context.state == State::kClosed) context.handshake.reset();
  if (context.state != State::kClosed) return;
  context.local = {};
  context.remote = {};
  context.postHandshakeDigest = {};
  context.receiveBuffer = {};
  context.reassembly = {};
}

// The records that `output` gets are built behind what it already holds.
class Call {
 public:
  Call(Context& context, Bytes& output, std::string_view function)
      : m_context(context), m_output(output), m_function(function) {
    m_context.sendBuffer.swap(m_output);
    m_context.busy = true;
  }
  ~Call() {
    m_context.busy = false;
    m_context.sendBuffer.swap(m_output);
    DropSecrets(m_context);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // Runs `work`; a fault in it closes the context.
  template <typename Work>
  bool Run(Work work) {
    try {
      work();
      return true;
    } catch (const ProtocolFailure& failure) {
      Record(m_context, kEngineError, failure.description, Source(), failure.alert);
      SendAlert(failure.alert);
    } catch (const RaisedError& error) {
      Record(m_context, error.number, error.description, error.source, kNoAlert);
    } catch (const std::exception& error) {
      Record(m_context, kEngineError, error.what(), Source(), kNoAlert);
    }
    m_context.state = State::kClosed;
    return false;
  }

 private:
  std::string Source() const { return std::string(kModule) + std::string(m_function); }

  void SendAlert(int alert) {
    if (alert < 0) return;
    try {
      WriteAlert(m_context, kLevelFatal, alert);
    } catch (const RaisedError&) {
      // An alert that cannot be protected is not sent.
    }
  }

  Context& m_context;
  Bytes& m_output;
  std::string_view m_function;
};

// False, with the error recorded, for a context that refuses all work.
bool Usable(Context& context, std::string_view function) {
  const bool usable = !TlsIsClosed(context) && !context.busy;
  if (usable) {
    // Nothing to clear is the rule, and this is on the road of every record.
    if (context.lastError.number != 0 || context.lastError.alertCode != kNoAlert) context.lastError = {};
  } else {
    Record(context, kEngineError, "Connection closed", std::string(kModule) + std::string(function), kNoAlert);
  }
  return usable;
}

bool Initialise(Context& context, bool isServer, std::string_view remoteHostName, std::uint32_t localFeatures,
                std::string_view alpnProtocols, State state) {
  if (context.busy) return false;
  Context fresh;
  fresh.services = context.services;
  fresh.localCertificates = std::move(context.localCertificates);
  fresh.localPrivateKey = std::move(context.localPrivateKey);
  fresh.isServer = isServer;
  fresh.remoteHostName = remoteHostName;
  fresh.localFeatures = localFeatures;
  fresh.alpnProtocols = alpnProtocols;
  context = std::move(fresh);
  Bytes none;
  return Call(context, none, isServer ? "TlsInitServer" : "TlsInitClient").Run([&] {
    CryptoInit();
    BeginHandshake(context, localFeatures);
    context.state = state;
  });
}

}  // namespace

bool TlsInitClient(Context& context, std::string_view remoteHostName, std::uint32_t localFeatures,
                   ClientCertificateOwner* owner, std::string_view alpnProtocols) {
  const bool done = Initialise(context, false, remoteHostName, localFeatures, alpnProtocols, State::kHandshakeStart);
  context.clientCertificateOwner = owner;
  return done;
}

bool TlsInitServer(Context& context, std::string_view remoteHostName, const std::vector<Bytes>& localCertificates,
                   BytesView localPrivateKey, std::string_view alpnProtocols, std::uint32_t localFeatures) {
  // The arguments may be the context's own.
  std::vector<Bytes> certificates = localCertificates;
  platform::SecretBuffer key(localPrivateKey.begin(), localPrivateKey.end());
  if (!Initialise(context, true, remoteHostName, localFeatures, alpnProtocols, State::kExpectClientHello)) return false;
  context.localCertificates = std::move(certificates);
  context.localPrivateKey = std::move(key);
  return true;
}

bool TlsHandshake(Context& context, BytesView input, Bytes& output) {
  if (!Usable(context, "TlsHandshake")) return false;
  return Call(context, output, "TlsHandshake").Run([&] {
    if (context.state == State::kHandshakeStart) {
      SendClientHello(context);
      context.state = State::kExpectServerHello;
    } else {
      ParseRecords(context, input);
    }
  });
}

bool TlsReceive(Context& context, BytesView input, Bytes& plaintext, Bytes& output) {
  if (!context.busy && !context.decrypted.empty()) {
    if (plaintext.empty()) {
      plaintext.swap(context.decrypted);
    } else {
      plaintext.insert(plaintext.end(), context.decrypted.begin(), context.decrypted.end());
    }
    context.decrypted = {};
    if (input.empty()) return true;
  }
  if (!Usable(context, "TlsReceive")) return false;
  if (input.empty()) return true;
  // Content is decrypted to where the caller wants it.
  context.decrypted.swap(plaintext);
  const bool done = Call(context, output, "TlsReceive").Run([&] { ParseRecords(context, input); });
  context.decrypted.swap(plaintext);
  return done;
}

bool TlsSend(Context& context, BytesView plaintext, Bytes& output) {
  if (context.state == State::kShutdown || !Usable(context, "TlsSend")) {
    if (context.state == State::kShutdown)
      Record(context, kEngineError, "Connection closed", "mdTlsThunks.TlsSend", kNoAlert);
    return false;
  }
  if (!TlsIsReady(context)) {
    Record(context, kEngineError, fmt::format("Invalid state for application data ({})", StateName(context.state)),
           "mdTlsThunks.TlsSend", kNoAlert);
    return false;
  }
  return Call(context, output, "TlsSend").Run([&] {
    while (!plaintext.empty()) {
      const std::size_t count = std::min(plaintext.size(), kMaxPlaintext);
      RenewSendingKeys(context);
      WriteRecord(context, content_type::kApplicationData, plaintext.first(count));
      plaintext = plaintext.subspan(count);
    }
  });
}

bool TlsShutdown(Context& context, Bytes& output) {
  if (!Usable(context, "TlsShutdown")) return false;
  if (TlsIsShutdown(context)) return true;
  return Call(context, output, "TlsShutdown").Run([&] {
    WriteAlert(context, kLevelWarning, alert::kCloseNotify);
    context.state = State::kShutdown;
  });
}

void TlsClose(Context& context) {
  context.state = State::kClosed;
  // Inside a call its own end does this.
  if (!context.busy) DropSecrets(context);
}

bool TlsIsClosed(const Context& context) {
  return context.state == State::kNew || context.state == State::kClosed;
}
bool TlsIsStarted(const Context& context) {
  return context.state >= State::kHandshakeStart;
}
bool TlsIsReady(const Context& context) {
  return context.state >= State::kPostHandshake;
}
bool TlsIsShutdown(const Context& context) {
  return context.state == State::kShutdown;
}

std::string TlsGetLastError(const Context& context, std::int32_t& number, std::string& source) {
  const EngineErrorRecord& error = context.lastError;
  number = error.alertCode == alert::kUserCanceled || error.alertCode == alert::kNoRenegotiation ? 0 : error.number;
  source = error.source;
  if (error.alertCode == kNoAlert || error.alertCode == alert::kCloseNotify) return error.description;
  const std::string lead = error.description.empty() ? "" : error.description + ". ";
  return lead + AlertName(error.alertCode) + ".";
}

}  // namespace quenmark::tls
