#include "platform/standard_input.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quenmark::platform {

namespace {

constexpr std::size_t kPieceSize = std::size_t{64} * 1024;  // bytes

}  // namespace

StandardInput::StandardInput(MessageLoop& loop, std::function<void(std::span<const std::uint8_t>)> take)
    : m_loop(loop), m_take(std::move(take)), m_buffer(kPieceSize) {
  m_window = m_loop.CreateHiddenWindow("standard input", [this](const Message&) { Read(); });
  m_watch = m_loop.Watch(STDIN_FILENO, {.read = true}, Trigger::kEdge, [this](Readiness) { OnReady(); });
}

StandardInput::~StandardInput() {
  if (m_watch != 0) m_loop.Unwatch(m_watch);
  m_loop.DestroyWindow(m_window);
}

void StandardInput::Request() {
  m_wanted = true;
  if (m_watch == 0) {
    OnReady();
  } else {
    m_loop.ChangeWatch(m_watch, {.read = true});  // tells anew what is there already
  }
}

void StandardInput::OnReady() {
  if (std::exchange(m_wanted, false)) m_loop.Post({.window = m_window, .number = kMessageUser});
}

void StandardInput::Read() {
  ssize_t count = 0;
  do {
    count = read(STDIN_FILENO, m_buffer.data(), m_buffer.size());
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno == EAGAIN) {
    Request();
    return;
  }
  m_take(std::span(m_buffer).first(count > 0 ? static_cast<std::size_t>(count) : 0));
}

}  // namespace quenmark::platform
