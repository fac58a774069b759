// Holds a control while its own code runs above handlers that may drop it. For the ctx_winsock files only.
#pragma once

#include "sockets/ctx_winsock.h"

#include <memory>
#include <utility>

namespace quenmark::sockets {

class ctxWinsock::Keep {
 public:
  // `others`: references that do not count as an owner's either, such as the socket's during its event.
  explicit Keep(ctxWinsock& control, long others = 0) : m_control(control.shared_from_this()), m_count(1 + others) {
    m_control->m_keeps += m_count;
  }
  ~Keep() { m_control->m_keeps -= m_count; }
  Keep(const Keep&) = delete;
  Keep& operator=(const Keep&) = delete;

 private:
  std::shared_ptr<ctxWinsock> m_control;
  long m_count;
};

template <typename... Parameters, typename... Arguments>
void ctxWinsock::pvRaise(std::function<void(Parameters...)> WinsockEvents::*event, Arguments&&... arguments) {
  const std::shared_ptr<const WinsockEvents> events = m_events;
  if (events != nullptr && (*events).*event) ((*events).*event)(std::forward<Arguments>(arguments)...);
}

}  // namespace quenmark::sockets
