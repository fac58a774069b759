// A DNS server on loopback that answers address queries from a table, on the loop of the test.
#pragma once

#include "platform/message_loop.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace quenmark::test {

class NameServer {
 public:
  explicit NameServer(platform::MessageLoop& loop);
  ~NameServer();
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;

  // "127.0.0.1:port"
  std::string Address() const;
  // Names without addresses exist without data; names not listed do not exist.
  std::map<std::string, std::vector<std::array<std::uint8_t, 4>>> names;
  bool silent = false;  // take queries and never answer
  int failure = 0;      // response code for every query, for example 2: server failure
  int queries = 0;

 private:
  void Answer();

  platform::MessageLoop& m_loop;
  int m_descriptor = -1;
  platform::WatchId m_watch = 0;
};

}  // namespace quenmark::test
