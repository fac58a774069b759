#include "tls/client_handshake.h"
#include "tls/signature_schemes.h"

namespace quenmark::tls {

namespace {

struct CertificateRequest {
  Bytes context;
  std::vector<std::uint16_t> schemes;
  std::vector<Bytes> issuers;
};

std::vector<Bytes> ReadIssuers(ByteReader& reader) {
  std::vector<Bytes> issuers;
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) {
      const BytesView name = reader.TakeBlock(2);
      issuers.emplace_back(name.begin(), name.end());
    }
  });
  return issuers;
}

CertificateRequest Read13(const Message& message) {
  CertificateRequest request;
  ByteReader reader(message.body);
  const BytesView context = reader.TakeBlock(1);
  const std::vector<Extension> extensions = ReadExtensions(reader);
  RequireDone(reader, MessageName(message.type));
  request.context.assign(context.begin(), context.end());
  for (const Extension& extension : extensions) {
    ByteReader data(extension.data);
    if (extension.type == extension::kSignatureAlgorithms) {
      request.schemes = ReadU16List(data, ExtensionName(extension.type));
    } else if (extension.type == extension::kCertificateAuthorities) {
      request.issuers = ReadIssuers(data);
    } else {
      continue;
    }
    RequireDone(data, ExtensionName(extension.type));
  }
  if (request.schemes.empty()) {
    throw ProtocolFailure{fmt::format("Missing extension ({})", ExtensionName(extension::kSignatureAlgorithms)),
                          alert::kMissingExtension};
  }
  return request;
}

CertificateRequest Read12(const Message& message) {
  CertificateRequest request;
  ByteReader reader(message.body);
  reader.TakeBlock(1);  // certificate types
  request.schemes = ReadU16List(reader, MessageName(message.type));
  request.issuers = ReadIssuers(reader);
  RequireDone(reader, MessageName(message.type));
  return request;
}

// The scheme for what is local now, 0 for none.
std::uint16_t ChooseScheme(const Context& context, std::uint16_t version, const CertificateRequest& request) {
  if (context.localCertificates.empty()) return 0;
  const auto key = PrivateKey::Decode(context.localPrivateKey);
  if (!key) throw ProtocolFailure{"Unsupported private key", alert::kHandshakeFailure};
  const bool pkcs1 = version == kVersionTls12 && (context.localFeatures & kFeatureTls12) != 0;
  const SignatureScheme* scheme = ChooseSignatureScheme(request.schemes, *key, pkcs1);
  return scheme == nullptr ? 0 : scheme->code;
}

}  // namespace

void PrepareClientAuthentication(Context& context, std::uint16_t version, const Message& message) {
  const CertificateRequest request = version == kVersionTls13 ? Read13(message) : Read12(message);
  context.certificateRequestContext = request.context;
  context.clientAuthScheme = ChooseScheme(context, version, request);
  for (int prompts = 0; context.clientAuthScheme == 0 && prompts < kMaxCertificatePrompts; ++prompts) {
    ClientCertificateOwner* owner = context.clientCertificateOwner;
    const bool again = owner != nullptr && owner->FireOnClientCertificate(request.issuers);
    // The owner may have closed the connection meanwhile.
    if (context.state == State::kClosed) throw RaisedError{"Connection closed", "FireOnClientCertificate"};
    if (!again) return;
    context.clientAuthScheme = ChooseScheme(context, version, request);
  }
}

Bytes MakeClientAuthentication13(const Context& context, Hash& transcript) {
  const bool authenticate = context.clientAuthScheme != 0;
  Bytes flight = MakeCertificate(context, kVersionTls13, authenticate);
  transcript.Update(flight);
  if (!authenticate) return flight;
  const Bytes verify = MakeCertificateVerify13(context, context.clientAuthScheme, transcript.Current().View());
  transcript.Update(verify);
  flight.insert(flight.end(), verify.begin(), verify.end());
  return flight;
}

}  // namespace quenmark::tls
