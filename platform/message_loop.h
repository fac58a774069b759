// The message queue of one thread: hidden windows, posted messages, timers, readiness of descriptors, and the wait.
//
// Everything the feeder does runs in a handler that this loop calls. A blocking call anywhere waits in WaitUntil or
// Sleep, so the handlers of everything else go on meanwhile. Not thread-safe: all calls come from the thread that made
// the loop.
#pragma once

#include "platform/clock.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace quenmark::platform {

using WindowId = std::uint32_t;  // 0: no window
using WatchId = std::uint64_t;   // 0: no watch

inline constexpr std::uint32_t kMessagePaint = 15;
inline constexpr std::uint32_t kMessageTimer = 275;  // wParam: the timer's identifier
inline constexpr std::uint32_t kMessageUser = 1024;

struct Message {
  WindowId window = 0;
  std::uint32_t number = 0;
  std::uintptr_t wParam = 0;
  std::intptr_t lParam = 0;

  friend bool operator==(const Message&, const Message&) = default;
};

// What a peek looks at. Zero window: every window. Zero first and last: every number.
struct MessageFilter {
  WindowId window = 0;
  std::uint32_t first = 0;
  std::uint32_t last = 0;
};

enum class TimerKind {
  kOrdinary,
  kMainTick,  // stays due while a MainTickPause lives, as it does during its own dispatch and DispatchOneDuringWait
};

// Readiness of a descriptor, as a set of bits.
struct Readiness {
  bool read = false;
  bool write = false;
  bool error = false;   // error or hang-up
  bool hangUp = false;  // the peer has ended its sending side; reported when asked for
  bool urgent = false;  // out-of-band data; reported when asked for
};

enum class Trigger { kLevel, kEdge };

class MessageLoop {
 public:
  using WindowHandler = std::function<void(const Message&)>;
  using ReadyHandler = std::function<void(Readiness)>;

  explicit MessageLoop(Clock& clock);
  ~MessageLoop();
  MessageLoop(const MessageLoop&) = delete;
  MessageLoop& operator=(const MessageLoop&) = delete;

  Clock& TheClock() const;

  // --- Windows -------------------------------------------------------------------------------------------------------
  // A hidden window: a name to be found by, a slot for its owner's object, and the handler of its messages.
  WindowId CreateHiddenWindow(std::string_view name, WindowHandler handler);
  // Drops the window's queued messages and timers with it. Safe from within its own handler.
  void DestroyWindow(WindowId window);
  // The first window of that name, 0 when there is none.
  WindowId FindHiddenWindow(std::string_view name) const;
  // Whatever the window's creator keeps with it; empty when nothing was set or the window is gone.
  void SetWindowData(WindowId window, std::weak_ptr<void> data);
  std::shared_ptr<void> WindowData(WindowId window) const;

  // --- Messages ------------------------------------------------------------------------------------------------------
  // Appends a message; false when the window does not exist or a million messages are queued.
  bool Post(const Message& message);
  // The first queued message that the filter lets through, posted ones before due timers. Does not wait; looks at the
  // descriptors when no such message is queued yet, so that readiness that has just arrived is seen.
  bool Peek(Message& message, const MessageFilter& filter, bool remove);
  // Removes every queued message of the window for which `drop` answers true. `drop` must not call the loop.
  void RemoveMessages(WindowId window, const std::function<bool(const Message&)>& drop);
  // Hands a removed message to its window's handler; one of a window that is gone is dropped.
  void Dispatch(const Message& message);
  // Dispatches one queued message or due timer of any kind except the main tick. False when there was none.
  bool DispatchOneDuringWait();

  // --- Timers --------------------------------------------------------------------------------------------------------
  // Starts or restarts a periodic timer of the window; below 1 ms counts as 1 ms. It becomes kMessageTimer when due and
  // nothing else is queued; a timer that came due several times is delivered once and keeps its beat.
  void SetTimer(WindowId window, std::uintptr_t timer, std::chrono::milliseconds interval,
                TimerKind kind = TimerKind::kOrdinary);
  // Stops the timer; a delivery already due is dropped.
  void KillTimer(WindowId window, std::uintptr_t timer);

  // --- Descriptors (platform layers only) ----------------------------------------------------------------------------
  // Handlers run while the loop looks at the descriptors, also within nested waits: they post messages or note results
  // and must not run the owner's code. Error and hang-up are reported whatever the interest. 0 when the kernel refuses.
  // A descriptor has at most one watch and is closed only after Unwatch.
  WatchId Watch(int descriptor, Readiness interest, Trigger trigger, ReadyHandler handler);
  // Also reports anew what is ready at this moment, edge-triggered watches included.
  void ChangeWatch(WatchId watch, Readiness interest);
  void Unwatch(WatchId watch);
  // One-shot callback of a platform layer at a point of monotonic time, under the same rule as ready handlers.
  // Setting it again replaces it. Returns the id to pass next time; 0 or one that has run makes a new one.
  WatchId CallAt(WatchId previous, MonotonicTime when, std::function<void()> handler);
  void CancelCall(WatchId call);

  // --- Waiting -------------------------------------------------------------------------------------------------------
  // "Let queued messages run": dispatches what is queued or due now, without waiting. A message posted by a handler
  // meanwhile is dispatched too, up to a bound that keeps a self-posting handler from holding the caller for ever.
  void RunQueued();
  // Dispatches messages until `done` answers true or the deadline has passed; returns what `done` answers then.
  bool WaitUntil(const std::function<bool()>& done, MonotonicTime deadline);
  // A prescribed sleep: dispatches messages until the time is over.
  void Sleep(std::chrono::milliseconds duration);
  // Waits for at most that long for anything to become ready, due (the main tick left out) or queued, and dispatches
  // nothing. Returns at once when something is.
  void WaitForWork(std::chrono::milliseconds limit);
  // The same for one that leaves queued and due messages where they are: only a descriptor ends it sooner.
  void WaitForReadiness(std::chrono::milliseconds limit);
  // Dispatches until Quit; a Quit before Run makes it return at once.
  void Run();
  void Quit();

  // Called between messages; `aboutToWait` is true before the loop sleeps: nothing is queued, due or ready, or it is
  // left there. The settings store commits here. One hook per loop; it is not called again while it runs.
  void SetTurnHook(std::function<void(bool aboutToWait)> hook);

  // While one of these lives, something outside the process is awaited: the loop then waits in real time even when the
  // clock could skip.
  class OutsideWork {
   public:
    explicit OutsideWork(MessageLoop& loop);
    ~OutsideWork();
    OutsideWork(const OutsideWork&) = delete;
    OutsideWork& operator=(const OutsideWork&) = delete;

   private:
    MessageLoop& m_loop;
  };

  // While one of these lives, no main tick is delivered; one that comes due meanwhile is delivered once afterwards. For
  // a tick that is run directly.
  class MainTickPause {
   public:
    explicit MainTickPause(MessageLoop& loop);
    ~MainTickPause();
    MainTickPause(const MainTickPause&) = delete;
    MainTickPause& operator=(const MainTickPause&) = delete;

   private:
    MessageLoop& m_loop;
  };

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// A form's timer: a tick every interval while enabled and the interval is above zero. Setting either property starts
// the interval anew; setting a property to the value it has changes nothing. The tick may destroy the timer.
class Timer {
 public:
  Timer(MessageLoop& loop, std::chrono::milliseconds interval, std::function<void()> tick,
        TimerKind kind = TimerKind::kOrdinary);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  bool Enabled() const { return m_enabled; }
  void SetEnabled(bool enabled);
  std::chrono::milliseconds Interval() const { return m_interval; }
  void SetInterval(std::chrono::milliseconds interval);

 private:
  void Restart();

  MessageLoop& m_loop;
  std::chrono::milliseconds m_interval;
  TimerKind m_kind;
  bool m_enabled = false;
  WindowId m_window = 0;
};

}  // namespace quenmark::platform
