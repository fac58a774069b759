// The TLS engine against libssl of the same library, memory to memory, and against the bare cipher. Only the measured
// side's calls are timed; its peer is always libssl. The last lines are the ratios.
#include "bench/libssl_context.h"
#include "tls/engine.h"

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <openssl/evp.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using quenmark::bench::MakeContext;
using quenmark::bench::Require;
using quenmark::tls::Bytes;
using quenmark::tls::BytesView;

// Adds up the time between Start and Stop.
class StopWatch {
 public:
  void Start() { m_start = Now(); }
  void Stop() { m_total += Now() - m_start; }
  double Seconds() const { return static_cast<double>(m_total) * 1e-9; }

 private:
  // Time this thread worked, so that other programs on the machine do not count.
  static std::int64_t Now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  }

  std::int64_t m_start = 0;
  std::int64_t m_total = 0;
};

SSL_CTX* Shared(bool server, int version) {
  static std::map<std::pair<bool, int>, SSL_CTX*> contexts;
  SSL_CTX*& context = contexts[{server, version}];
  if (context == nullptr) context = MakeContext(server, version);
  return context;
}

class Libssl {
 public:
  Libssl(bool server, int version) : m_ssl(SSL_new(Shared(server, version))) {
    SSL_set_bio(m_ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    if (server) {
      SSL_set_accept_state(m_ssl);
    } else {
      SSL_set_connect_state(m_ssl);
      SSL_set_tlsext_host_name(m_ssl, "localhost");
    }
  }
  ~Libssl() { SSL_free(m_ssl); }
  Libssl(const Libssl&) = delete;
  Libssl& operator=(const Libssl&) = delete;

  bool Ready() const { return SSL_is_init_finished(m_ssl) != 0; }
  void Feed(BytesView bytes) { BIO_write(SSL_get_rbio(m_ssl), bytes.data(), static_cast<int>(bytes.size())); }
  void Shake(BytesView bytes) {
    if (!bytes.empty()) Feed(bytes);
    SSL_do_handshake(m_ssl);
  }
  Bytes TakeOutput() {
    char* data = nullptr;
    const long size = BIO_get_mem_data(SSL_get_wbio(m_ssl), &data);
    Bytes bytes(data, data + size);
    static_cast<void>(BIO_reset(SSL_get_wbio(m_ssl)));
    return bytes;
  }
  int Read(std::uint8_t* out, int size) { return SSL_read(m_ssl, out, size); }
  int Write(BytesView bytes) { return SSL_write(m_ssl, bytes.data(), static_cast<int>(bytes.size())); }

 private:
  SSL* m_ssl;
};

class Engine {
 public:
  explicit Engine(int version) {
    const std::uint32_t features =
        version == TLS1_3_VERSION ? quenmark::tls::kFeatureTls13 : quenmark::tls::kFeatureTls12;
    Require(quenmark::tls::TlsInitClient(context, "localhost", features, nullptr, ""), "init");
  }
  bool Ready() const { return quenmark::tls::TlsIsReady(context); }
  void Shake(BytesView bytes) { Require(quenmark::tls::TlsHandshake(context, bytes, output), "handshake"); }
  Bytes TakeOutput() { return std::exchange(output, {}); }

  quenmark::tls::Context context;
  Bytes output;
};

template <typename Client>
void Connect(Client& client, Libssl& server, StopWatch& watch) {
  Bytes toClient;
  while (!client.Ready() || !server.Ready()) {
    watch.Start();
    client.Shake(toClient);
    watch.Stop();
    server.Shake(client.TakeOutput());
    toClient = server.TakeOutput();
    if (client.Ready() && toClient.empty()) break;
  }
  Require(client.Ready() && server.Ready(), "not connected");
}

template <typename Client>
std::unique_ptr<Client> NewClient(int version) {
  if constexpr (std::is_same_v<Client, Engine>) {
    return std::make_unique<Engine>(version);
  } else {
    return std::make_unique<Libssl>(false, version);
  }
}

template <typename Client>
double HandshakeSeconds(int version) {
  StopWatch watch;
  Libssl server(true, version);
  watch.Start();
  std::unique_ptr<Client> client = NewClient<Client>(version);
  watch.Stop();
  Connect(*client, server, watch);
  watch.Start();
  client.reset();
  watch.Stop();
  return watch.Seconds();
}

// Both in turns, as what disturbs the machine lasts longer than a handshake.
void Handshake(benchmark::State& state, int version) {
  double engine = 0;
  double libssl = 0;
  for (auto _ : state) {
    const double seconds = HandshakeSeconds<Engine>(version);
    engine += seconds;
    libssl += HandshakeSeconds<Libssl>(version);
    state.SetIterationTime(seconds);
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["ratio"] = libssl / engine;
}

constexpr std::size_t kBatch = 64;

// One record per arrival, as a quiet stream brings them.
template <typename Client>
void Receive(benchmark::State& state, std::size_t size) {
  StopWatch handshake;
  Libssl server(true, TLS1_3_VERSION);
  auto client = NewClient<Client>(TLS1_3_VERSION);
  Connect(*client, server, handshake);
  const Bytes content(size, 'q');
  Bytes plaintext;
  Bytes output;
  Bytes buffer(16384);
  std::vector<Bytes> records(kBatch);
  for (auto _ : state) {
    for (Bytes& record : records) {
      server.Write(content);
      record = server.TakeOutput();
    }
    StopWatch watch;
    watch.Start();
    for (const Bytes& record : records) {
      if constexpr (std::is_same_v<Client, Engine>) {
        plaintext.clear();
        Require(quenmark::tls::TlsReceive(client->context, record, plaintext, output), "receive");
        Require(plaintext.size() == size, "size");
      } else {
        client->Feed(record);
        Require(client->Read(buffer.data(), static_cast<int>(buffer.size())) == static_cast<int>(size), "size");
      }
    }
    watch.Stop();
    if constexpr (std::is_same_v<Client, Engine>) Require(plaintext == content, "content");
    state.SetIterationTime(watch.Seconds());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

template <typename Client>
void Send(benchmark::State& state, std::size_t size) {
  StopWatch handshake;
  Libssl server(true, TLS1_3_VERSION);
  auto client = NewClient<Client>(TLS1_3_VERSION);
  Connect(*client, server, handshake);
  const Bytes content(size, 'q');
  Bytes output;
  Bytes buffer(16384);
  for (auto _ : state) {
    StopWatch watch;
    watch.Start();
    for (std::size_t i = 0; i < kBatch; ++i) {
      if constexpr (std::is_same_v<Client, Engine>) {
        Require(quenmark::tls::TlsSend(client->context, content, output), "send");
      } else {
        Require(client->Write(content) == static_cast<int>(size), "send");
      }
    }
    watch.Stop();
    if constexpr (std::is_same_v<Client, Libssl>) output = client->TakeOutput();
    server.Feed(output);
    output.clear();
    for (std::size_t i = 0; i < kBatch; ++i) {
      Require(server.Read(buffer.data(), static_cast<int>(buffer.size())) == static_cast<int>(size), "peer");
    }
    state.SetIterationTime(watch.Seconds());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

// The ceiling: the cipher alone, used as its manual says, over as many fresh records of the same size.
void BareReceive(benchmark::State& state, std::size_t size) {
  EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
  const std::uint8_t key[16] = {1};
  const std::uint8_t nonce[12] = {2};
  const std::uint8_t header[5] = {23, 3, 3};
  const Bytes content(size + 1, 'q');
  const int length = static_cast<int>(size + 1);
  Bytes out(size + 1);
  int written = 0;
  EVP_CIPHER_CTX* sealing = EVP_CIPHER_CTX_new();
  EVP_CIPHER_CTX* opening = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex2(sealing, cipher, key, nonce, nullptr);
  EVP_DecryptInit_ex2(opening, cipher, key, nonce, nullptr);
  std::vector<Bytes> records(kBatch);
  for (auto _ : state) {
    for (Bytes& record : records) {
      record = Bytes(size + 1 + 16);
      EVP_EncryptInit_ex2(sealing, nullptr, nullptr, nonce, nullptr);
      EVP_EncryptUpdate(sealing, nullptr, &written, header, 5);
      EVP_EncryptUpdate(sealing, record.data(), &written, content.data(), length);
      EVP_EncryptFinal_ex(sealing, record.data() + length, &written);
      EVP_CIPHER_CTX_ctrl(sealing, EVP_CTRL_AEAD_GET_TAG, 16, record.data() + length);
    }
    StopWatch watch;
    watch.Start();
    for (Bytes& record : records) {
      EVP_DecryptInit_ex2(opening, nullptr, nullptr, nonce, nullptr);
      EVP_CIPHER_CTX_ctrl(opening, EVP_CTRL_AEAD_SET_TAG, 16, record.data() + length);
      EVP_DecryptUpdate(opening, nullptr, &written, header, 5);
      EVP_DecryptUpdate(opening, out.data(), &written, record.data(), length);
      Require(EVP_DecryptFinal_ex(opening, out.data() + written, &written) == 1, "tag");
    }
    watch.Stop();
    Require(out == content, "content");
    state.SetIterationTime(watch.Seconds());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
  EVP_CIPHER_CTX_free(opening);
  EVP_CIPHER_CTX_free(sealing);
  EVP_CIPHER_free(cipher);
}

// Heap bytes that one connection holds after its handshake and one received message.
template <typename Client>
void Idle(benchmark::State& state) {
  constexpr std::size_t kConnections = 200;
  double perConnection = 0;
  for (auto _ : state) {
    std::vector<std::unique_ptr<Client>> clients;
    clients.reserve(kConnections);
    const std::size_t before = mallinfo2().uordblks;
    for (std::size_t i = 0; i < kConnections; ++i) {
      StopWatch watch;
      Libssl server(true, TLS1_3_VERSION);
      clients.push_back(NewClient<Client>(TLS1_3_VERSION));
      Connect(*clients.back(), server, watch);
      server.Write(Bytes(300, 'q'));
      const Bytes record = server.TakeOutput();
      if constexpr (std::is_same_v<Client, Engine>) {
        Bytes plaintext;
        Require(quenmark::tls::TlsReceive(clients.back()->context, record, plaintext, clients.back()->output), "read");
      } else {
        Bytes plaintext(300);
        clients.back()->Feed(record);
        Require(clients.back()->Read(plaintext.data(), 300) == 300, "read");
      }
    }
    perConnection = static_cast<double>(mallinfo2().uordblks - before) / kConnections;
    state.SetIterationTime(1e-9);
  }
  state.counters["bytes"] = perConnection;
}

// Collects the rates and prints engine / libssl and engine / bare cipher at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      if (run.counters.contains("ratio")) {
        m_ratios[run.run_name.function_name].push_back(run.counters.at("ratio"));
        continue;
      }
      const bool memory = run.counters.contains("bytes");
      const double value = run.counters.at(memory ? "bytes" : "items_per_second");
      double& best = m_values[run.run_name.function_name];
      if (best == 0 || (memory ? value < best : value > best)) best = value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    for (auto [name, ratios] : m_ratios) {
      std::sort(ratios.begin(), ratios.end());
      std::printf("\n%s: engine / libssl, median of %zu: %.2f", name.c_str(), ratios.size(), ratios[ratios.size() / 2]);
    }
    std::printf("\nbest of all repetitions, engine against the other (for memory: less is better)\n");
    for (const auto& [name, value] : m_values) {
      if (!name.ends_with("/engine")) continue;
      const std::string base = name.substr(0, name.size() - 6);
      for (const char* other : {"libssl", "bare"}) {
        const auto found = m_values.find(base + other);
        if (found != m_values.end()) std::printf("  %-18s / %-7s %.2f\n", base.c_str(), other, value / found->second);
      }
    }
  }

 private:
  std::map<std::string, double> m_values;
  std::map<std::string, std::vector<double>> m_ratios;
};

void Register() {
  const auto add = [](const std::string& name, auto function) {
    benchmark::RegisterBenchmark(name.c_str(), function)->UseManualTime();
  };
  add("Handshake13", [](benchmark::State& state) { Handshake(state, TLS1_3_VERSION); });
  add("Handshake12", [](benchmark::State& state) { Handshake(state, TLS1_2_VERSION); });
  for (const std::size_t size : {std::size_t{300}, std::size_t{16384}}) {
    const std::string receive = "Receive" + std::to_string(size) + "/";
    add(receive + "engine", [size](benchmark::State& state) { Receive<Engine>(state, size); });
    add(receive + "libssl", [size](benchmark::State& state) { Receive<Libssl>(state, size); });
    add(receive + "bare", [size](benchmark::State& state) { BareReceive(state, size); });
    const std::string send = "Send" + std::to_string(size) + "/";
    add(send + "engine", [size](benchmark::State& state) { Send<Engine>(state, size); });
    add(send + "libssl", [size](benchmark::State& state) { Send<Libssl>(state, size); });
  }
  benchmark::RegisterBenchmark("IdleMemory/engine", Idle<Engine>)->UseManualTime()->Iterations(1);
  benchmark::RegisterBenchmark("IdleMemory/libssl", Idle<Libssl>)->UseManualTime()->Iterations(1);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
#ifndef NDEBUG
  std::printf("warning: built without optimisation\n");
#endif
  Register();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  return 0;
}
