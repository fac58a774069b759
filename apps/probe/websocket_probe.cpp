#include "apps/probe/websocket_probe.h"

#include "apps/probe/usage_error.h"
#include "platform/files.h"
#include "platform/stop_signals.h"
#include "websocket/tls_transport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <utility>

namespace quenmark::probe {

namespace {

using websocket::FrameOptions;
using websocket::MessageData;

constexpr std::chrono::milliseconds kPatience{1000};  // for the server's half of the closing
constexpr int kExitClean = 0;
constexpr int kExitFailed = 1;

// One line for a terminal: whatever a server sends, it moves no cursor.
std::string Printable(std::string text) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  return text;
}

void CheckHeader(const std::string& header) {
  const std::size_t colon = header.find(':');
  if (colon == std::string::npos || colon == 0 || header.find_first_of("\r\n") != std::string::npos) {
    throw UsageError{"a header is 'Name: value'"};
  }
}

class Probe {
 public:
  Probe(platform::MessageLoop& loop, const WebsocketArguments& given)
      : m_loop(loop),
        m_given(given),
        m_signals(loop, [this] { m_ended = m_leaving || !Leave(); }),
        m_idle(loop, std::chrono::milliseconds{given.timeout}, [this] { OnIdle(); }),
        m_patience(loop, kPatience, [this] { OnPatienceEnd(); }) {}

  int Run() {
    const auto certificates = tls::MakeCertificateServices(m_loop);
    Check(*certificates);
    m_socket = std::make_unique<websocket::Websocket>(
        m_loop, websocket::MakeWebsocketServices(m_loop, certificates, m_given.ca), Events());
    m_socket->SetUseCompression(m_given.compress);
    Active();
    m_socket->Connect(m_given.url, {}, fmt::to_string(fmt::join(m_given.protocols, ",")),
                      fmt::to_string(fmt::join(m_given.extensions, ",")), m_given.headers);
    m_loop.WaitUntil([this] { return m_ended || m_socket->readyState() == websocket::kStateClosed; },
                     platform::MonotonicTime::max());
    return m_exit;
  }

 private:
  void Check(tls::CertificateServices& certificates) const {
    std::for_each(m_given.headers.begin(), m_given.headers.end(), CheckHeader);
    tls::CertificateError error;
    std::shared_ptr<const tls::RootStore> roots;
    if (!m_given.ca.empty() && !certificates.ImportRoots(m_given.ca, roots, error)) throw UsageError{error.description};
    if (!m_given.binaryFile.empty() && !platform::FileExists(m_given.binaryFile)) {
      throw UsageError{"the file to send cannot be read"};
    }
  }

  websocket::WebsocketEvents Events() {
    websocket::WebsocketEvents events;
    events.OnConnect = [this](const std::string& host, const std::string& address, const std::string& port) {
      Tell(fmt::format("connected host={} address={} port={} protocol={} extensions={}", host, address, port,
                       m_socket->Protocols(), m_socket->Extensions()));
      OnConnect();
    };
    events.OnMessage = [this](const MessageData& data, std::int32_t type) { OnMessage(data, type); };
    events.OnPong = [this](const std::string& data) {
      Tell("pong " + data);
      Active();
    };
    events.OnReConnect = [this](const std::string& url) {
      Tell("redirected " + url);
      Active();
    };
    events.OnClose = [this](std::int32_t code, const std::string& reason) {
      Tell(fmt::format("closed {} {}", code, reason));
      if (code != 1000) EndSoon();
    };
    events.OnError = [this](std::int32_t code, const std::string& text) {
      Tell(fmt::format("error {} {}", code, text));
      if (code != 1010) EndSoon();
    };
    return events;
  }

  void OnConnect() {
    Active();
    m_connected = true;
    if (m_given.ping) m_socket->Ping();
    for (const std::string& text : m_given.texts) Send(text, 1);
    if (!m_given.binaryFile.empty()) Send(platform::ReadWholeFile(m_given.binaryFile), 2);
  }

  void OnMessage(const MessageData& data, std::int32_t type) {
    if (m_leaving) return;
    Active();
    Print(data, type);
    if (m_given.echo) Send(data.Text(), type);
    if (++m_received == m_given.count) Leave();
  }

  void Print(const MessageData& data, std::int32_t type) {
    if (type == 1) {
      std::fwrite(data.Text().data(), 1, data.Text().size(), stdout);
    } else {
      m_line.clear();
      for (const std::uint8_t byte : data.AsBytes()) fmt::format_to(std::back_inserter(m_line), "{:02x}", byte);
      std::fwrite(m_line.data(), 1, m_line.size(), stdout);
    }
    std::fputc('\n', stdout);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
    Tell("standard output cannot be written");
    Fail();
    Leave();
  }

  // Send leaves out empty messages and knows text and bytes only.
  void Send(std::string_view data, std::int32_t type) {
    const websocket::BytesView bytes(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
    if (data.empty() || type > 2) {
      m_socket->SendAdvanced(bytes, type, FrameOptions{});
    } else if (type == 1) {
      m_socket->Send(data);
    } else {
      m_socket->Send(bytes);
    }
  }

  void Active() {
    if (m_given.timeout <= 0) return;
    m_idle.SetEnabled(false);
    m_idle.SetEnabled(true);
  }
  void OnIdle() {
    if (m_leaving) return;
    if (!m_connected || m_given.count > 0) {
      Tell("timed out");
      Fail();
    }
    if (!Leave()) m_ended = true;
  }
  // What goes wrong once the probe is leaving does not count.
  void Fail() {
    if (!m_leaving) m_exit = kExitFailed;
  }
  // A server that lets the connection stand after a failure is not waited for.
  void EndSoon() {
    Fail();
    m_patience.SetEnabled(true);
  }
  // False when there is nothing to take leave of.
  bool Leave() {
    m_leaving = true;
    if (!m_connected) return false;
    m_socket->Disconnect();
    m_patience.SetEnabled(true);
    return true;
  }
  void OnPatienceEnd() {
    m_socket->Disconnect();
    m_ended = true;
  }

  void Tell(std::string text) const {
    if (!m_given.quiet) fmt::print(stderr, "{}\n", Printable(std::move(text)));
  }

  platform::MessageLoop& m_loop;
  const WebsocketArguments& m_given;
  platform::StopSignals m_signals;
  platform::Timer m_idle;
  platform::Timer m_patience;
  std::unique_ptr<websocket::Websocket> m_socket;
  std::string m_line;
  int m_received = 0;
  bool m_connected = false;
  bool m_leaving = false;
  bool m_ended = false;
  int m_exit = kExitClean;
};

}  // namespace

void DescribeWebsocket(CLI::App& app, WebsocketArguments& given) {
  CLI::App& command = *app.add_subcommand("ws", "Print what a WebSocket server sends");
  command.add_option("URL", given.url, "ws or wss address")->required();
  const auto add = [&command](const char* name, std::vector<std::string>& values, const char* description) {
    command.add_option(name, values, description)->expected(1)->take_all();
  };
  add("--header", given.headers, "'Name: value' to send with the request; repeatable");
  add("--protocol", given.protocols, "Sub-protocol to ask for; repeatable");
  add("--extension", given.extensions, "Extension to ask for; repeatable");
  add("--send", given.texts, "Text to send once connected; repeatable");
  command.add_flag("--compress", given.compress, "Ask for permessage-deflate");
  command.add_option("--binary", given.binaryFile, "File to send as one binary message");
  command.add_option("--count", given.count, "Leave after so many messages")->check(CLI::PositiveNumber);
  command.add_flag("--echo", given.echo, "Send every message back in kind");
  command.add_flag("--ping", given.ping, "Send a ping once connected");
  command.add_option("--ca", given.ca, "PEM file of the only roots to trust");
  command.add_flag("--quiet", given.quiet, "No events on standard error");
  command.add_option("--timeout", given.timeout, "Milliseconds to connect in, and to be idle for")
      ->check(CLI::NonNegativeNumber);
}

int RunWebsocket(platform::MessageLoop& loop, const WebsocketArguments& given) {
  return Probe(loop, given).Run();
}

}  // namespace quenmark::probe
