#include "tests/tls/peers.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace quenmark::test {

void EnginePeer::StartClient(std::uint32_t features, const std::string& alpn) {
  failed = !tls::TlsInitClient(context, "localhost", features, this, alpn) || !tls::TlsHandshake(context, {}, output);
}

bool EnginePeer::FireOnClientCertificate(const std::vector<tls::Bytes>& /*issuers*/) {
  ++asked;
  whenAsked();
  if (shown == nullptr) return false;
  context.localCertificates = {shown->certificate};
  context.localPrivateKey.assign(shown->privateKey.begin(), shown->privateKey.end());
  return true;
}

void EnginePeer::StartServer(const Identity& identity, std::uint32_t features, const std::string& alpn) {
  failed = !tls::TlsInitServer(context, "", {identity.certificate}, identity.privateKey, alpn, features);
}

void EnginePeer::Feed(tls::BytesView input) {
  if (input.empty() || Closed()) return;
  const bool done =
      Ready() ? tls::TlsReceive(context, input, plaintext, output) : tls::TlsHandshake(context, input, output);
  failed = failed || !done;
  if (!context.decrypted.empty() && !tls::TlsReceive(context, {}, plaintext, output)) failed = true;
}

void EnginePeer::Send(tls::BytesView data) {
  failed = !tls::TlsSend(context, data, output) || failed;
}

std::string EnginePeer::Error() const {
  std::int32_t number = 0;
  std::string source;
  return tls::TlsGetLastError(context, number, source);
}

namespace {

int AcceptAnyCertificate(int, X509_STORE_CTX*) {
  return 1;
}

int SelectAlpn(SSL*, const unsigned char** out, unsigned char* outSize, const unsigned char* in, unsigned int inSize,
               void* wanted) {
  const auto& name = *static_cast<const std::string*>(wanted);
  for (unsigned int at = 0; at < inSize; at += in[at] + 1U) {
    if (std::string(reinterpret_cast<const char*>(in + at + 1), in[at]) != name) continue;
    *out = in + at + 1;
    *outSize = in[at];
    return SSL_TLSEXT_ERR_OK;
  }
  return SSL_TLSEXT_ERR_NOACK;
}

void Require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

}  // namespace

void UseIdentity(SSL* peer, const Identity& identity) {
  const unsigned char* position = identity.privateKey.data();
  EVP_PKEY* key = d2i_AutoPrivateKey(nullptr, &position, static_cast<long>(identity.privateKey.size()));
  Require(
      SSL_use_certificate_ASN1(peer, identity.certificate.data(), static_cast<int>(identity.certificate.size())) == 1,
      "certificate");
  Require(SSL_use_PrivateKey(peer, key) == 1, "private key");
  EVP_PKEY_free(key);
}

LibsslPeer::LibsslPeer(const PeerOptions& options)
    : m_alpn(options.alpn), m_context(SSL_CTX_new(options.server ? TLS_server_method() : TLS_client_method())) {
  SSL_CTX_set_security_level(m_context, 0);
  if (options.version != 0) {
    SSL_CTX_set_min_proto_version(m_context, options.version);
    SSL_CTX_set_max_proto_version(m_context, options.version);
  }
  if (options.suites.starts_with("TLS_")) {
    Require(SSL_CTX_set_ciphersuites(m_context, options.suites.c_str()) == 1, "suites");
  } else if (!options.suites.empty()) {
    Require(SSL_CTX_set_cipher_list(m_context, options.suites.c_str()) == 1, "suites");
  }
  if (!options.groups.empty()) Require(SSL_CTX_set1_groups_list(m_context, options.groups.c_str()) == 1, "groups");
  SSL_CTX_set_options(m_context, options.options);
  SSL_CTX_set_session_cache_mode(m_context, SSL_SESS_CACHE_OFF);
  int verify = SSL_VERIFY_NONE;
  if (options.requestCertificate) verify = SSL_VERIFY_PEER;
  if (options.requireCertificate) verify |= SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
  if (options.postHandshakeAuth) verify = SSL_VERIFY_PEER | SSL_VERIFY_POST_HANDSHAKE;
  SSL_CTX_set_verify(m_context, verify, AcceptAnyCertificate);
  m_ssl = SSL_new(m_context);
  if (options.identity != nullptr) UseIdentity(m_ssl, *options.identity);
  SSL_set_bio(m_ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  if (options.server) {
    if (!m_alpn.empty()) SSL_CTX_set_alpn_select_cb(m_context, SelectAlpn, const_cast<std::string*>(&m_alpn));
    SSL_set_accept_state(m_ssl);
  } else {
    const std::string wire = static_cast<char>(m_alpn.size()) + m_alpn;
    if (!m_alpn.empty()) {
      SSL_set_alpn_protos(m_ssl, reinterpret_cast<const unsigned char*>(wire.data()),
                          static_cast<unsigned int>(wire.size()));
    }
    SSL_set_connect_state(m_ssl);
    SSL_set_tlsext_host_name(m_ssl, "localhost");
  }
}

LibsslPeer::~LibsslPeer() {
  SSL_free(m_ssl);
  SSL_CTX_free(m_context);
}

void LibsslPeer::Feed(tls::BytesView input) {
  if (!input.empty()) BIO_write(SSL_get_rbio(m_ssl), input.data(), static_cast<int>(input.size()));
  Run();
}

void LibsslPeer::Run() {
  tls::Bytes buffer(16384);
  while (!failed) {
    ERR_clear_error();
    const bool reading = Ready();
    const int count =
        reading ? SSL_read(m_ssl, buffer.data(), static_cast<int>(buffer.size())) : SSL_do_handshake(m_ssl);
    if (count > 0) {
      if (reading) plaintext.insert(plaintext.end(), buffer.begin(), buffer.begin() + count);
      continue;
    }
    const int error = SSL_get_error(m_ssl, count);
    if (error == SSL_ERROR_ZERO_RETURN) closeNotified = true;
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_ZERO_RETURN) {
      failed = true;
      char text[256];
      ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
      m_error = text;
    }
    return;
  }
}

tls::Bytes LibsslPeer::TakeOutput() {
  char* data = nullptr;
  const long size = BIO_get_mem_data(SSL_get_wbio(m_ssl), &data);
  tls::Bytes bytes(data, data + size);
  static_cast<void>(BIO_reset(SSL_get_wbio(m_ssl)));
  return bytes;
}

void LibsslPeer::Send(tls::BytesView data) {
  if (SSL_write(m_ssl, data.data(), static_cast<int>(data.size())) != static_cast<int>(data.size())) failed = true;
}

namespace {

template <typename Peer>
void FeedInPieces(Peer& peer, tls::BytesView bytes, std::mt19937* random) {
  while (!bytes.empty()) {
    std::size_t count = bytes.size();
    if (random != nullptr) {
      const std::size_t most = std::uniform_int_distribution<std::size_t>(0, 9)(*random) < 8 ? 40 : 5000;
      count = std::min(count, std::uniform_int_distribution<std::size_t>(1, most)(*random));
    }
    peer.Feed(bytes.first(count));
    bytes = bytes.subspan(count);
  }
}

}  // namespace

void Converse(EnginePeer& engine, LibsslPeer& peer, std::mt19937* random) {
  peer.Run();
  while (true) {
    const tls::Bytes toPeer = std::exchange(engine.output, {});
    FeedInPieces(peer, toPeer, random);
    const tls::Bytes toEngine = peer.TakeOutput();
    FeedInPieces(engine, toEngine, random);
    if (toPeer.empty() && toEngine.empty()) return;
  }
}

Pair::Pair(const PeerOptions& options, std::uint32_t features, const Identity* shown, std::mt19937* random)
    : identity(options.identity != nullptr ? *options.identity : IdentityOf(KeyKind::kRsa2048)), peer([&] {
        PeerOptions role = options;
        role.identity = options.server ? &identity : nullptr;
        return role;
      }()) {
  engine.shown = shown;
  if (options.server) {
    engine.StartClient(features, "h2|http/1.1");
  } else {
    engine.StartServer(identity, features, "h2|http/1.1");
  }
  Shake(random);
}

void Pair::Shake(std::mt19937* random) {
  Converse(engine, peer, random);
  EXPECT_FALSE(engine.failed) << engine.Error();
  EXPECT_FALSE(peer.failed) << peer.Error();
  EXPECT_TRUE(engine.Ready() && peer.Ready());
}

void Pair::ExpectTraffic(std::size_t size, std::mt19937* random) {
  const tls::Bytes toPeer = Pattern(size, 1);
  const tls::Bytes toEngine = Pattern(size, 2);
  engine.plaintext.clear();
  peer.plaintext.clear();
  engine.Send(toPeer);
  peer.Send(toEngine);
  Converse(engine, peer, random);
  EXPECT_TRUE(engine.plaintext == toEngine) << engine.Error();
  EXPECT_TRUE(peer.plaintext == toPeer) << peer.Error();
}

tls::Bytes Pattern(std::size_t size, unsigned seed) {
  tls::Bytes bytes(size);
  std::mt19937 random(seed);
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

}  // namespace quenmark::test
