// feeder-probe ws: a WebSocket client for the command line.
#pragma once

#include "platform/message_loop.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace quenmark::probe {

struct WebsocketArguments {
  std::string url;
  std::vector<std::string> headers;
  std::vector<std::string> protocols;
  std::vector<std::string> extensions;
  bool compress = false;
  std::vector<std::string> texts;
  std::string binaryFile;
  int count = 0;  // messages, 0: until the connection ends
  bool echo = false;
  bool ping = false;
  std::string ca;
  bool quiet = false;
  int timeout = 0;  // ms, 0: none
};

// Adds the sub-command.
void DescribeWebsocket(CLI::App& app, WebsocketArguments& given);

// Runs until the connection is over. The exit status: 0 when the server closed with 1000 or the probe left by itself, 1
// for everything else. Throws UsageError.
int RunWebsocket(platform::MessageLoop& loop, const WebsocketArguments& given);

}  // namespace quenmark::probe
