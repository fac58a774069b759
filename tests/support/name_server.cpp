#include "tests/support/name_server.h"

#include "tests/support/plain_socket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace quenmark::test {

NameServer::NameServer(platform::MessageLoop& loop) : m_loop(loop), m_descriptor(PlainSocket(SOCK_DGRAM)) {
  m_watch =
      loop.Watch(m_descriptor, {.read = true}, platform::Trigger::kLevel, [this](platform::Readiness) { Answer(); });
}

NameServer::~NameServer() {
  m_loop.Unwatch(m_watch);
  close(m_descriptor);
}

std::string NameServer::Address() const {
  return "127.0.0.1:" + std::to_string(PortOf(m_descriptor));
}

void NameServer::Answer() {
  std::array<std::uint8_t, 512> query{};
  sockaddr_in from{};
  socklen_t fromSize = sizeof(from);
  const ssize_t size =
      recvfrom(m_descriptor, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&from), &fromSize);
  if (size < 17) return;
  ++queries;
  if (silent) return;
  std::string name;
  std::size_t offset = 12;
  while (query[offset] != 0) {
    if (!name.empty()) name += '.';
    name.append(query.begin() + static_cast<std::ptrdiff_t>(offset) + 1,
                query.begin() + static_cast<std::ptrdiff_t>(offset) + 1 + query[offset]);
    offset += query[offset] + std::size_t{1};
  }
  const std::size_t questionEnd = offset + 5;
  const auto found = names.find(name);
  const std::size_t answers = found == names.end() || failure != 0 ? 0 : found->second.size();
  const int code = failure != 0 ? failure : found == names.end() ? 3 : 0;
  // RFC 1035 §4.1: header, the question as it came, answers that point back to its name.
  std::vector<std::uint8_t> reply(query.begin(), query.begin() + static_cast<std::ptrdiff_t>(questionEnd));
  reply[2] = 0x81;
  reply[3] = static_cast<std::uint8_t>(0x80 | code);
  reply[7] = static_cast<std::uint8_t>(answers);
  reply[11] = 0;
  for (std::size_t i = 0; i < answers; ++i) {
    for (const int byte : {0xC0, 12, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4}) reply.push_back(static_cast<std::uint8_t>(byte));
    reply.insert(reply.end(), found->second[i].begin(), found->second[i].end());
  }
  sendto(m_descriptor, reply.data(), reply.size(), 0, reinterpret_cast<const sockaddr*>(&from), fromSize);
}

}  // namespace quenmark::test
