#include "tls/client_handshake.h"
#include "tls/secrets.h"
#include "tls/signature_schemes.h"

#include <string>

namespace quenmark::tls {

namespace {

constexpr std::size_t kSessionIdSize = 32;

std::vector<std::uint16_t> SuitesToOffer(const Context& context, std::uint32_t features) {
  const bool hasKey = !context.localPrivateKey.empty();
  const auto key = hasKey ? PrivateKey::Decode(context.localPrivateKey) : std::nullopt;
  auto suites = CipherSuiteOffer(features, hasKey, key ? key->Algorithm() : "");
  if (suites.empty()) throw RaisedError{"Missing supported ciphersuite", "pvTlsBuildClientHello"};
  return suites;
}

// Writes the extensions in their fixed order and remembers which were offered.
class ExtensionWriter {
 public:
  ExtensionWriter(const Context& context, Handshake& handshake, ByteWriter& writer)
      : m_context(context), m_handshake(handshake), m_writer(writer) {}

  void WriteAll() {
    const bool tls12 = (m_handshake.features & kFeatureTls12) != 0;
    const bool tls13 = (m_handshake.features & kFeatureTls13) != 0;
    if (!m_context.remoteHostName.empty()) ServerName();
    if (!SplitProtocols(m_context.alpnProtocols).empty()) Alpn();
    SupportedGroups();
    if (tls12) Legacy();
    SignatureAlgorithms();
    if (tls13) Tls13(tls12);
  }

 private:
  template <typename Body>
  void Add(std::uint16_t type, Body body) {
    m_handshake.offeredExtensions.push_back(type);
    WriteExtension(m_writer, type, body);
  }

  void ServerName() {
    Add(extension::kServerName, [&] {
      m_writer.Block(2, [&] {
        m_writer.U8(0);  // host_name
        m_writer.AppendBlock(2, AsBytes(m_context.remoteHostName));
      });
    });
  }

  void Alpn() {
    Add(extension::kAlpn, [&] {
      m_writer.Block(2, [&] {
        for (const std::string& name : SplitProtocols(m_context.alpnProtocols)) m_writer.AppendBlock(1, AsBytes(name));
      });
    });
  }

  void SupportedGroups() {
    Add(extension::kSupportedGroups, [&] {
      m_writer.Block(2, [&] {
        for (const Group& group : kGroups) {
          if (m_handshake.requestedGroup == 0 || m_handshake.requestedGroup == group.code) m_writer.U16(group.code);
        }
      });
    });
  }

  void Legacy() {
    Add(extension::kEcPointFormats, [&] {
      m_writer.U8(1);
      m_writer.U8(0);  // uncompressed
    });
    Add(extension::kExtendedMasterSecret, [] {});
    Add(extension::kRenegotiationInfo, [&] { m_writer.AppendBlock(1, m_context.localVerifyData); });
  }

  void SignatureAlgorithms() {
    Add(extension::kSignatureAlgorithms, [&] {
      m_writer.Block(2, [&] {
        for (const SignatureScheme& scheme : kSignatureSchemes) m_writer.U16(scheme.code);
      });
    });
  }

  void Tls13(bool tls12) {
    Add(extension::kPostHandshakeAuth, [] {});
    Add(extension::kKeyShare, [&] {
      m_writer.Block(2, [&] {
        m_writer.U16(m_handshake.group->code);
        m_writer.AppendBlock(2, m_handshake.keyPair.Public());
      });
    });
    Add(extension::kSupportedVersions, [&] {
      m_writer.Block(1, [&] {
        m_writer.U16(kVersionTls13);
        if (tls12) m_writer.U16(kVersionTls12);
      });
    });
    if (!m_handshake.cookie.empty()) {
      Add(extension::kCookie, [&] { m_writer.AppendBlock(2, m_handshake.cookie); });
    }
  }

  const Context& m_context;
  Handshake& m_handshake;
  ByteWriter& m_writer;
};

}  // namespace

void BeginHandshake(Context& context, std::uint32_t features) {
  context.handshake = std::make_unique<Handshake>();
  context.handshake->features = features;
  context.handshake->renegotiation = context.handshakesCompleted > 0;
  context.services->Random(context.handshake->localRandom);
}

void SendClientHello(Context& context) {
  Handshake& handshake = *context.handshake;
  const std::uint32_t features = handshake.features;
  if ((features & kFeatureTls13) != 0 && handshake.group == nullptr) pvTlsSetupExchGroup(context, kGroups[0].code);
  if (handshake.localSessionId.empty() && (features & kFeatureTls12) != 0) {
    handshake.localSessionId.resize(kSessionIdSize);
    context.services->Random(handshake.localSessionId);
  }
  handshake.offeredSuites = SuitesToOffer(context, features);
  handshake.offeredExtensions.clear();
  const Bytes hello = MakeMessage(message::kClientHello, [&](ByteWriter& writer) {
    writer.U16(kVersionTls12);
    writer.Append(handshake.localRandom);
    writer.AppendBlock(1, handshake.localSessionId);
    writer.Block(2, [&] {
      for (const std::uint16_t suite : handshake.offeredSuites) writer.U16(suite);
    });
    writer.U8(1);
    writer.U8(0);  // null compression
    writer.Block(2, [&] { ExtensionWriter(context, handshake, writer).WriteAll(); });
  });
  SendHandshake(context, hello);
}

}  // namespace quenmark::tls
