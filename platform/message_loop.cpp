#include "platform/message_loop.h"

#include "platform/deadline_heap.h"
#include "platform/message_queue.h"
#include "platform/run_time_error.h"

#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quenmark::platform {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kReadyBatch = 64;        // descriptors taken from the kernel at once
constexpr std::size_t kMessagesPerLook = 64;   // messages in a row before the descriptors get a look
constexpr std::size_t kTurnsPerPatience = 64;  // turns between two looks for timers that have lost theirs
constexpr milliseconds kTimerPatience{250};    // a timer so long overdue no longer stands back behind messages
constexpr std::size_t kCallsPerLook = 64;      // a call may set itself again for the same moment
constexpr std::size_t kRunQueuedLimit = 10'000;
constexpr milliseconds kLongestWait = std::chrono::hours{1};

bool Admits(const MessageFilter& filter, WindowId window, std::uint32_t number) {
  if (filter.window != 0 && filter.window != window) return false;
  return (filter.first == 0 && filter.last == 0) || (number >= filter.first && number <= filter.last);
}

std::uint32_t EpollBits(Readiness interest, Trigger trigger) {
  std::uint32_t bits = trigger == Trigger::kEdge ? std::uint32_t{EPOLLET} : 0;
  if (interest.read) bits |= EPOLLIN;
  if (interest.write) bits |= EPOLLOUT;
  if (interest.hangUp) bits |= EPOLLRDHUP;
  if (interest.urgent) bits |= EPOLLPRI;
  return bits;
}

struct Window {
  std::string name;
  MessageLoop::WindowHandler handler;
  std::weak_ptr<void> data;
  std::vector<DeadlineHeap::Slot> timers;
};

struct TimerEntry {
  WindowId window = 0;
  std::uintptr_t id = 0;
  std::chrono::nanoseconds interval{};
  MonotonicTime due;
  TimerKind kind = TimerKind::kOrdinary;
};

struct WatchEntry {
  int descriptor = -1;
  Trigger trigger = Trigger::kLevel;
  MessageLoop::ReadyHandler handler;
};

// Numbered places for entries. An id is slot + 1 in the low half and the slot's generation in the high half, so the id
// of a freed entry never means its successor.
template <typename Entry>
class Slots {
 public:
  std::uint64_t Add(Entry entry) {
    if (m_free.empty()) {
      m_places.emplace_back();
      m_free.push_back(static_cast<std::uint32_t>(m_places.size() - 1));
    }
    const std::uint32_t slot = m_free.back();
    m_free.pop_back();
    m_places[slot].entry = std::move(entry);
    return (std::uint64_t{m_places[slot].generation} << 32) | (slot + 1);
  }
  // nullptr when the id is 0 or its entry is gone.
  Entry* Find(std::uint64_t id) {
    const std::size_t slot = SlotOf(id);
    if (slot >= m_places.size() || m_places[slot].generation != id >> 32 || !m_places[slot].entry) return nullptr;
    return &*m_places[slot].entry;
  }
  // The id must be of a living entry.
  Entry Take(std::uint64_t id) {
    Place& place = m_places[SlotOf(id)];
    Entry entry = std::move(*place.entry);
    place.entry.reset();
    ++place.generation;
    m_free.push_back(SlotOf(id));
    return entry;
  }
  std::uint64_t IdAt(std::uint32_t slot) const { return (std::uint64_t{m_places[slot].generation} << 32) | (slot + 1); }
  static std::uint32_t SlotOf(std::uint64_t id) { return static_cast<std::uint32_t>(id) - 1; }

 private:
  struct Place {
    std::optional<Entry> entry;
    std::uint32_t generation = 0;
  };
  std::vector<Place> m_places;
  std::vector<std::uint32_t> m_free;
};

}  // namespace

struct MessageLoop::State {
  explicit State(Clock& loopClock) : clock(loopClock), epoll(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll < 0) throw RunTimeError(7, "No descriptor for the message loop");
  }
  ~State() { close(epoll); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  Clock& clock;
  const int epoll;

  std::unordered_map<WindowId, std::shared_ptr<Window>> windows;  // shared with the dispatch that runs its handler
  WindowId lastWindow = 0;
  MessageQueue queue;
  std::size_t messagesSinceLook = 0;
  bool lookTimedOut = false;  // the last look ended with its time limit
  std::size_t turnsSincePatience = 0;
  MonotonicTime overdueUntil = MonotonicTime::min();  // a timer that was due by then goes before messages

  Slots<TimerEntry> timers;
  DeadlineHeap ordinary;   // slots of ordinary timers
  DeadlineHeap mainTicks;  // slots of main ticks
  int mainTickPauses = 0;

  Slots<std::function<void()>> calls;
  DeadlineHeap callTimes;
  Slots<std::shared_ptr<WatchEntry>> watches;
  std::unordered_map<int, WatchId> watchOf;  // by descriptor

  std::function<void(bool)> hook;
  bool inHook = false;
  bool quit = false;
  int outsideWork = 0;

  DeadlineHeap& HeapOf(TimerKind kind) { return kind == TimerKind::kMainTick ? mainTicks : ordinary; }
  MonotonicTime FirstTimerDue() const {
    return mainTickPauses > 0 ? ordinary.FirstDue() : std::min(ordinary.FirstDue(), mainTicks.FirstDue());
  }

  // 0 when the window has no such timer.
  std::uint64_t FindTimer(WindowId window, std::uintptr_t timer) {
    const auto found = windows.find(window);
    if (found == windows.end()) return 0;
    for (const DeadlineHeap::Slot slot : found->second->timers) {
      const std::uint64_t id = timers.IdAt(slot);
      if (const TimerEntry* entry = timers.Find(id); entry != nullptr && entry->id == timer) return id;
    }
    return 0;
  }
  bool IsMainTick(const Message& message) {
    if (message.number != kMessageTimer) return false;
    const TimerEntry* entry = timers.Find(FindTimer(message.window, message.wParam));
    return entry != nullptr && entry->kind == TimerKind::kMainTick;
  }
  void DropTimer(std::uint64_t id) {
    const TimerEntry entry = timers.Take(id);
    HeapOf(entry.kind).Remove(Slots<TimerEntry>::SlotOf(id));
  }

  // The timer due first that the filter admits, 0 when none is due.
  std::uint64_t DueTimer(const MessageFilter& filter, MonotonicTime now) {
    if (!Admits(filter, filter.window, kMessageTimer) || FirstTimerDue() > now) return 0;
    if (filter.window == 0) {
      const bool tick = mainTickPauses == 0 && mainTicks.FirstDue() < ordinary.FirstDue();
      return timers.IdAt(tick ? mainTicks.First() : ordinary.First());
    }
    const auto found = windows.find(filter.window);
    if (found == windows.end()) return 0;
    std::uint64_t first = 0;
    MonotonicTime firstDue = MonotonicTime::max();
    for (const DeadlineHeap::Slot slot : found->second->timers) {
      const TimerEntry& entry = *timers.Find(timers.IdAt(slot));
      if (entry.due > now || entry.due >= firstDue) continue;
      if (entry.kind == TimerKind::kMainTick && mainTickPauses > 0) continue;
      first = timers.IdAt(slot);
      firstDue = entry.due;
    }
    return first;
  }
  // The next beat after now.
  void Advance(std::uint64_t id, MonotonicTime now) {
    TimerEntry& entry = *timers.Find(id);
    entry.due += entry.interval * ((now - entry.due) / entry.interval + 1);
    HeapOf(entry.kind).Set(Slots<TimerEntry>::SlotOf(id), entry.due);
  }

  // Takes a message that the filter admits. Timers count up to `timersUntil`; `looked` is set when handlers of
  // descriptors or calls ran.
  bool Take(Message& message, const MessageFilter& filter, bool remove, MonotonicTime timersUntil, bool& looked) {
    const auto matches = [&filter](const Message& queued) { return Admits(filter, queued.window, queued.number); };
    if (++messagesSinceLook >= kMessagesPerLook) looked |= Look(milliseconds{0});
    if (queue.Find(message, matches, remove)) return true;
    looked |= Look(milliseconds{0});
    if (queue.Find(message, matches, remove)) return true;
    return TakeTimer(message, filter, remove, std::min(clock.Monotonic(), timersUntil));
  }
  // The same for a timer that was due at `until`.
  bool TakeTimer(Message& message, const MessageFilter& filter, bool remove, MonotonicTime until) {
    const std::uint64_t timer = DueTimer(filter, until);
    if (timer == 0) return false;
    const TimerEntry& entry = *timers.Find(timer);
    message = {entry.window, kMessageTimer, entry.id, 0};
    if (remove) Advance(timer, clock.Monotonic());
    return true;
  }

  // Waits for readiness, runs the handlers of what is ready and the calls that are due. Returns whether any ran.
  bool Look(milliseconds limit) {
    messagesSinceLook = 0;
    std::array<epoll_event, kReadyBatch> events;
    const int wait = static_cast<int>(std::min(limit, kLongestWait).count());
    const int count = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), wait);
    lookTimedOut = count == 0;
    bool ran = false;
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      const std::shared_ptr<WatchEntry>* entry = watches.Find(event.data.u64);
      if (entry == nullptr) continue;  // unwatched by a handler before it
      const std::shared_ptr<WatchEntry> kept = *entry;
      kept->handler({(event.events & EPOLLIN) != 0, (event.events & EPOLLOUT) != 0,
                     (event.events & (EPOLLERR | EPOLLHUP)) != 0, (event.events & EPOLLRDHUP) != 0,
                     (event.events & EPOLLPRI) != 0});
      ran = true;
    }
    return RunDueCalls() || ran;
  }
  bool RunDueCalls() {
    if (callTimes.Empty()) return false;
    const MonotonicTime now = clock.Monotonic();
    std::size_t ran = 0;
    for (; ran < kCallsPerLook && callTimes.FirstDue() <= now; ++ran) {
      const DeadlineHeap::Slot slot = callTimes.First();
      callTimes.Remove(slot);
      const std::function<void()> handler = calls.Take(calls.IdAt(slot));
      handler();
    }
    return ran > 0;
  }

  void CallHook(bool aboutToWait) {
    if (!hook || inHook) return;
    struct Mark {
      bool& flag;
      explicit Mark(bool& inside) : flag(inside) { flag = true; }
      ~Mark() { flag = false; }
    } mark(inHook);
    hook(aboutToWait);
  }

  // Sleeps until something is ready or due, or until the deadline. Nothing may be queued or due when it is called.
  void Wait(MonotonicTime deadline) {
    CallHook(true);
    if (!queue.Empty()) return;
    const MonotonicTime now = clock.Monotonic();
    const MonotonicTime next = std::min({deadline, FirstTimerDue(), callTimes.FirstDue()});
    if (next <= now) return;
    if (outsideWork == 0 && clock.SkipTo(next)) return;
    const milliseconds limit = next - now >= kLongestWait ? kLongestWait : std::chrono::ceil<milliseconds>(next - now);
    // A clock that moves by skipping alone is moved over the time that has been waited out.
    if (!Look(limit) && lookTimedOut && limit < kLongestWait) clock.SkipTo(next);
  }

  // Takes what is to be dispatched next. A connection that brings more than is taken leaves timers no gap; ticks have
  // to come all the same. Each timer that is overdue at a look goes once, so that slow ones leave messages theirs.
  bool TakeNext(Message& message, MonotonicTime timersUntil, bool& looked) {
    if (++turnsSincePatience >= kTurnsPerPatience) {
      turnsSincePatience = 0;
      overdueUntil = clock.Monotonic() - kTimerPatience;
    }
    return TakeTimer(message, {}, true, std::min(overdueUntil, timersUntil)) ||
           Take(message, {}, true, timersUntil, looked);
  }

  // Dispatches one message or due timer. False when there was nothing to do, not even in handlers of descriptors.
  bool Turn(MessageLoop& loop, MonotonicTime timersUntil) {
    Message message;
    bool looked = false;
    if (!TakeNext(message, timersUntil, looked)) return looked;
    loop.Dispatch(message);
    return true;
  }
};

MessageLoop::MessageLoop(Clock& clock) : m_state(std::make_unique<State>(clock)) {}

MessageLoop::~MessageLoop() = default;

Clock& MessageLoop::TheClock() const {
  return m_state->clock;
}

// --- Windows ---------------------------------------------------------------------------------------------------------

WindowId MessageLoop::CreateHiddenWindow(std::string_view name, WindowHandler handler) {
  WindowId id = ++m_state->lastWindow;
  while (id == 0 || m_state->windows.contains(id)) id = ++m_state->lastWindow;
  m_state->windows.emplace(id, std::make_shared<Window>(Window{std::string(name), std::move(handler), {}, {}}));
  return id;
}

void MessageLoop::DestroyWindow(WindowId window) {
  const auto found = m_state->windows.find(window);
  if (found == m_state->windows.end()) return;
  const std::shared_ptr<Window> kept = found->second;  // what it owns may call back when it goes
  m_state->windows.erase(found);
  for (const DeadlineHeap::Slot slot : kept->timers) m_state->DropTimer(m_state->timers.IdAt(slot));
  m_state->queue.RemoveIf([window](const Message& message) { return message.window == window; });
}

WindowId MessageLoop::FindHiddenWindow(std::string_view name) const {
  WindowId first = 0;
  for (const auto& [id, window] : m_state->windows) {
    if (window->name == name && (first == 0 || id < first)) first = id;
  }
  return first;
}

void MessageLoop::SetWindowData(WindowId window, std::weak_ptr<void> data) {
  const auto found = m_state->windows.find(window);
  if (found != m_state->windows.end()) found->second->data = std::move(data);
}

std::shared_ptr<void> MessageLoop::WindowData(WindowId window) const {
  const auto found = m_state->windows.find(window);
  return found == m_state->windows.end() ? nullptr : found->second->data.lock();
}

// --- Messages --------------------------------------------------------------------------------------------------------

bool MessageLoop::Post(const Message& message) {
  return m_state->windows.contains(message.window) && m_state->queue.Push(message);
}

bool MessageLoop::Peek(Message& message, const MessageFilter& filter, bool remove) {
  bool looked = false;
  return m_state->Take(message, filter, remove, MonotonicTime::max(), looked);
}

void MessageLoop::RemoveMessages(WindowId window, const std::function<bool(const Message&)>& drop) {
  m_state->queue.RemoveIf([&](const Message& message) { return message.window == window && drop(message); });
}

void MessageLoop::Dispatch(const Message& message) {
  const auto found = m_state->windows.find(message.window);
  if (found == m_state->windows.end()) return;
  const std::shared_ptr<Window> window = found->second;
  {
    std::optional<MainTickPause> pause;
    if (m_state->IsMainTick(message)) pause.emplace(*this);
    window->handler(message);
  }
  m_state->CallHook(false);
}

bool MessageLoop::DispatchOneDuringWait() {
  const MainTickPause pause(*this);
  Message message;
  bool looked = false;
  if (!m_state->TakeNext(message, MonotonicTime::max(), looked)) return false;
  Dispatch(message);
  return true;
}

// --- Timers ----------------------------------------------------------------------------------------------------------

void MessageLoop::SetTimer(WindowId window, std::uintptr_t timer, milliseconds interval, TimerKind kind) {
  const auto found = m_state->windows.find(window);
  if (found == m_state->windows.end()) return;
  interval = std::max(interval, milliseconds{1});
  std::uint64_t id = m_state->FindTimer(window, timer);
  if (id != 0) m_state->HeapOf(m_state->timers.Find(id)->kind).Remove(Slots<TimerEntry>::SlotOf(id));
  if (id == 0) {
    id = m_state->timers.Add({});
    found->second->timers.push_back(Slots<TimerEntry>::SlotOf(id));
  }
  const TimerEntry entry{window, timer, interval, m_state->clock.Monotonic() + interval, kind};
  *m_state->timers.Find(id) = entry;
  m_state->HeapOf(kind).Set(Slots<TimerEntry>::SlotOf(id), entry.due);
}

void MessageLoop::KillTimer(WindowId window, std::uintptr_t timer) {
  const std::uint64_t id = m_state->FindTimer(window, timer);
  if (id == 0) return;
  std::erase(m_state->windows.find(window)->second->timers, Slots<TimerEntry>::SlotOf(id));
  m_state->DropTimer(id);
}

// --- Descriptors -----------------------------------------------------------------------------------------------------

WatchId MessageLoop::Watch(int descriptor, Readiness interest, Trigger trigger, ReadyHandler handler) {
  const WatchId id =
      m_state->watches.Add(std::make_shared<WatchEntry>(WatchEntry{descriptor, trigger, std::move(handler)}));
  epoll_event event{};
  event.events = EpollBits(interest, trigger);
  event.data.u64 = id;
  if (epoll_ctl(m_state->epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
    m_state->watches.Take(id);
    return 0;
  }
  m_state->watchOf[descriptor] = id;
  return id;
}

void MessageLoop::ChangeWatch(WatchId watch, Readiness interest) {
  const std::shared_ptr<WatchEntry>* entry = m_state->watches.Find(watch);
  if (entry == nullptr) return;
  epoll_event event{};
  event.events = EpollBits(interest, (*entry)->trigger);
  event.data.u64 = watch;
  epoll_ctl(m_state->epoll, EPOLL_CTL_MOD, (*entry)->descriptor, &event);
}

void MessageLoop::Unwatch(WatchId watch) {
  if (m_state->watches.Find(watch) == nullptr) return;
  const std::shared_ptr<WatchEntry> entry = m_state->watches.Take(watch);
  // A number that was closed too early and is in use again belongs to its new watch.
  const auto current = m_state->watchOf.find(entry->descriptor);
  if (current == m_state->watchOf.end() || current->second != watch) return;
  m_state->watchOf.erase(current);
  epoll_ctl(m_state->epoll, EPOLL_CTL_DEL, entry->descriptor, nullptr);
}

WatchId MessageLoop::CallAt(WatchId previous, MonotonicTime when, std::function<void()> handler) {
  WatchId id = previous;
  if (std::function<void()>* call = m_state->calls.Find(previous); call != nullptr) {
    *call = std::move(handler);
  } else {
    id = m_state->calls.Add(std::move(handler));
  }
  m_state->callTimes.Set(Slots<std::function<void()>>::SlotOf(id), when);
  return id;
}

void MessageLoop::CancelCall(WatchId call) {
  if (m_state->calls.Find(call) == nullptr) return;
  m_state->callTimes.Remove(Slots<std::function<void()>>::SlotOf(call));
  m_state->calls.Take(call);
}

// --- Waiting ---------------------------------------------------------------------------------------------------------

void MessageLoop::RunQueued() {
  const MonotonicTime start = m_state->clock.Monotonic();
  for (std::size_t i = 0; i < kRunQueuedLimit && m_state->Turn(*this, start); ++i) {
  }
}

bool MessageLoop::WaitUntil(const std::function<bool()>& done, MonotonicTime deadline) {
  for (;;) {
    if (done()) return true;
    if (deadline != MonotonicTime::max() && m_state->clock.Monotonic() >= deadline) return false;
    if (!m_state->Turn(*this, MonotonicTime::max())) m_state->Wait(deadline);
  }
}

void MessageLoop::Sleep(milliseconds duration) {
  WaitUntil([] { return false; }, m_state->clock.Monotonic() + duration);
}

void MessageLoop::WaitForWork(milliseconds limit) {
  const MainTickPause pause(*this);
  const MonotonicTime start = m_state->clock.Monotonic();
  Message message;
  bool looked = false;
  if (m_state->Take(message, {}, false, MonotonicTime::max(), looked) || looked) return;
  m_state->Wait(start + limit);
}

void MessageLoop::WaitForReadiness(milliseconds limit) {
  m_state->CallHook(true);
  const MonotonicTime end = m_state->clock.Monotonic() + limit;
  if (m_state->outsideWork == 0 && m_state->clock.SkipTo(end)) return;
  if (!m_state->Look(limit) && m_state->lookTimedOut) m_state->clock.SkipTo(end);
}

void MessageLoop::Run() {
  while (!m_state->quit) {
    if (!m_state->Turn(*this, MonotonicTime::max())) m_state->Wait(MonotonicTime::max());
  }
  m_state->quit = false;
}

void MessageLoop::Quit() {
  m_state->quit = true;
}

void MessageLoop::SetTurnHook(std::function<void(bool aboutToWait)> hook) {
  m_state->hook = std::move(hook);
}

MessageLoop::OutsideWork::OutsideWork(MessageLoop& loop) : m_loop(loop) {
  ++m_loop.m_state->outsideWork;
}

MessageLoop::OutsideWork::~OutsideWork() {
  --m_loop.m_state->outsideWork;
}

MessageLoop::MainTickPause::MainTickPause(MessageLoop& loop) : m_loop(loop) {
  ++m_loop.m_state->mainTickPauses;
}

MessageLoop::MainTickPause::~MainTickPause() {
  --m_loop.m_state->mainTickPauses;
}

// --- Timer -----------------------------------------------------------------------------------------------------------

Timer::Timer(MessageLoop& loop, milliseconds interval, std::function<void()> tick, TimerKind kind)
    : m_loop(loop), m_interval(interval), m_kind(kind) {
  // The window's handler, not the timer, owns the tick: it lives until it returns even when it destroys the timer.
  m_window = m_loop.CreateHiddenWindow("Timer", [tick = std::move(tick)](const Message&) { tick(); });
}

Timer::~Timer() {
  m_loop.DestroyWindow(m_window);
}

void Timer::SetEnabled(bool enabled) {
  if (m_enabled == enabled) return;
  m_enabled = enabled;
  Restart();
}

void Timer::SetInterval(milliseconds interval) {
  if (m_interval == interval) return;
  m_interval = interval;
  Restart();
}

void Timer::Restart() {
  if (m_enabled && m_interval.count() > 0) {
    m_loop.SetTimer(m_window, 1, m_interval, m_kind);
  } else {
    m_loop.KillTimer(m_window, 1);
  }
}

}  // namespace quenmark::platform
