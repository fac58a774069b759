// The TLS socket over loopback beside a bare libssl client on a blocking socket. The server is libssl on a thread of
// its own. Each benchmark runs both clients in turns and reports "ratio": the bare client's time divided by ours, so 1
// is as fast as bare, and "cpu_ratio", the same of the client thread's processor time, which a busy machine disturbs
// less.
#include "bench/libssl_context.h"
#include "platform/message_loop.h"
#include "tls/tls_socket.h"

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

namespace quenmark {
namespace {

using bench::MakeContext;
using bench::Require;
using tls::cTlsSocket;

constexpr std::size_t kBulk = std::size_t{1} << 30;  // bytes per connection
constexpr int kConnections = 200;                    // per turn

// Sends `bytes` on every connection, then waits for its end.
class Server {
 public:
  Server(int version, std::size_t bytes) : m_context(MakeContext(true, version)), m_listener(NewSocket()) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    Require(bind(m_listener, generic, size) == 0 && listen(m_listener, 16) == 0, "listen");
    getsockname(m_listener, generic, &size);
    port = ntohs(address.sin_port);
    m_thread = std::thread([this, bytes] { Run(bytes); });
  }
  ~Server() {
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
    SSL_CTX_free(m_context);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  static int NewSocket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

  int port = 0;

 private:
  void Run(std::size_t bytes) {
    const std::vector<std::uint8_t> content(16384, 'q');
    for (;;) {
      const int connection = accept(m_listener, nullptr, nullptr);
      if (connection < 0) return;
      SSL* ssl = SSL_new(m_context);
      SSL_set_fd(ssl, connection);
      bool good = SSL_accept(ssl) == 1;
      for (std::size_t sent = 0; good && sent < bytes; sent += content.size()) {
        good = SSL_write(ssl, content.data(), static_cast<int>(content.size())) > 0;
      }
      std::uint8_t byte = 0;
      while (good && recv(connection, &byte, 1, 0) > 0) {
      }
      SSL_free(ssl);
      close(connection);
    }
  }

  SSL_CTX* m_context;
  int m_listener;
  std::thread m_thread;
};

// Time on the clock and on the processor, the latter of the calling thread; ns.
struct Spent {
  double wall = 0;
  double processor = 0;

  template <typename Work>
  void Add(const Work& work) {
    const double wallStart = Now(CLOCK_MONOTONIC);
    const double processorStart = Now(CLOCK_THREAD_CPUTIME_ID);
    work();
    processor += Now(CLOCK_THREAD_CPUTIME_ID) - processorStart;
    wall += Now(CLOCK_MONOTONIC) - wallStart;
  }
  static double Now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
  }
};

class BareClient {
 public:
  explicit BareClient(int version) : m_context(MakeContext(false, version)) {}
  ~BareClient() { SSL_CTX_free(m_context); }
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;

  void Fetch(int port, std::size_t bytes) {
    const int handle = Server::NewSocket();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(connect(handle, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "connect");
    SSL* ssl = SSL_new(m_context);
    SSL_set_fd(ssl, handle);
    Require(SSL_connect(ssl) == 1, "handshake");
    for (std::size_t got = 0; got < bytes;) {
      const int count = SSL_read(ssl, m_room.data(), static_cast<int>(m_room.size()));
      Require(count > 0, "read");
      got += static_cast<std::size_t>(count);
    }
    SSL_free(ssl);
    close(handle);
  }

 private:
  SSL_CTX* m_context;
  std::vector<std::uint8_t> m_room = std::vector<std::uint8_t>(16384);
};

class OurClient final : public tls::TlsSocketEvents, public std::enable_shared_from_this<OurClient> {
 public:
  explicit OurClient(int version) : m_features(version == TLS1_3_VERSION ? 8U : 4U) {}

  void Fetch(int port, std::size_t bytes) {
    m_left = bytes;
    m_done = false;
    const auto socket = cTlsSocket::New(m_loop, nullptr);
    socket->SetEvents(weak_from_this());
    Require(socket->Connect("127.0.0.1", port, true, m_features | tls::kFeatureIgnoreCertificateErrors), "connect");
    Require(m_loop.WaitUntil([this] { return m_done; }, m_clock.Monotonic() + std::chrono::minutes{5}), "wait");
    socket->Socket()->Close_();
  }
  void OnConnect(cTlsSocket& /*socket*/) override { m_done = m_left == 0; }
  void OnReceive(cTlsSocket& socket) override {
    Require(socket.ReceiveArray(m_buffer) && m_buffer.size() <= m_left, "receive");
    m_left -= m_buffer.size();
    m_done = m_left == 0;
  }
  void OnError(cTlsSocket& socket, std::int32_t /*errorCode*/, std::int32_t /*eventMask*/) override {
    Require(false, socket.LastError().description.c_str());
  }

 private:
  platform::SystemClock m_clock;
  platform::MessageLoop m_loop{m_clock};
  std::uint32_t m_features;
  tls::Bytes m_buffer;
  std::size_t m_left = 0;
  bool m_done = false;
};

void Compare(benchmark::State& state, int version, std::size_t bytes, int connections) {
  Server server(version, bytes);
  BareClient bare(version);
  const auto ours = std::make_shared<OurClient>(version);
  Spent bareTime;
  Spent ourTime;
  for (auto _ : state) {
    bareTime.Add([&] {
      for (int i = 0; i < connections; ++i) bare.Fetch(server.port, bytes);
    });
    ourTime.Add([&] {
      for (int i = 0; i < connections; ++i) ours->Fetch(server.port, bytes);
    });
  }
  const double turns = static_cast<double>(state.iterations()) * connections;
  state.counters["bare_ms"] = bareTime.wall / turns * 1e-6;
  state.counters["ours_ms"] = ourTime.wall / turns * 1e-6;
  state.counters["ratio"] = bareTime.wall / ourTime.wall;
  state.counters["cpu_ratio"] = bareTime.processor / ourTime.processor;
}

void Register() {
  const auto add = [](const char* name, int version, std::size_t bytes, int connections) {
    benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { Compare(state, version, bytes, connections); })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
  };
  add("Gigabyte/tls13", TLS1_3_VERSION, kBulk, 1);
  add("Gigabyte/tls12", TLS1_2_VERSION, kBulk, 1);
  add("Connect/tls13", TLS1_3_VERSION, 0, kConnections);
  add("Connect/tls12", TLS1_2_VERSION, 0, kConnections);
}

}  // namespace
}  // namespace quenmark

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
#ifndef NDEBUG
  std::printf("warning: built without optimisation\n");
#endif
  quenmark::Register();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
