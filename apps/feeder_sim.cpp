// feeder-sim: a market simulator that speaks the providers' HTTP interfaces on this machine.
#include "simulator/simulator.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace simulator = quenmark::simulator;

constexpr std::int64_t kLatestClock = 4'000'000'000;  // 2096

std::string CheckFault(const std::string& text) {
  return simulator::ParseFault(text) ? std::string{} : "not KIND[@PATH][*COUNT]: " + text;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Market simulator for the Quenmark feeder"};
  simulator::SimulatorOptions options;
  simulator::ServiceOptions& service = options.service;
  std::string session = "open";
  std::string provider;
  std::string chunks = "random";
  std::string certificate = "good";
  std::vector<std::string> faults;
  std::vector<std::string> kinds;
  std::optional<std::int64_t> step;
  double sessionLife = 300;
  std::int64_t newsInterval = service.news.interval.count();
  app.add_option("--https-port", options.httpsPort, "port for HTTPS, 0 takes a free one");
  app.add_option("--http-port", options.httpPort, "port for HTTP, 0 takes a free one");
  app.add_option("--wss-port", options.wssPort, "second port for HTTPS, with a certificate of its own");
  app.add_option("--wss-certificate", certificate, "what the wss port shows")
      ->check(CLI::IsMember({"good", "expired", "other-host", "not-yet", "unknown-issuer"}))
      ->capture_default_str();
  app.add_option("--symbols", service.market.symbols, "number of symbols that trade")
      ->check(CLI::Range(std::size_t{1}, simulator::kMaximumSymbols))
      ->capture_default_str();
  app.add_option("--seed", service.market.seed, "seed of the random walk")->capture_default_str();
  app.add_option("--clock", service.market.clock, "fixed clock: seconds since 1970 UTC, one more per provider request")
      ->check(CLI::Range(std::int64_t{0}, kLatestClock));
  app.add_option("--session", session, "session at start")
      ->check(CLI::IsMember({"open", "pre", "post", "closed"}))
      ->capture_default_str();
  app.add_option("--provider", provider, "serve the endpoints of this provider only")
      ->check(CLI::IsMember({"tradier", "tradestation", "vendor"}));
  app.add_option("--rate", service.events.rate,
                 "updates per second on each stream; 0: as fast as the client takes them")
      ->check(CLI::Range(simulator::kLeastRate, simulator::kMostRate) | CLI::IsMember({0.0}))
      ->capture_default_str();
  app.add_option("--events", service.events.events, "most events of an event stream")->check(CLI::NonNegativeNumber);
  app.add_option("--linebreak-batch", service.events.batch, "events in each message of an event stream")
      ->check(CLI::Range(1, 10'000))
      ->capture_default_str();
  app.add_option("--event-kinds", kinds, "kinds of events: quote, trade, summary, timesale")
      ->delimiter(',')
      ->check(CLI::IsMember({"quote", "trade", "summary", "timesale"}));
  app.add_option("--event-step", step, "milliseconds that pass with each event on a fixed clock")
      ->check(CLI::Range(0, 3'600'000));
  app.add_option("--event-log", service.events.logFile, "file that takes one line per message of event streams");
  app.add_option("--fault-turn", service.events.faultTurn, "message of an event stream in whose place faults come")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--session-life", sessionLife, "seconds that an unused session id is good")
      ->check(CLI::Range(0.0, 1e6))
      ->capture_default_str();
  app.add_flag("--latency", service.events.latency, "events carry the time of their sending");
  app.add_flag("--deflate", service.events.deflate, "compress event streams for clients that offer it");
  app.add_option("--news", service.news.history, "news items at start")
      ->check(CLI::Range(0, 1'000'000))
      ->capture_default_str();
  app.add_option("--news-interval", newsInterval, "seconds between new news items")
      ->check(CLI::Range(1, 86'400))
      ->capture_default_str();
  app.add_option("--chunks", chunks, "where the chunks of a stream end")
      ->check(CLI::IsMember({"object", "random", "byte"}))
      ->capture_default_str();
  app.add_option("--fault", faults,
                 "KIND[@PATH][*COUNT]; KIND is status401, status429, status500, slow[MS], cut, reset, html, empty, "
                 "huge, http10, "
                 "chunked or odd; for "
                 "streams also stall, drip, end, goaway, close[CODE], tlsclose, reset, garbage or halfframe")
      ->check(CheckFault)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--token", service.token, "the only bearer token that is accepted");
  app.add_option("--log", service.logFile, "file that takes one JSON line per request");
  app.add_flag("--gzip", service.gzip, "compress answers for clients that ask for it");
  app.add_flag("--with-parent", options.endWithParent, "end when the starting process ends");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  options.wssCertificate = *simulator::ParseCertificateFault(certificate);
  service.provider = simulator::ParseProvider(provider);
  service.streams.chunks = *simulator::ParseChunkBorders(chunks);
  service.streams.seed = service.events.seed = service.market.seed;
  service.streams.rate = service.events.rate;
  service.events.sessionLife = std::chrono::milliseconds{std::llround(sessionLife * 1000)};
  service.news.interval = std::chrono::seconds{newsInterval};
  if (step) service.events.step = std::chrono::milliseconds{*step};
  for (const std::string& kind : kinds) service.events.kinds.push_back(*simulator::ParseEventKind(kind));
  service.market.session = *simulator::ParseSession(session);
  for (const std::string& fault : faults) service.faults.push_back(*simulator::ParseFault(fault));
  try {
    simulator::RunSimulator(options, std::cout);
  } catch (const std::exception& error) {
    std::cerr << "feeder-sim: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
