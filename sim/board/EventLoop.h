#ifndef BOARDKIT_SIM_BOARD_EVENTLOOP_H
#define BOARDKIT_SIM_BOARD_EVENTLOOP_H

#include <poll.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

/// Waits for descriptors and moments, and calls whoever has asked for them.
class EventLoop {
 private:
  struct Entry;

 public:
  using Clock = std::chrono::steady_clock;
  /// What is waited for at present, asked before each wait. A descriptor of -1 is nothing.
  using Interest = std::function<pollfd()>;
  /// @param events those of poll() that have come.
  using Handler = std::function<void(short events)>;
  /// The next moment, asked before each wait; nothing: none at present.
  using Moment = std::function<std::optional<Clock::time_point>()>;

  /// The handler is no longer called once its registration is destroyed. It must not outlive what the handler uses.
  class Registration {
   public:
    Registration() = default;
    explicit Registration(std::shared_ptr<Entry> entry) : m_entry(std::move(entry)) {}
    ~Registration();
    Registration(Registration&& other) noexcept = default;
    Registration& operator=(Registration&& other) noexcept {
      std::swap(m_entry, other.m_entry);
      return *this;
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

   private:
    std::shared_ptr<Entry> m_entry;
  };

  [[nodiscard]] Registration Watch(Interest interest, Handler handler);
  [[nodiscard]] Registration At(Moment moment, std::function<void()> handler);

  /// Waits once and calls the handlers of all that has come, in the order of their registration.
  ///
  /// When a handler is called, whatever happened before its own event to those registered earlier has been handled.
  void Turn();

 private:
  Registration Add(Entry entry);

  std::vector<std::shared_ptr<Entry>> m_entries;
  std::vector<pollfd> m_waiting;  // one per entry, in reverse order; a member so that its memory is reused
};

#endif
