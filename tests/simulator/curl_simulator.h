// The simulator as a program, asked by curl.
#pragma once

#include "tests/support/simulator_process.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace quenmark::test {

using Json = nlohmann::ordered_json;
using Words = std::vector<std::string>;

struct Answer {
  int exit = 0;  // curl's
  int status = 0;
  std::string body;

  Json Parsed() const { return Json::parse(body); }
};

class Simulator : public SimulatorProcess {
 public:
  using SimulatorProcess::SimulatorProcess;

  Answer Curl(const std::string& address, const Words& added = {}) const {
    Words words{"-sS", "--max-time", "60", "-w", "\n%{http_code}", "--noproxy", "*", address};
    words.insert(words.end(), added.begin(), added.end());
    ChildProcess curl{"curl", words};
    Answer answer;
    answer.body = curl.ReadAll();
    const std::size_t end = answer.body.rfind('\n');
    if (end == std::string::npos) throw std::runtime_error("curl: " + curl.ErrorText());
    answer.status = std::stoi(answer.body.substr(end + 1));
    answer.body.resize(end);
    answer.exit = curl.Wait().value_or(-1);
    return answer;
  }
  // Over TLS, as a client that has a token and asks for JSON.
  Answer Get(const std::string& path, const Words& added = {}) const {
    Words words{"--cacert", CaFile(), "-H", "Accept: application/json", "-H", "Authorization: Bearer made-up"};
    words.insert(words.end(), added.begin(), added.end());
    return Curl(SecureBase() + path, words);
  }
  int Control(const std::string& path, const std::string& body) const {
    return Get("/sim/" + path, {"--data-raw", body}).status;
  }
  Json Sent(const std::string& symbol, const std::string& endpoint) const {
    const Json symbols = Get("/sim/state").Parsed()["symbols"];
    return symbols.contains(symbol) && symbols[symbol].contains(endpoint) ? symbols[symbol][endpoint] : Json{};
  }
};

// The lines of a log file that are written to their end.
inline std::vector<Json> LogLines(const std::string& name) {
  std::vector<Json> lines;
  std::ifstream file{name};
  for (std::string line; std::getline(file, line) && !file.eof();) lines.push_back(Json::parse(line));
  return lines;
}

}  // namespace quenmark::test
