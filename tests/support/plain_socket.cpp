#include "tests/support/plain_socket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace quenmark::test {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

int Checked(int result) {
  if (result < 0) throw std::runtime_error("a socket call of the test failed");
  return result;
}

bool WaitReadable(int descriptor) {
  pollfd entry{descriptor, POLLIN, 0};
  return poll(&entry, 1, 20'000) == 1;
}

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    Close();
    m_descriptor = other.Release();
  }
  return *this;
}

int Descriptor::Release() {
  return std::exchange(m_descriptor, -1);
}

void Descriptor::Close() {
  if (m_descriptor >= 0) close(std::exchange(m_descriptor, -1));
}

int PlainSocket(int type) {
  const int descriptor = Checked(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(0);
  Checked(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  return descriptor;
}

int PlainListener(int backlog) {
  const int descriptor = PlainSocket(SOCK_STREAM);
  Checked(listen(descriptor, backlog));
  return descriptor;
}

int PlainConnect(int port) {
  const int descriptor = Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  Checked(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  return descriptor;
}

int PlainAccept(int listener) {
  return WaitReadable(listener) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

int PortOf(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  Checked(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size));
  return ntohs(address.sin_port);
}

void PlainSend(int descriptor, std::string_view data) {
  while (!data.empty()) {
    data.remove_prefix(static_cast<std::size_t>(Checked(
        static_cast<int>(send(descriptor, data.data(), std::min<std::size_t>(data.size(), 1U << 20), MSG_NOSIGNAL)))));
  }
}

std::string PlainReceive(int descriptor, std::size_t size) {
  std::string data(size, '\0');
  std::size_t total = 0;
  while (total < size && WaitReadable(descriptor)) {
    const ssize_t count = recv(descriptor, data.data() + total, size - total, 0);
    if (count <= 0) break;
    total += static_cast<std::size_t>(count);
  }
  data.resize(total);
  return data;
}

bool AtEnd(int descriptor) {
  char byte = 0;
  return WaitReadable(descriptor) && recv(descriptor, &byte, 1, MSG_PEEK) == 0;
}

void PlainReset(Descriptor& descriptor) {
  const linger atOnce{1, 0};
  Checked(setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce)));
  descriptor.Close();
}

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace quenmark::test
