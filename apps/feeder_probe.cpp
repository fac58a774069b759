// feeder-probe: diagnostic clients and servers on this system's own TLS and WebSocket code.
#include "apps/probe/usage_error.h"
#include "apps/probe/websocket_probe.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/message_loop.h"
#include "platform/standard_input.h"
#include "platform/stop_signals.h"
#include "platform/winsock_errors.h"
#include "tls/certificate_verify.h"
#include "tls/groups.h"
#include "tls/tls_socket.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace quenmark;
using probe::UsageError;
using tls::cTlsSocket;

constexpr int kExitClean = 0;
constexpr int kExitTls = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNetwork = 3;
constexpr std::size_t kMaxQueuedInput = std::size_t{1024} * 1024;  // bytes sent ahead of the peer
constexpr std::size_t kMaxRequestHead = std::size_t{64} * 1024;    // bytes

struct Arguments {
  std::string target;
  std::string name;
  std::string ca;
  bool insecure = false;
  std::string alpn;
  std::string versions = "both";
  std::string certificates;
  std::string pkcs12;
  std::string passwordFile;
  int timeout = 0;  // ms, 0: none

  int port = 0;
  std::string mode = "echo";
  bool once = false;

  tls::VerifyOptions verify;
  std::string verifyTime;

  probe::WebsocketArguments websocket;
};

std::uint32_t Features(const Arguments& given) {
  const std::uint32_t versions = given.versions == "1.2" ? 4 : given.versions == "1.3" ? 8 : 15;
  return versions | (given.insecure ? tls::kFeatureIgnoreCertificateErrors : 0);
}

std::string Password(const Arguments& given) {
  if (given.passwordFile.empty()) return {};
  if (!platform::FileExists(given.passwordFile)) throw UsageError{"the password file cannot be read"};
  std::string text = platform::ReadWholeFile(given.passwordFile);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

std::pair<std::string, int> HostAndPort(const std::string& target) {
  const std::size_t colon = target.rfind(':');
  int port = 0;
  if (colon != std::string::npos && colon > 0) {
    const char* end = target.data() + target.size();
    const auto [stop, error] = std::from_chars(target.data() + colon + 1, end, port);
    if (error == std::errc() && stop == end && port > 0 && port <= 0xFFFF) return {target.substr(0, colon), port};
  }
  throw UsageError{"the target is HOST:PORT"};
}

void PrintError(const cTlsSocket& socket) {
  const tls::SocketError error = socket.LastError();
  std::string alert;
  if (const int code = socket.Engine().lastError.alertCode; code != tls::kNoAlert) {
    alert = fmt::format(" alert={}", tls::AlertName(code));
  }
  fmt::print(stderr, "feeder-probe: {}{}\n", error.description, alert);
}

std::string Facts(const cTlsSocket& socket, std::string_view chain) {
  const tls::Context& engine = socket.Engine();
  const tls::Group* group = tls::FindGroup(engine.exchangeGroup);
  return fmt::format("version={} suite={} group={} scheme={} alpn={} chain={}",
                     engine.protocolVersion == tls::kVersionTls13 ? "1.3" : "1.2",
                     engine.cipherSuite != nullptr ? engine.cipherSuite->name : "-",
                     group != nullptr ? group->name : "-",
                     engine.peerScheme != 0 ? tls::SignatureSchemeName(engine.peerScheme) : "-",
                     engine.alpnNegotiated.empty() ? "-" : engine.alpnNegotiated, chain);
}

// --- tls -------------------------------------------------------------------------------------------------------------

class Client final : public tls::TlsSocketEvents {
 public:
  Client(platform::MessageLoop& loop, const Arguments& given)
      : m_loop(loop),
        m_given(given),
        m_input(loop, [this](std::span<const std::uint8_t> data) { OnInput(data); }),
        m_timer(loop, std::chrono::milliseconds{given.timeout}, [this] { Fail("timed out"); }) {}

  int Run(const std::shared_ptr<Client>& self) {
    const auto [host, port] = HostAndPort(m_given.target);
    m_name = m_given.name.empty() ? host : m_given.name;
    m_socket = cTlsSocket::New(m_loop, tls::MakeCertificateServices(m_loop));
    m_socket->SetEvents(self);
    const bool loaded =
        (m_given.ca.empty() || m_socket->PkiPemImportRootCaCertStore(m_given.ca)) &&
        (m_given.certificates.empty() || m_socket->PkiPemImportCertificates(m_given.certificates)) &&
        (m_given.pkcs12.empty() || m_socket->PkiPkcs12ImportCertificates(m_given.pkcs12, Password(m_given)));
    if (!loaded) throw UsageError{m_socket->LastError().description};
    if (m_given.timeout > 0) m_timer.SetEnabled(true);
    if (m_socket->Connect(host, port, false)) {
      m_loop.Run();
    } else {
      Fail(m_socket->LastError().description);
    }
    m_socket->Socket()->Close_();
    return m_exit;
  }

  void OnConnect(cTlsSocket& socket) override {
    if (!socket.UseTls()) {
      if (!socket.StartTls(m_name, Features(m_given), {}, m_given.alpn)) End(kExitTls);
      return;
    }
    Active();
    fmt::print(stderr, "{}\n", Facts(socket, m_given.insecure ? "unchecked" : "valid"));
    m_connected = true;
    m_input.Request();
  }
  void OnReceive(cTlsSocket& socket) override {
    Active();
    if (!socket.ReceiveArray(m_buffer)) return;
    const std::size_t written = std::fwrite(m_buffer.data(), 1, m_buffer.size(), stdout);
    if (written != m_buffer.size() || std::fflush(stdout) != 0) Fail("standard output cannot be written");
  }
  void OnSend(cTlsSocket& /*socket*/) override {
    Active();
    if (m_connected && std::exchange(m_inputWaits, false)) m_input.Request();
  }
  void OnClose(cTlsSocket& socket) override {
    if (socket.PeerClosedCleanly() && m_connected) return End(kExitClean);
    if (socket.Engine().lastError.number != 0) return End(kExitTls);
    Fail("the peer ended the connection without close_notify", kExitTls);
  }
  void OnError(cTlsSocket& socket, std::int32_t /*errorCode*/, std::int32_t /*eventMask*/) override {
    const tls::Context& engine = socket.Engine();
    const bool failed = engine.lastError.number != 0;
    if (!m_connected && !m_ended && engine.protocolVersion != 0) {
      const bool refused = failed && engine.handshakesCompleted > 0;
      fmt::print(stderr, "{}\n", Facts(socket, refused ? "invalid" : "unchecked"));
    }
    End(failed ? kExitTls : kExitNetwork);
  }

 private:
  void Active() {
    if (m_given.timeout <= 0) return;
    m_timer.SetEnabled(false);
    m_timer.SetEnabled(true);
  }
  // The first ending counts.
  void End(int exit) {
    if (std::exchange(m_ended, true)) return;
    m_exit = exit;
    if (exit != kExitClean) PrintError(*m_socket);
    m_loop.Quit();
  }
  void Fail(std::string_view text, int exit = kExitNetwork) {
    if (std::exchange(m_ended, true)) return;
    fmt::print(stderr, "feeder-probe: {}\n", text);
    m_exit = exit;
    m_loop.Quit();
  }
  void OnInput(std::span<const std::uint8_t> data) {
    if (data.empty()) return;  // the peer has the last word
    Active();
    if (!m_socket->SendArray(data)) return;
    m_queued += data.size();
    m_inputWaits = m_socket->HasPendingEvent() && m_queued > kMaxQueuedInput;
    if (!m_socket->HasPendingEvent()) m_queued = 0;
    if (!m_inputWaits) m_input.Request();
  }

  platform::MessageLoop& m_loop;
  const Arguments& m_given;
  platform::StandardInput m_input;
  platform::Timer m_timer;
  std::string m_name;
  std::shared_ptr<cTlsSocket> m_socket;
  tls::Bytes m_buffer;
  std::size_t m_queued = 0;  // bytes given to the socket since it last took everything
  bool m_inputWaits = false;
  bool m_connected = false;
  bool m_ended = false;
  int m_exit = kExitClean;
};

// --- tls-server ------------------------------------------------------------------------------------------------------

class Server final : public tls::TlsSocketEvents, public std::enable_shared_from_this<Server> {
 public:
  Server(platform::MessageLoop& loop, const Arguments& given) : m_loop(loop), m_given(given) {}

  int Run() {
    m_listener = cTlsSocket::New(m_loop, tls::MakeCertificateServices(m_loop));
    m_listener->SetEvents(weak_from_this());
    if (!m_listener->InitServerTls(m_given.certificates, m_given.pkcs12, Password(m_given), {}, {}, m_given.alpn,
                                   Features(m_given))) {
      throw UsageError{m_listener->LastError().description};
    }
    std::string address;
    std::int32_t port = 0;
    if (!m_listener->Create() || !m_listener->Socket()->SetSockOpt(4, 1) ||
        !m_listener->Bind("127.0.0.1", m_given.port) || !m_listener->Listen(128) ||
        !m_listener->GetSockName(address, port)) {
      PrintError(*m_listener);
      return kExitNetwork;
    }
    if (m_given.port == 0) {
      fmt::print("{}\n", port);
      std::fflush(stdout);
    }
    m_loop.Run();
    return m_exit;
  }

  void OnAccept(cTlsSocket& socket) override {
    std::shared_ptr<cTlsSocket> connection;
    if (!socket.Accept(connection)) return;
    connection->SetEvents(weak_from_this());
    m_connections[connection.get()].socket = connection;
    if (m_given.once) m_listener->Socket()->Close_();
  }
  void OnReceive(cTlsSocket& socket) override {
    Connection& connection = m_connections[&socket];
    tls::Bytes& data = m_buffer;
    if (connection.full || !socket.ReceiveArray(data) || m_given.mode == "discard") return;
    if (m_given.mode == "echo") {
      if (socket.SendArray(data)) connection.full = socket.HasPendingEvent();
      return;
    }
    if (connection.answered) return;
    connection.head.append(data.begin(), data.end());
    if (connection.head.find("\r\n\r\n") != std::string::npos) {
      connection.answered = true;
      socket.SendText(
          "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 3\r\nConnection: close\r\n\r\nok\n");
      socket.Close_();
    } else if (connection.head.size() > kMaxRequestHead) {
      Finish(socket, kExitTls);
    }
  }
  void OnSend(cTlsSocket& socket) override {
    if (std::exchange(m_connections[&socket].full, false) && socket.AvailableBytes() > 0) OnReceive(socket);
  }
  void OnClose(cTlsSocket& socket) override {
    if (socket.LastError().number != 0) PrintError(socket);
    Finish(socket, socket.PeerClosedCleanly() ? kExitClean : kExitTls);
  }
  void OnError(cTlsSocket& socket, std::int32_t /*errorCode*/, std::int32_t /*eventMask*/) override {
    PrintError(socket);
    if (&socket != m_listener.get()) Finish(socket, socket.Engine().lastError.number != 0 ? kExitTls : kExitNetwork);
  }

 private:
  struct Connection {
    std::shared_ptr<cTlsSocket> socket;
    std::string head;
    bool answered = false;
    bool full = false;  // nothing is read while the peer does not take its echo
  };

  void Finish(cTlsSocket& socket, int exit) {
    socket.Socket()->Close_();
    m_connections.erase(&socket);
    if (!m_given.once) return;
    m_exit = exit;
    m_loop.Quit();
  }

  platform::MessageLoop& m_loop;
  const Arguments& m_given;
  std::shared_ptr<cTlsSocket> m_listener;
  std::map<cTlsSocket*, Connection> m_connections;
  tls::Bytes m_buffer;
  int m_exit = kExitClean;
};

// --- Command line ----------------------------------------------------------------------------------------------------

int Verify(platform::MessageLoop& loop, Arguments& given) {
  if (!given.verifyTime.empty()) {
    given.verify.time = tls::ParseVerifyTime(given.verifyTime);
    if (!given.verify.time) throw UsageError{"--time takes RFC 3339 or Unix seconds"};
  }
  const tls::VerifyAnswer answer = tls::VerifyChainFile(given.verify, loop);
  fmt::print(answer.exitStatus == tls::kVerifyUnreadable ? stderr : stdout, "{}\n", answer.text);
  return answer.exitStatus;
}

void DescribeShared(CLI::App& command, Arguments& given) {
  command.add_option("--alpn", given.alpn, "Application protocols, separated by |");
  command.add_option("--versions", given.versions, "1.2, 1.3 or both")->check(CLI::IsMember({"1.2", "1.3", "both"}));
  command.add_option("--cert", given.certificates, "PEM files with certificates and key, separated by |");
  command.add_option("--pkcs12", given.pkcs12, "PKCS#12 file with certificates and key");
  command.add_option("--password-file", given.passwordFile, "File with the password of the PKCS#12 file");
}

void Describe(CLI::App& app, Arguments& given) {
  app.require_subcommand(1);
  CLI::App& client = *app.add_subcommand("tls", "Connect, then pipe standard input and output");
  client.add_option("HOST:PORT", given.target)->required();
  client.add_option("--name", given.name, "Name to send and to check; HOST by default");
  client.add_option("--ca", given.ca, "PEM file of the only roots to trust");
  client.add_flag("--insecure", given.insecure, "Do not check the server's certificate");
  client.add_option("--timeout", given.timeout, "Milliseconds to connect in, and to be idle for")
      ->check(CLI::NonNegativeNumber);
  DescribeShared(client, given);

  CLI::App& server = *app.add_subcommand("tls-server", "Serve on 127.0.0.1");
  server.add_option("PORT", given.port, "0: a free one, which is printed")->required()->check(CLI::Range(0, 0xFFFF));
  server.add_option("--mode", given.mode, "echo, http or discard")->check(CLI::IsMember({"echo", "http", "discard"}));
  server.add_flag("--once", given.once, "Serve one connection and exit with its result");
  DescribeShared(server, given);

  CLI::App& verify = *app.add_subcommand("verify", "Check a certificate chain");
  verify.add_option("CHAIN.pem", given.verify.chainFile, "End-entity certificate first")->required();
  verify.add_option("--host", given.verify.host, "Name the certificate must have")->required();
  verify.add_option("--roots", given.verify.rootsFile, "PEM file of the only roots to trust");
  verify.add_option("--time", given.verifyTime, "RFC 3339 or Unix seconds; now by default");
  verify.add_flag("--revocation", given.verify.checkRevocation, "Ask for revocation lists");

  probe::DescribeWebsocket(app, given.websocket);
}

int Run(const CLI::App& app, Arguments& given) {
  platform::IgnoreBrokenPipes();
  platform::SystemClock clock;
  platform::MessageLoop loop(clock);
  const std::string& name = app.get_subcommands().front()->get_name();
  if (name == "ws") return probe::RunWebsocket(loop, given.websocket);
  const platform::StopSignals signals(loop, [&] { loop.Quit(); });
  if (name == "verify") return Verify(loop, given);
  if (name == "tls-server") return std::make_shared<Server>(loop, given)->Run();
  const auto client = std::make_shared<Client>(loop, given);
  return client->Run(client);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Diagnostic clients and servers on the feeder's own TLS and WebSocket code", "feeder-probe"};
  Arguments given;
  Describe(app, given);
  try {
    app.parse(argc, argv);
    return Run(app, given);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitClean : kExitUsage;
  } catch (const UsageError& error) {
    fmt::print(stderr, "feeder-probe: {}\n", error.text);
    return kExitUsage;
  } catch (const std::exception& error) {
    fmt::print(stderr, "feeder-probe: {}\n", error.what());
    return kExitNetwork;
  }
}
