#include "platform/stop_signals.h"

#include "platform/run_time_error.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <utility>

namespace quenmark::platform {
namespace {

sigset_t StopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

}  // namespace

struct StopSignals::Saved {
  sigset_t mask;
  struct sigaction terminate;
  struct sigaction interrupt;
};

StopSignals::StopSignals(MessageLoop& loop, std::function<void()> stop)
    : m_loop(loop), m_saved(std::make_unique<Saved>()) {
  const sigset_t set = StopSet();
  m_descriptor = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (m_descriptor < 0) throw RunTimeError(7, "No descriptor for signals");
  m_window = m_loop.CreateHiddenWindow("StopSignals", [stop = std::move(stop)](const Message&) { stop(); });
  m_watch = m_loop.Watch(m_descriptor, {.read = true}, Trigger::kLevel, [this](Readiness) {
    signalfd_siginfo info;
    bool any = false;
    while (read(m_descriptor, &info, sizeof info) == sizeof info) any = true;
    if (any) m_loop.Post({m_window, kMessageUser, 0, 0});
  });
  pthread_sigmask(SIG_BLOCK, &set, &m_saved->mask);
  // An ignored signal, as a background job of a shell inherits it, would never become readable.
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  sigaction(SIGTERM, &standard, &m_saved->terminate);
  sigaction(SIGINT, &standard, &m_saved->interrupt);
}

StopSignals::~StopSignals() {
  m_loop.Unwatch(m_watch);
  m_loop.DestroyWindow(m_window);
  close(m_descriptor);
  sigaction(SIGTERM, &m_saved->terminate, nullptr);
  sigaction(SIGINT, &m_saved->interrupt, nullptr);
  pthread_sigmask(SIG_SETMASK, &m_saved->mask, nullptr);
}

void IgnoreBrokenPipes() {
  signal(SIGPIPE, SIG_IGN);
}

}  // namespace quenmark::platform
