// Receiving and sending messages beside synchronous Boost.Beast over plain loopback TCP. Each case runs a bare loop,
// Beast and the component in turns and counts the processor time of the receiving thread. "over_beast" is Beast's time
// divided by ours, "bare_over_beast" by that of recv with 64 KB and a walk over the frame headers, "zlib_over_beast" by
// that of zlib's inflate alone, without receiving anything. Times are ns per message, or per sent megabyte.
#include "platform/clock.h"
#include "platform/message_loop.h"
#include "platform/store_text.h"
#include "tests/sockets/allocation_count.h"
#include "tls/primitives.h"
#include "websocket/deflate.h"
#include "websocket/tls_transport.h"
#include "websocket/websocket.h"

#include <benchmark/benchmark.h>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <netinet/in.h>
#include <openssl/sha.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace quenmark {
namespace {

using websocket::Bytes;
using websocket::BytesView;

constexpr std::size_t kMessageBytes = 250;
constexpr std::size_t kMessagesPerBlock = 4000;
constexpr std::size_t kBlocks = 250;
constexpr std::size_t kMessages = kMessagesPerBlock * kBlocks;
constexpr std::string_view kDeflateAnswer =
    "Sec-WebSocket-Extensions: permessage-deflate; server_no_context_takeover\r\n";

void Require(bool condition, const char* what) {
  if (condition) return;
  std::perror(what);
  std::abort();
}

double ProcessorTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

std::string Sha1(std::string_view text) {
  std::string digest(SHA_DIGEST_LENGTH, '\0');
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       reinterpret_cast<unsigned char*>(digest.data()));
  return digest;
}

// An event as the stream sends it, padded to the size.
std::string Event(std::size_t number) {
  std::string text = R"({"type":"timesale","symbol":"SYM)" + std::to_string(number % 50) +
                     R"(","exch":"Q","bid":"282.08","ask":"282.09","last":")" + std::to_string(280 + number % 7) +
                     R"(.0900","size":"100","date":"1557758874355","seq":)" + std::to_string(10000 + number) +
                     R"(,"flag":"","cancel":false,"correction":false,"session":"normal"})";
  text.resize(kMessageBytes, ' ');
  return text;
}

std::string Block(bool compressed) {
  websocket::cZipArchive archive;
  std::string block;
  for (std::size_t i = 0; i < kMessagesPerBlock; ++i) {
    const std::string text = Event(i);
    const BytesView view(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    Bytes payload(view.begin(), view.end());
    if (compressed) Require(CompressMessage(archive, view, payload), "deflate");
    block += static_cast<char>(compressed ? 0xC1 : 0x81);
    if (payload.size() < 126) {
      block += static_cast<char>(payload.size());
    } else {
      block += static_cast<char>(126);
      block += static_cast<char>(payload.size() >> 8);
      block += static_cast<char>(payload.size() & 0xFF);
    }
    block.append(payload.begin(), payload.end());
  }
  return block;
}

// Accepts one client, answers its upgrade and sends the block again and again.
class Server {
 public:
  Server(const std::string& block, bool deflate) : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    Require(bind(m_listener, generic, size) == 0 && listen(m_listener, 1) == 0, "listen");
    getsockname(m_listener, generic, &size);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this, &block, deflate] { Serve(block, deflate); });
  }
  ~Server() {
    m_thread.join();
    close(m_listener);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t Port() const { return m_port; }

 private:
  void Serve(const std::string& block, bool deflate) {
    const int client = accept(m_listener, nullptr, nullptr);
    Require(client >= 0, "accept");
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) {
      char buffer[4096];
      const ssize_t count = recv(client, buffer, sizeof buffer, 0);
      Require(count > 0, "request");
      request.append(buffer, static_cast<std::size_t>(count));
    }
    const std::string name = "Sec-WebSocket-Key: ";
    const std::size_t key = request.find(name) + name.size();
    std::string answer =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
        platform::EncodeBase64(
            Sha1(request.substr(key, request.find("\r\n", key) - key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")) +
        "\r\n";
    if (deflate) answer += kDeflateAnswer;
    SendAll(client, answer + "\r\n");
    for (std::size_t i = 0; i < kBlocks; ++i) SendAll(client, block);
    char last = 0;
    while (recv(client, &last, 1, 0) > 0) {
    }
    close(client);
  }
  static void SendAll(int client, std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      Require(count > 0, "send");
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  int m_listener;
  std::uint16_t m_port = 0;
  std::thread m_thread;
};

struct Result {
  double nanoseconds = 0;
  double allocationsPerMessage = 0;
};

Result RunBare(const std::string& block) {
  const Server server(block, false);
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(server.Port());
  Require(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
  const std::string request = "GET / HTTP/1.1\r\nSec-WebSocket-Key: k\r\n\r\n";
  Require(send(client, request.data(), request.size(), MSG_NOSIGNAL) > 0, "send");
  char peeked[4096];
  std::size_t head = std::string::npos;
  while (head == std::string::npos) {
    const ssize_t count = recv(client, peeked, sizeof peeked, MSG_PEEK);
    Require(count > 0, "recv");
    head = std::string_view(peeked, static_cast<std::size_t>(count)).find("\r\n\r\n");
  }
  Require(recv(client, peeked, head + 4, MSG_WAITALL) > 0, "recv");

  Bytes buffer(std::size_t{64} << 10);
  std::size_t held = 0;
  std::size_t messages = 0;
  const double start = ProcessorTime();
  while (messages < kMessages) {
    const ssize_t count = recv(client, buffer.data() + held, buffer.size() - held, 0);
    Require(count > 0, "recv");
    held += static_cast<std::size_t>(count);
    std::size_t at = 0;
    while (held - at >= 10) {
      std::size_t length = 2u + (buffer[at + 1] & 0x7F);
      if (length == 128) length = 4u + (buffer[at + 2] << 8 | buffer[at + 3]);
      if (length > held - at) break;
      at += length;
      ++messages;
    }
    std::memmove(buffer.data(), buffer.data() + at, held - at);
    held -= at;
  }
  const double spent = ProcessorTime() - start;
  close(client);
  return {spent / static_cast<double>(kMessages), 0};
}

Result RunBeast(const std::string& block, bool deflate) {
  namespace beast = boost::beast;
  namespace net = boost::asio;
  const Server server(block, deflate);
  net::io_context context;
  beast::websocket::stream<net::ip::tcp::socket> client(context);
  client.next_layer().connect({net::ip::address_v4::loopback(), server.Port()});
  beast::websocket::permessage_deflate options;
  options.client_enable = deflate;
  options.server_no_context_takeover = deflate;
  client.set_option(options);
  client.handshake("localhost", "/");
  beast::flat_buffer buffer;
  std::size_t bytes = 0;
  const double start = ProcessorTime();
  for (std::size_t i = 0; i < kMessages; ++i) {
    client.read(buffer);
    bytes += buffer.size();
    buffer.consume(buffer.size());
  }
  const double spent = ProcessorTime() - start;
  Require(bytes == kMessages * kMessageBytes, "beast: bytes");
  client.next_layer().close();
  return {spent / static_cast<double>(kMessages), 0};
}

// What nobody with zlib gets below: its inflate alone, over the payloads of the block.
Result RunZlib(const std::string& block) {
  constexpr std::string_view kTail("\0\0\xFF\xFF", 4);
  std::vector<std::string> payloads;
  for (std::size_t at = 0; at < block.size();) {
    std::size_t length = static_cast<unsigned char>(block[at + 1]);
    at += 2;
    if (length == 126) {
      length = static_cast<std::size_t>(static_cast<unsigned char>(block[at]) << 8 |
                                        static_cast<unsigned char>(block[at + 1]));
      at += 2;
    }
    payloads.emplace_back(block.substr(at, length)).append(kTail);
    at += length;
  }
  z_stream stream{};
  Require(inflateInit2(&stream, -15) == Z_OK, "zlib");
  Bytes output(std::size_t{16} << 10);
  const double start = ProcessorTime();
  for (std::size_t round = 0; round < kBlocks; ++round) {
    for (std::string& payload : payloads) {
      inflateReset(&stream);
      stream.next_in = reinterpret_cast<Bytef*>(payload.data());
      stream.avail_in = static_cast<uInt>(payload.size());
      stream.next_out = output.data();
      stream.avail_out = static_cast<uInt>(output.size());
      Require(inflate(&stream, Z_SYNC_FLUSH) == Z_OK && output.size() - stream.avail_out == kMessageBytes, "zlib");
    }
  }
  const double spent = ProcessorTime() - start;
  inflateEnd(&stream);
  return {spent / static_cast<double>(kMessages), 0};
}

class Component {
 public:
  Component() {
    websocket::WebsocketEvents events;
    events.OnMessage = [this](const websocket::MessageData& data, std::int32_t) {
      ++messages;
      bytes += data.Text().size();
    };
    events.OnConnect = [this](const std::string&, const std::string&, const std::string&) {
      started = ProcessorTime();
      allocationsAtStart = test::AllocationCount();
    };
    events.OnError = [](std::int32_t, const std::string& text) { Require(false, text.c_str()); };
    socket =
        std::make_unique<websocket::Websocket>(m_loop, websocket::MakeWebsocketServices(m_loop, {}), std::move(events));
  }
  void Await(const std::function<bool()>& done) {
    Require(m_loop.WaitUntil(done, m_clock.Monotonic() + std::chrono::minutes(2)), "time");
  }

  std::unique_ptr<websocket::Websocket> socket;
  std::size_t messages = 0;
  std::size_t bytes = 0;
  double started = 0;
  std::size_t allocationsAtStart = 0;

 private:
  platform::SystemClock m_clock;
  platform::MessageLoop m_loop{m_clock};
};

Result RunOurs(const std::string& block, bool deflate) {
  const Server server(block, deflate);
  Component component;
  component.socket->SetUseCompression(deflate);
  component.socket->Connect("ws://127.0.0.1:" + std::to_string(server.Port()) + "/");
  component.Await([&] { return component.messages == kMessages; });
  const double spent = ProcessorTime() - component.started;
  const std::size_t made = test::AllocationCount() - component.allocationsAtStart;
  Require(component.bytes == kMessages * kMessageBytes, "bytes");
  component.socket->ShutDown();
  return {spent / static_cast<double>(kMessages), static_cast<double>(made) / static_cast<double>(kMessages)};
}

void Receive(benchmark::State& state, bool deflate) {
  const std::string block = Block(deflate);
  double bare = 0;
  double zlib = 0;
  double beast = 0;
  double ours = 0;
  double made = 0;
  for (auto _ : state) {
    if (deflate) {
      zlib += RunZlib(block).nanoseconds;
    } else {
      bare += RunBare(block).nanoseconds;
    }
    beast += RunBeast(block, deflate).nanoseconds;
    const Result result = RunOurs(block, deflate);
    ours += result.nanoseconds;
    made = result.allocationsPerMessage;
    state.SetIterationTime(result.nanoseconds * 1e-9 * static_cast<double>(kMessages));
  }
  const auto rounds = static_cast<double>(state.iterations());
  if (deflate) {
    state.counters["zlib_ns"] = zlib / rounds;
    state.counters["zlib_over_beast"] = beast / zlib;
  } else {
    state.counters["bare_ns"] = bare / rounds;
    state.counters["bare_over_beast"] = beast / bare;
  }
  state.counters["beast_ns"] = beast / rounds;
  state.counters["ours_ns"] = ours / rounds;
  state.counters["over_beast"] = beast / ours;
  state.counters["allocations"] = made;
}
BENCHMARK_CAPTURE(Receive, text, false)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Receive, deflate, true)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);

// Fragments of the default size; the time per megabyte stays the same however long the message is.
class Sink final : public websocket::Transport {
 public:
  explicit Sink(std::weak_ptr<websocket::TransportEvents> events) : m_events(std::move(events)) {}

  bool Connect(const std::string&, std::int32_t, bool, std::uint32_t) override {
    m_open = true;
    return true;
  }
  bool IsClosed() const override { return !m_open; }
  bool HasSocket() const override { return m_open; }
  std::int64_t AvailableBytes() override { return static_cast<std::int64_t>(waiting.size()); }
  bool Receive(websocket::ReceiveBuffer& buffer, std::size_t atMost) override {
    const auto count = std::min(atMost, waiting.size());
    std::memcpy(buffer.Prepare(count).data(), waiting.data(), count);
    buffer.Commit(count);
    waiting.remove_prefix(count);
    return true;
  }
  std::size_t UnsentBytes() const override { return 0; }
  bool SendArray(BytesView bytes) override {
    sent += bytes.size();
    return true;
  }
  bool SendText(std::string_view) override { return true; }
  void Close_() override {}
  void ShutDown() override {}
  void CloseSocket() override { m_open = false; }
  std::string RemoteHostName() const override { return {}; }
  std::string GetErrorDescription(std::int32_t) const override { return {}; }

  void Accept(bool deflate) {
    std::string answer =
        "HTTP/1.1 101 x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: YWNjZXB0\r\n";
    answer.append(deflate ? kDeflateAnswer : "").append("\r\n");
    m_events.lock()->OnConnect();
    Deliver(answer);
  }
  void Deliver(std::string_view bytes) {
    waiting = bytes;
    while (!waiting.empty()) m_events.lock()->OnReceive();
  }

  std::size_t sent = 0;
  std::string_view waiting;

 private:
  std::weak_ptr<websocket::TransportEvents> m_events;
  bool m_open = false;
};

// A component that is connected to a sink.
struct Connected {
  explicit Connected(bool deflate, websocket::WebsocketEvents events = {}) {
    websocket::WebsocketServices services;
    services.makeTransport = [this](std::weak_ptr<websocket::TransportEvents> sinkEvents) {
      return sink = std::make_shared<Sink>(std::move(sinkEvents));
    };
    services.random = tls::pvTlsGetRandom;
    services.sha1 = [](std::string_view) { return std::string("accept"); };
    socket = std::make_unique<websocket::Websocket>(loop, std::move(services), std::move(events));
    socket->SetUseCompression(deflate);
    socket->Connect("ws://host/");
    sink->Accept(deflate);
    Require(socket->readyState() == websocket::kStateOpen, "accept");
  }

  platform::SystemClock clock;
  platform::MessageLoop loop{clock};
  std::shared_ptr<Sink> sink;
  std::unique_ptr<websocket::Websocket> socket;
};

// The component alone: what it adds to the system's calls.
void Deliver(benchmark::State& state, bool deflate) {
  std::size_t bytes = 0;
  websocket::WebsocketEvents events;
  events.OnMessage = [&bytes](const websocket::MessageData& data, std::int32_t) { bytes += data.Text().size(); };
  const Connected connected(deflate, std::move(events));
  const std::string block = Block(deflate);
  for (auto _ : state) connected.sink->Deliver(block);
  const auto messages = static_cast<double>(state.iterations()) * kMessagesPerBlock;
  Require(static_cast<double>(bytes) == messages * kMessageBytes, "bytes");
  state.counters["ns_per_message"] =
      benchmark::Counter(messages * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK_CAPTURE(Deliver, text, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Deliver, deflate, true)->Unit(benchmark::kMicrosecond);

void Send(benchmark::State& state) {
  const Connected connected(false);
  Sink* const sink = connected.sink.get();
  websocket::Websocket& socket = *connected.socket;
  const Bytes data(static_cast<std::size_t>(state.range(0)) << 20, 0x55);
  for (auto _ : state) socket.Send(data);
  Require(sink->sent > data.size() * static_cast<std::size_t>(state.iterations()), "sent");
  state.counters["ns_per_MB"] =
      benchmark::Counter(static_cast<double>(state.range(0)) * 1e-9,
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(Send)->Arg(1)->Arg(16)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quenmark

int main(int argc, char** argv) {
#ifndef NDEBUG
  std::puts("built without optimisation: the figures mean nothing");
#endif
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
