#include "simulator/simulator.h"

#include "simulator/certificate.h"
#include "simulator/http_server.h"
#include "simulator/record_sealer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

namespace quenmark::simulator {
namespace {

namespace asio = boost::asio;

// A folder that only this user may enter and that goes away with its object.
class PrivateFolder {
 public:
  PrivateFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "feeder-sim-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    m_path = pattern;
  }
  ~PrivateFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  std::string File(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

void WriteFile(const std::string& name, const std::string& text) {
  std::ofstream file(name, std::ios::binary);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + name);
}

constexpr std::array<std::pair<CertificateFault, std::string_view>, 5> kCertificateFaults{{
    {CertificateFault::kNone, "good"},
    {CertificateFault::kExpired, "expired"},
    {CertificateFault::kOtherHost, "other-host"},
    {CertificateFault::kNotYet, "not-yet"},
    {CertificateFault::kUnknownIssuer, "unknown-issuer"},
}};

CertificateOptions OptionsFor(CertificateFault fault) {
  using std::chrono::hours;
  CertificateOptions options;
  switch (fault) {
    case CertificateFault::kExpired:
      options.notBefore = hours{-48};
      options.notAfter = hours{-24};
      break;
    case CertificateFault::kOtherHost:
      options.dnsName = "stream.example.com";
      options.address = "192.0.2.1";
      break;
    case CertificateFault::kNotYet:
      options.notBefore = hours{24};
      break;
    case CertificateFault::kNone:
    case CertificateFault::kUnknownIssuer:
      break;
  }
  return options;
}

void UseCertificate(asio::ssl::context& context, const ServerCertificate& certificate) {
  context.set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
  RecordSealer::Watch(context.native_handle());
  context.use_certificate(asio::buffer(certificate.certificate), asio::ssl::context::pem);
  context.use_private_key(asio::buffer(certificate.key), asio::ssl::context::pem);
}

}  // namespace

std::optional<CertificateFault> ParseCertificateFault(std::string_view text) {
  for (const auto& [fault, name] : kCertificateFaults) {
    if (name == text) return fault;
  }
  return std::nullopt;
}

void RunSimulator(const SimulatorOptions& options, std::ostream& out) {
  signal(SIGPIPE, SIG_IGN);
  asio::io_context io{1};
  asio::signal_set endings{io, SIGINT, SIGTERM};
  endings.async_wait([&io](boost::system::error_code, int) { io.stop(); });
  if (options.endWithParent) {
    const pid_t parent = getppid();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) return;
  }

  const Authority authority;
  const Authority stranger;
  const PrivateFolder folder;
  const std::string authorityFile = folder.File("ca.pem");
  WriteFile(authorityFile, authority.Pem());
  asio::ssl::context tls{asio::ssl::context::tls_server};
  UseCertificate(tls, authority.Sign({}));
  asio::ssl::context wssTls{asio::ssl::context::tls_server};
  const bool unknown = options.wssCertificate == CertificateFault::kUnknownIssuer;
  UseCertificate(wssTls, (unknown ? stranger : authority).Sign(OptionsFor(options.wssCertificate)));

  Service service{options.service};
  const HttpServer https{io, &tls, options.httpsPort, service};
  const HttpServer wss{io, &wssTls, options.wssPort, service};
  const HttpServer http{io, nullptr, options.httpPort, service};
  Node ready = Node::Object();
  ready.Add("https", Node::Number(https.Port()))
      .Add("http", Node::Number(http.Port()))
      .Add("wss", Node::Number(wss.Port()))
      .Add("ca", Node::Text(authorityFile));
  out << ToJson(ready) << std::endl;
  io.run();
}

}  // namespace quenmark::simulator
