// The engine against the GnuTLS command-line programs over loopback. RSA-PSS keys are left out: the installed
// gnutls-serv does not take one for TLS 1.2.
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tests/tls/peers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::test {
namespace {

using tls::Bytes;

constexpr std::uint32_t kBoth = tls::kFeatureTls12 | tls::kFeatureTls13;

class Socket {
 public:
  explicit Socket(int handle = -1) : m_handle(handle) {}
  Socket(Socket&& other) noexcept : m_handle(std::exchange(other.m_handle, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(m_handle, other.m_handle);
    return *this;
  }
  ~Socket() {
    if (m_handle >= 0) close(m_handle);
  }
  bool Open() const { return m_handle >= 0; }

  static Socket Connect(int port) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = Loopback(port);
    if (connect(socket.m_handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return Socket();
    socket.LimitWaits();
    return socket;
  }
  // A listening socket on a free port.
  static Socket Listen(int& port) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    const int on = 1;
    setsockopt(socket.m_handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (bind(socket.m_handle, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(socket.m_handle, 5) != 0) {
      return Socket();
    }
    getsockname(socket.m_handle, reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    socket.LimitWaits();
    return socket;
  }
  Socket Accept() const {
    Socket socket(accept(m_handle, nullptr, nullptr));
    if (socket.Open()) socket.LimitWaits();
    return socket;
  }
  void Write(const Bytes& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = send(m_handle, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return;
      sent += static_cast<std::size_t>(count);
    }
  }
  Bytes Read() const {
    Bytes bytes(65536);
    const ssize_t count = recv(m_handle, bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
  }

 private:
  static sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  void LimitWaits() const {
    const timeval limit{10, 0};
    setsockopt(m_handle, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(m_handle, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }

  int m_handle;
};

// The engine over a socket.
class Connection {
 public:
  Connection(EnginePeer& engine, Socket socket) : m_engine(engine), m_socket(std::move(socket)) {}

  // Works until `condition` holds; false when the peer ends or falls silent before.
  template <typename Condition>
  bool Until(Condition condition) {
    while (true) {
      m_socket.Write(std::exchange(m_engine.output, {}));
      if (condition()) return true;
      if (m_engine.Closed()) return false;
      const Bytes bytes = m_socket.Read();
      if (bytes.empty()) return false;
      m_engine.Feed(bytes);
    }
  }

 private:
  EnginePeer& m_engine;
  Socket m_socket;
};

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

Bytes Line(std::size_t size) {
  Bytes line(size, 'x');
  for (std::size_t i = 0; i < size; ++i) line[i] = static_cast<std::uint8_t>('a' + i % 26);
  line.back() = '\n';
  return line;
}

class GnutlsServer {
 public:
  GnutlsServer(const std::string& priority, KeyKind key, std::vector<std::string> extra = {"--disable-client-cert"}) {
    WriteFile(m_folder.File("cert.pem"), IdentityOf(key).certificatePem);
    WriteFile(m_folder.File("key.pem"), IdentityOf(key).privateKeyPem);
    Socket::Listen(m_port);  // a port that is free now
    std::vector<std::string> arguments = {"--echo",
                                          "--x509certfile",
                                          m_folder.File("cert.pem"),
                                          "--x509keyfile",
                                          m_folder.File("key.pem"),
                                          "--priority",
                                          priority,
                                          "-p",
                                          std::to_string(m_port)};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    m_child = std::make_unique<ChildProcess>("gnutls-serv", arguments);
  }
  Socket Connect() {
    Socket socket;
    Eventually([&] {
      socket = Socket::Connect(m_port);
      return socket.Open();
    });
    return socket;
  }

 private:
  TemporaryFolder m_folder;
  int m_port = 0;
  std::unique_ptr<ChildProcess> m_child;
};

// gnutls-cli with an input that stays open; it would say goodbye at its end.
class GnutlsClient {
 public:
  GnutlsClient(const std::string& priority, int port, const std::string& input) {
    const std::string fifo = m_folder.File("input");
    if (mkfifo(fifo.c_str(), 0600) != 0) throw std::runtime_error("no fifo");
    m_input = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    Type(input);
    m_child = std::make_unique<ChildProcess>(
        "sh", std::vector<std::string>{"-c",
                                       "exec gnutls-cli --insecure --inline-commands --logfile=/dev/null "
                                       "--priority \"$0\" -p \"$1\" localhost < \"$2\"",
                                       priority, std::to_string(port), fifo});
  }
  void Type(const std::string& text) const {
    if (write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("no input");
    }
  }
  ~GnutlsClient() { close(m_input); }
  GnutlsClient(const GnutlsClient&) = delete;
  GnutlsClient& operator=(const GnutlsClient&) = delete;
  ChildProcess& Process() { return *m_child; }

 private:
  TemporaryFolder m_folder;
  int m_input = -1;
  std::unique_ptr<ChildProcess> m_child;
};

std::string Priority13(const std::string& cipher, const std::string& group) {
  return "NONE:+VERS-TLS1.3:+AEAD:+SIGN-ALL:+CTYPE-ALL:+COMP-NULL:+" + cipher + ":+" + group;
}
std::string Priority12(const std::string& exchange, const std::string& cipher, const std::string& mac,
                       const std::string& group) {
  return "NONE:+VERS-TLS1.2:+SIGN-ALL:+CTYPE-ALL:+COMP-NULL:+" + exchange + ":+" + cipher + ":+" + mac + ":+" + group;
}

struct Row {
  std::string suite;
  std::string priority;
  KeyKind key;
};

std::vector<Row> Rows() {
  std::vector<Row> rows;
  const std::string x25519 = "GROUP-X25519";
  const std::string p256 = "GROUP-SECP256R1";
  const std::string p384 = "GROUP-SECP384R1";
  rows.push_back({"TLS_AES_128_GCM_SHA256", Priority13("AES-128-GCM", x25519), KeyKind::kP256});
  rows.push_back({"TLS_AES_256_GCM_SHA384", Priority13("AES-256-GCM", p256), KeyKind::kRsa2048});
  rows.push_back({"TLS_CHACHA20_POLY1305_SHA256", Priority13("CHACHA20-POLY1305", p384), KeyKind::kP384});
  rows.push_back({"TLS_AES_256_GCM_SHA384", Priority13("AES-256-GCM", x25519), KeyKind::kRsa4096});
  for (const KeyKind key : {KeyKind::kP256, KeyKind::kRsa2048}) {
    const bool ecdsa = key == KeyKind::kP256;
    const std::string name = ecdsa ? "ECDHE-ECDSA-" : "ECDHE-RSA-";
    const std::string exchange = ecdsa ? "ECDHE-ECDSA" : "ECDHE-RSA";
    const std::string groups = x25519 + ":+" + p256;
    rows.push_back({name + "AES128-GCM-SHA256", Priority12(exchange, "AES-128-GCM", "AEAD", groups), key});
    rows.push_back({name + "AES256-GCM-SHA384", Priority12(exchange, "AES-256-GCM", "AEAD", p256), key});
    rows.push_back({name + "CHACHA20-POLY1305", Priority12(exchange, "CHACHA20-POLY1305", "AEAD", groups), key});
    rows.push_back({name + "AES128-SHA", Priority12(exchange, "AES-128-CBC", "SHA1", p384 + ":+" + p256), key});
    rows.push_back({name + "AES256-SHA", Priority12(exchange, "AES-256-CBC", "SHA1", groups), key});
  }
  const auto transport = [&](const char* suite, const char* cipher, const char* mac) {
    rows.push_back({suite, Priority12("RSA", cipher, mac, x25519), KeyKind::kRsa2048});
  };
  transport("AES128-GCM-SHA256", "AES-128-GCM", "AEAD");
  transport("AES256-GCM-SHA384", "AES-256-GCM", "AEAD");
  transport("AES128-SHA", "AES-128-CBC", "SHA1");
  transport("AES256-SHA", "AES-256-CBC", "SHA1");
  return rows;
}

TEST(InteropGnutls, ClientTalksEverySuite) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.suite + " " + KindName(row.key) + " " + row.priority);
    GnutlsServer server(row.priority, row.key);
    EnginePeer engine;
    engine.StartClient(kBoth);
    Connection connection(engine, server.Connect());
    ASSERT_TRUE(connection.Until([&] { return engine.Ready(); })) << engine.Error();
    EXPECT_EQ(engine.context.cipherSuite->name, row.suite);
    const Bytes line = Line(2000);
    engine.Send(line);
    EXPECT_TRUE(connection.Until([&] { return engine.plaintext.size() >= line.size(); })) << engine.Error();
    EXPECT_EQ(engine.plaintext, line);
  }
}

TEST(InteropGnutls, ServerTalksEverySuite) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.suite + " " + KindName(row.key) + " " + row.priority);
    int port = 0;
    const Socket listener = Socket::Listen(port);
    const Bytes line = Line(2000);
    GnutlsClient client(row.priority, port, std::string(line.begin(), line.end()));
    EnginePeer engine;
    engine.StartServer(IdentityOf(row.key), kBoth);
    Connection connection(engine, listener.Accept());
    ASSERT_TRUE(connection.Until([&] { return engine.Ready(); })) << engine.Error() << client.Process().ErrorText();
    EXPECT_EQ(engine.context.cipherSuite->name, row.suite);
    EXPECT_TRUE(connection.Until([&] { return engine.plaintext.size() >= line.size(); })) << engine.Error();
    EXPECT_EQ(engine.plaintext, line);
    engine.Send(Line(100));
    EXPECT_TRUE(tls::TlsShutdown(engine.context, engine.output));
    connection.Until([&] { return engine.Closed(); });
    const Bytes reply = Line(100);
    EXPECT_NE(client.Process().ReadAll().find(std::string(reply.begin(), reply.end())), std::string::npos);
  }
}

class Owner : public tls::ClientCertificateOwner {
 public:
  Owner(EnginePeer& engine, KeyKind key) : m_engine(engine), m_key(key) {}
  bool FireOnClientCertificate(const std::vector<Bytes>&) override {
    ++calls;
    m_engine.context.localCertificates = {IdentityOf(m_key).certificate};
    const Bytes& key = IdentityOf(m_key).privateKey;
    m_engine.context.localPrivateKey.assign(key.begin(), key.end());
    return true;
  }
  int calls = 0;

 private:
  EnginePeer& m_engine;
  KeyKind m_key;
};

TEST(InteropGnutls, ClientCertificateAndPostHandshakeRequest) {
  for (const std::string version : {"-VERS-ALL:+VERS-TLS1.3", "-VERS-ALL:+VERS-TLS1.2"}) {
    for (const KeyKind key : {KeyKind::kP256, KeyKind::kP384, KeyKind::kRsa2048}) {
      SCOPED_TRACE(version + " " + KindName(key));
      GnutlsServer server("NORMAL:" + version, KeyKind::kRsa2048, {"--require-client-cert"});
      EnginePeer engine;
      Owner owner(engine, key);
      engine.StartClient(kBoth, "localhost", "", &owner);
      Connection connection(engine, server.Connect());
      ASSERT_TRUE(connection.Until([&] { return engine.Ready(); })) << engine.Error();
      EXPECT_EQ(owner.calls, 1);
      engine.Send(Line(50));
      EXPECT_TRUE(connection.Until([&] { return engine.plaintext.size() >= 50; })) << engine.Error();
    }
  }
  GnutlsServer server("NORMAL:-VERS-ALL:+VERS-TLS1.3", KeyKind::kRsa2048);
  EnginePeer engine;
  Owner owner(engine, KeyKind::kP256);
  engine.StartClient(kBoth, "localhost", "", &owner);
  Connection connection(engine, server.Connect());
  ASSERT_TRUE(connection.Until([&] { return engine.Ready(); })) << engine.Error();
  const std::string command = "**REAUTH**\n";
  engine.Send(Bytes(command.begin(), command.end()));
  EXPECT_TRUE(connection.Until([&] { return owner.calls > 0; })) << engine.Error();
  engine.plaintext.clear();
  engine.Send(Line(50));
  EXPECT_TRUE(connection.Until([&] { return engine.plaintext.size() >= 50; })) << engine.Error();
}

TEST(InteropGnutls, KeyUpdateFromTheClientProgram) {
  for (const std::string command : {"^rekey^", "^rekey1^"}) {
    int port = 0;
    const Socket listener = Socket::Listen(port);
    GnutlsClient client("NORMAL:-VERS-ALL:+VERS-TLS1.3", port, "");
    EnginePeer engine;
    engine.StartServer(IdentityOf(KeyKind::kP256), kBoth);
    Connection connection(engine, listener.Accept());
    ASSERT_TRUE(connection.Until([&] { return engine.Ready(); })) << engine.Error() << client.Process().ErrorText();
    const std::string secret = ToHex(engine.context.remote.trafficSecret.View());
    client.Type(command + "\n");
    EXPECT_TRUE(connection.Until([&] { return ToHex(engine.context.remote.trafficSecret.View()) != secret; }));
    client.Type("two\n");
    EXPECT_TRUE(connection.Until([&] { return engine.plaintext == Bytes{'t', 'w', 'o', '\n'}; })) << engine.Error();
  }
}

}  // namespace
}  // namespace quenmark::test
