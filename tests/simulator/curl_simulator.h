// The simulator as a program, asked by curl.
#pragma once

#include "tests/support/child_process.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <signal.h>

#include <fstream>
#include <optional>
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

class Simulator {
 public:
  explicit Simulator(const Words& arguments = {}) : m_program(BIN_DIR "/feeder-sim", arguments) {
    const std::optional<std::string> line = m_program.ReadLine();
    if (!line) throw std::runtime_error("no first line: " + m_program.ErrorText());
    m_ready = Json::parse(*line);
  }
  // Asked to end, so that its folder goes too.
  ~Simulator() {
    m_program.Signal(SIGTERM);
    m_program.Wait();
  }
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  std::string Address(const std::string& path) const {
    return fmt::format("https://localhost:{}{}", m_ready["https"].get<int>(), path);
  }
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
  Answer Get(const std::string& path, const Words& added = {}) const {
    Words words{"--cacert", CaFile(), "-H", "Accept: application/json", "-H", "Authorization: Bearer made-up"};
    words.insert(words.end(), added.begin(), added.end());
    return Curl(Address(path), words);
  }
  int Control(const std::string& path, const std::string& body) const {
    return Get("/sim/" + path, {"--data-raw", body}).status;
  }
  Json Sent(const std::string& symbol, const std::string& endpoint) const {
    const Json symbols = Get("/sim/state").Parsed()["symbols"];
    return symbols.contains(symbol) && symbols[symbol].contains(endpoint) ? symbols[symbol][endpoint] : Json{};
  }
  const Json& Ready() const { return m_ready; }
  std::string CaFile() const { return m_ready["ca"]; }
  ChildProcess& Program() { return m_program; }

 private:
  ChildProcess m_program;
  Json m_ready;
};

// The lines of a log file that are written to their end.
inline std::vector<Json> LogLines(const std::string& name) {
  std::vector<Json> lines;
  std::ifstream file{name};
  for (std::string line; std::getline(file, line) && !file.eof();) lines.push_back(Json::parse(line));
  return lines;
}

}  // namespace quenmark::test
