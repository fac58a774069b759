// Peers written with the bare socket calls, on loopback.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quenmark::test {

// A descriptor that closes with its object.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept : m_descriptor(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;

  operator int() const { return m_descriptor; }
  int Release();
  void Close();

 private:
  int m_descriptor;
};

// A socket bound to a free port of 127.0.0.1.
int PlainSocket(int type);
// One that listens too.
int PlainListener(int backlog = 16);
int PlainConnect(int port);
// The next connection of a listener; waits up to 20 s, -1 after that.
int PlainAccept(int listener);
int PortOf(int descriptor);
void PlainSend(int descriptor, std::string_view data);
// Exactly `size` bytes, fewer at the end of the stream or after 20 s.
std::string PlainReceive(int descriptor, std::size_t size);
// True when the peer has ended the stream.
bool AtEnd(int descriptor);
// Ends the connection with a reset.
void PlainReset(Descriptor& descriptor);
// Open descriptors of this process.
std::size_t OpenDescriptors();

}  // namespace quenmark::test
