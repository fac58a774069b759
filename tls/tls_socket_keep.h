// Holds a TLS socket while its own code runs above handlers that may drop it. For the tls_socket files only.
#pragma once

#include "tls/tls_socket.h"

#include <memory>

namespace quenmark::tls {

class cTlsSocket::Keep {
 public:
  // `others`: references that do not count as an owner's either, such as the transport's during its event.
  explicit Keep(cTlsSocket& socket, long others = 0) : m_socket(socket.shared_from_this()), m_count(1 + others) {
    m_socket->m_keeps += m_count;
  }
  ~Keep() { m_socket->m_keeps -= m_count; }
  Keep(const Keep&) = delete;
  Keep& operator=(const Keep&) = delete;

 private:
  std::shared_ptr<cTlsSocket> m_socket;
  long m_count;
};

}  // namespace quenmark::tls
