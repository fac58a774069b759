// The asynchronous socket beside the bare system calls. Each benchmark runs both in turns and reports "ratio": the bare
// time divided by ours, so 1 is as fast as bare, and "cpu_ratio", the same of processor time, which a busy machine
// disturbs less. The times themselves are per message, megabyte or event, in ns.
#include "platform/message_loop.h"
#include "sockets/async_socket.h"

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quenmark {
namespace {

using sockets::cAsyncSocket;

constexpr std::size_t kMessage = 64;
constexpr int kMessagesPerTurn = 2000;
constexpr std::size_t kBulk = std::size_t{1} << 30;
constexpr std::size_t kBulkBuffer = 64 << 10;

void Require(bool condition, const char* what) {
  if (condition) return;
  std::perror(what);
  std::abort();
}

std::pair<int, int> ConnectedPair() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  Require(bind(listener, generic, size) == 0 && listen(listener, 1) == 0, "listen");
  getsockname(listener, generic, &size);
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Require(connect(client, generic, size) == 0, "connect");
  const int server = accept(listener, nullptr, nullptr);
  Require(server >= 0, "accept");
  close(listener);
  return {client, server};
}

// Time on the clock and on the processor, the latter of the calling thread.
struct Spent {
  double wall = 0;
  double processor = 0;

  template <typename Work>
  void Add(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    const double processorStart = ProcessorTime();
    work();
    wall += std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
    processor += ProcessorTime() - processorStart;
  }
  static double ProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
  }
};

void Report(benchmark::State& state, const Spent& bare, const Spent& ours, double units) {
  state.counters["bare_ns"] = bare.wall / units;
  state.counters["ours_ns"] = ours.wall / units;
  state.counters["ratio"] = bare.wall / ours.wall;
  state.counters["cpu_ratio"] = bare.processor / ours.processor;
}

// Sends back what comes.
struct Echo final : sockets::AsyncSocketEvents {
  void OnReceive(cAsyncSocket& socket) override {
    std::array<std::uint8_t, 4096> room;
    const std::int32_t count = socket.Receive(room);
    if (count <= 0) return;
    socket.Send(std::span(room).first(static_cast<std::size_t>(count)));
    ++events;
  }
  std::int64_t events = 0;
};

// The same loop with nothing in between: the same four system calls per message.
class BareEcho {
 public:
  explicit BareEcho(int server) : m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
    int on = 1;
    ioctl(server, FIONBIO, &on);
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    event.data.fd = server;
    epoll_ctl(m_epoll, EPOLL_CTL_ADD, server, &event);
    epoll_wait(m_epoll, &event, 1, 0);
  }
  ~BareEcho() { close(m_epoll); }
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;

  void Turn() {
    std::array<epoll_event, 64> events;
    const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      const int server = events[static_cast<std::size_t>(i)].data.fd;
      int available = 0;
      ioctl(server, FIONREAD, &available);
      if (available == 0) continue;
      std::array<char, 4096> room;
      const ssize_t size = recv(server, room.data(), room.size(), 0);
      Require(size > 0 && send(server, room.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL) == size, "echo");
    }
  }

 private:
  int m_epoll;
};

void Exchange(int client, const std::array<char, kMessage>& message, const auto& serve) {
  Require(send(client, message.data(), message.size(), 0) == static_cast<ssize_t>(message.size()), "send");
  serve();
  std::array<char, kMessage> answer;
  Require(recv(client, answer.data(), answer.size(), MSG_WAITALL) == static_cast<ssize_t>(answer.size()), "recv");
  Require(std::memcmp(answer.data(), message.data(), answer.size()) == 0, "the echo differs");
}

// 64-byte messages, one connection, client and server taking turns on one thread.
void EchoOneConnection(benchmark::State& state) {
  platform::SystemClock clock;
  platform::MessageLoop loop(clock);
  const auto [client, server] = ConnectedPair();
  const auto [bareClient, bareServer] = ConnectedPair();
  const auto echo = std::make_shared<Echo>();
  const auto socket = cAsyncSocket::New(loop);
  socket->SetEvents(echo);
  Require(socket->Attach(server), "attach");
  loop.RunQueued();
  BareEcho bare(bareServer);
  std::array<char, kMessage> message{};
  Spent ours;
  Spent bares;
  std::int64_t wanted = 0;
  const std::function<bool()> echoed = [&] { return echo->events == wanted; };
  for (auto _ : state) {
    bares.Add([&] {
      for (int i = 0; i < kMessagesPerTurn; ++i) Exchange(bareClient, message, [&] { bare.Turn(); });
    });
    ours.Add([&] {
      for (int i = 0; i < kMessagesPerTurn; ++i) {
        ++message[0];
        ++wanted;
        Exchange(client, message, [&] { loop.WaitUntil(echoed, platform::MonotonicTime::max()); });
      }
    });
  }
  const double messages = static_cast<double>(state.iterations()) * kMessagesPerTurn;
  Report(state, bares, ours, messages);
  close(client);
  close(bareClient);
  close(bareServer);
}
BENCHMARK(EchoOneConnection)->Unit(benchmark::kMillisecond);

struct Sink final : sockets::AsyncSocketEvents {
  void OnReceive(cAsyncSocket& socket) override {
    const std::int32_t count = socket.Receive(buffer);
    if (count > 0) total += static_cast<std::size_t>(count);
  }
  std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kBulkBuffer);
  std::size_t total = 0;
};

// 1 GB in buffers of 64 KB from a sender thread.
void BulkReceive(benchmark::State& state) {
  platform::SystemClock clock;
  platform::MessageLoop loop(clock);
  const auto sendAll = [](int client) {
    const std::vector<char> data(256 << 10, 'x');
    for (std::size_t sent = 0; sent < kBulk;) {
      const ssize_t count = send(client, data.data(), std::min(data.size(), kBulk - sent), MSG_NOSIGNAL);
      Require(count > 0, "send");
      sent += static_cast<std::size_t>(count);
    }
  };
  Spent ours;
  Spent bares;
  for (auto _ : state) {
    const auto [bareClient, bareServer] = ConnectedPair();
    const auto [client, server] = ConnectedPair();
    bares.Add([&, from = bareServer, to = bareClient] {
      std::thread sender(sendAll, to);
      std::vector<char> buffer(kBulkBuffer);
      for (std::size_t total = 0; total < kBulk;) {
        const ssize_t count = recv(from, buffer.data(), buffer.size(), 0);
        Require(count > 0, "recv");
        total += static_cast<std::size_t>(count);
      }
      sender.join();
    });
    const auto sink = std::make_shared<Sink>();
    const auto socket = cAsyncSocket::New(loop);
    socket->SetEvents(sink);
    Require(socket->Attach(server), "attach");
    ours.Add([&, to = client] {
      std::thread sender(sendAll, to);
      loop.WaitUntil([&] { return sink->total >= kBulk; }, platform::MonotonicTime::max());
      sender.join();
    });
    Require(sink->total == kBulk, "bytes");
    close(bareClient);
    close(bareServer);
    close(client);
  }
  const double megabytes = static_cast<double>(state.iterations()) * (kBulk >> 20);
  Report(state, bares, ours, megabytes);
}
BENCHMARK(BulkReceive)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// Ten busy connections, alone ("bare") and among 990 idle ones ("ours").
void IdleConnections(benchmark::State& state) {
  constexpr std::size_t kBusy = 10;
  constexpr std::size_t kAll = 1000;
  struct Field {
    explicit Field(std::size_t size) {
      for (std::size_t i = 0; i < size; ++i) {
        const auto [client, server] = ConnectedPair();
        clients.push_back(client);
        connections.push_back(cAsyncSocket::New(loop));
        connections.back()->SetEvents(echo);
        Require(connections.back()->Attach(server), "attach");
      }
      loop.RunQueued();
      loop.RunQueued();
    }
    ~Field() {
      for (const int client : clients) close(client);
    }
    void Turn() {
      std::array<char, kMessage> message{};
      const std::int64_t wanted = echo->events + kBusy;
      const std::size_t step = clients.size() / kBusy;
      for (std::size_t i = 0; i < clients.size(); i += step) send(clients[i], message.data(), message.size(), 0);
      loop.WaitUntil([&] { return echo->events == wanted; }, platform::MonotonicTime::max());
      for (std::size_t i = 0; i < clients.size(); i += step) {
        Require(recv(clients[i], message.data(), message.size(), MSG_WAITALL) == kMessage, "recv");
      }
    }
    platform::SystemClock clock;
    platform::MessageLoop loop{clock};
    std::shared_ptr<Echo> echo = std::make_shared<Echo>();
    std::vector<int> clients;
    std::vector<std::shared_ptr<cAsyncSocket>> connections;
  };
  Spent among;
  Spent alone;
  {
    // Sockets of a thread share a helper per loop, so both fields live side by side.
    Field few(kBusy);
    Field many(kAll);
    for (auto _ : state) {
      alone.Add([&] {
        for (int i = 0; i < 100; ++i) few.Turn();
      });
      among.Add([&] {
        for (int i = 0; i < 100; ++i) many.Turn();
      });
    }
  }
  const double events = static_cast<double>(state.iterations()) * 100 * kBusy;
  Report(state, alone, among, events);
}
BENCHMARK(IdleConnections)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quenmark

BENCHMARK_MAIN();
