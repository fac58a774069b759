#include "simulator/simulator.h"

#include "simulator/certificate.h"
#include "simulator/http_server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <stdexcept>
#include <string>

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

void UseCertificate(asio::ssl::context& context, const ServerCertificate& certificate) {
  context.set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
  context.use_certificate(asio::buffer(certificate.certificate), asio::ssl::context::pem);
  context.use_private_key(asio::buffer(certificate.key), asio::ssl::context::pem);
}

}  // namespace

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

  const ServerCertificate certificate = MakeServerCertificate({});
  const PrivateFolder folder;
  const std::string authorityFile = folder.File("ca.pem");
  WriteFile(authorityFile, certificate.authority);
  asio::ssl::context tls{asio::ssl::context::tls_server};
  UseCertificate(tls, certificate);

  Service service{options.service};
  const HttpServer https{io, &tls, options.httpsPort, service};
  const HttpServer http{io, nullptr, options.httpPort, service};
  Node ready = Node::Object();
  ready.Add("https", Node::Number(https.Port()))
      .Add("http", Node::Number(http.Port()))
      .Add("ca", Node::Text(authorityFile));
  out << ToJson(ready) << std::endl;
  io.run();
}

}  // namespace quenmark::simulator
