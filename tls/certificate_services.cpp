#include "tls/certificate_services.h"

#include "platform/http_address.h"
#include "platform/http_client.h"
#include "platform/message_loop.h"
#include "platform/trust_anchors.h"
#include "tls/certificate_pem.h"
#include "tls/certificate_validation.h"
#include "tls/error.h"
#include "tls/keys.h"

#include <charconv>
#include <chrono>

namespace quenmark::tls {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMaxListBytes = std::size_t{8} << 20;  // of one revocation list
constexpr platform::HttpLimits kListLimits{5s, 10s, kMaxListBytes};
constexpr auto kAllLists = 15s;  // for the lists of one validation
constexpr std::size_t kPiece = std::size_t{64} << 10;

class SystemCertificates final : public CertificateServices {
 public:
  SystemCertificates(platform::MessageLoop& loop, const platform::Clock& clock) : m_loop(loop), m_clock(clock) {}

  bool ValidateChain(const ChainRequest& request, CertificateError& error) override {
    return Guarded("pvPkiCertChainValidate", error, [&] {
      ChainCheck check{request, nullptr, Now(), {}};
      const auto system = request.rootStore ? nullptr : SystemRoots();
      check.systemRoots = system.get();
      const auto deadline = m_loop.TheClock().Monotonic() + kAllLists;
      check.fetch = [this, deadline](const std::string& address) { return Fetch(address, deadline); };
      return pvPkiCertChainValidate(check, error);
    });
  }

  bool ImportPem(std::string_view fileNames, Identity& identity, CertificateError& error) override {
    return Guarded("pvPkiPemImportCertificates", error,
                   [&] { return pvPkiPemImportCertificates(fileNames, identity, error); });
  }
  bool ImportPkcs12(std::string_view fileName, std::string_view password, Identity& identity,
                    CertificateError& error) override {
    return Guarded("pvPkiPkcs12ImportCertificates", error,
                   [&] { return pvPkiPkcs12ImportCertificates(fileName, password, identity, error); });
  }
  bool ImportRoots(std::string_view fileName, std::shared_ptr<const RootStore>& rootStore,
                   CertificateError& error) override {
    return Guarded("pvPkiPemImportRootCaCertStore", error,
                   [&] { return pvPkiPemImportRootCaCertStore(fileName, rootStore, error); });
  }
  bool MakeSelfSigned(std::string_view subject, Identity& identity, CertificateError& error) override {
    return Guarded("pvPkiGenerSelfSignedCertificate", error,
                   [&] { return pvPkiGenerSelfSignedCertificate(subject, Now(), identity, error); });
  }

 private:
  // Nothing leaves these services as an exception.
  template <typename Routine>
  static bool Guarded(std::string_view name, CertificateError& error, Routine routine) {
    try {
      return routine();
    } catch (const RaisedError& raised) {
      error = {raised.number, raised.description, "cTlsSocket." + std::string(name)};
    } catch (const std::exception& fault) {
      error = {kEngineError, fault.what(), "cTlsSocket." + std::string(name)};
    }
    return false;
  }

  std::int64_t Now() const {
    return std::chrono::duration_cast<std::chrono::seconds>(m_clock.Now().time_since_epoch()).count();
  }

  // The system's anchors, parsed when they are first asked for. A damaged one costs no other.
  std::shared_ptr<const RootStore> SystemRoots() {
    if (m_systemRoots) return m_systemRoots;
    std::vector<Bytes> certificates;
    const auto blocks = ReadPemBlocks(platform::LoadTrustAnchors(), kPemCertificate, PemFaults::kSkip);
    for (const auto& block : *blocks) {
      certificates.emplace_back(block.begin(), block.end());
    }
    m_systemRoots = MakeRootStore(certificates, true);
    return m_systemRoots;
  }

  Bytes Fetch(const std::string& address, platform::MonotonicTime deadline) {
    const auto parts = platform::ParseAddress(address);
    int port = 0;
    if (!parts || parts->scheme != "http") return {};
    const char* end = parts->port.data() + parts->port.size();
    if (std::from_chars(parts->port.data(), end, port).ptr != end) return {};
    if (m_loop.TheClock().Monotonic() >= deadline) return {};
    const std::size_t path = address.find('/', address.find("//") + 2);
    const std::string object = path == std::string::npos ? "/" : address.substr(path, address.find('#') - path);

    const platform::MessageLoop::MainTickPause pause(m_loop);
    const auto client = platform::MakeHttpClient(m_loop, "Quenmark");
    client->SetLimits(kListLimits);
    const auto stream = client->CreateStream();
    Bytes list;
    if (!stream->Open("Quenmark") || !stream->Connect(parts->host, port) ||
        !stream->OpenRequest("GET", object, false) || !stream->Send({}) || stream->StatusCode() != 200) {
      return list;
    }
    std::string piece;
    for (;;) {
      switch (stream->Read(piece, kPiece, deadline)) {
        case platform::HttpStream::ReadEnd::kData:
          if (piece.size() > kMaxListBytes - list.size()) return {};
          list.insert(list.end(), piece.begin(), piece.end());
          break;
        case platform::HttpStream::ReadEnd::kEnd:
          return list;
        case platform::HttpStream::ReadEnd::kTimeUp:
        case platform::HttpStream::ReadEnd::kFailed:
          return {};
      }
    }
  }

  platform::MessageLoop& m_loop;
  const platform::Clock& m_clock;
  std::shared_ptr<const RootStore> m_systemRoots;
};

}  // namespace

std::shared_ptr<CertificateServices> MakeCertificateServices(platform::MessageLoop& loop) {
  return std::make_shared<SystemCertificates>(loop, loop.TheClock());
}

std::shared_ptr<CertificateServices> MakeCertificateServices(platform::MessageLoop& loop,
                                                             const platform::Clock* clock) {
  return std::make_shared<SystemCertificates>(loop, *clock);
}

}  // namespace quenmark::tls
