#include "board/EventLoop.h"

#include <algorithm>
#include <ctime>
#include <utility>

/// A descriptor or a moment, with its handler.
struct EventLoop::Entry {
  Interest interest;
  Moment moment;
  Handler handler;
  bool isOver = false;

  std::optional<Clock::time_point> Next() const {
    return moment ? moment() : std::nullopt;
  }
};

namespace {

timespec LeftUntil(EventLoop::Clock::time_point moment) {
  const auto left = std::max(moment - EventLoop::Clock::now(), EventLoop::Clock::duration::zero());
  const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
  timespec wait{};
  wait.tv_sec = seconds.count();
  wait.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
  return wait;
}

}  // namespace

EventLoop::Registration::~Registration() {
  if (m_entry) {
    m_entry->isOver = true;
  }
}

EventLoop::Registration EventLoop::Watch(Interest interest, Handler handler) {
  return Add({std::move(interest), nullptr, std::move(handler)});
}

EventLoop::Registration EventLoop::At(Moment moment, std::function<void()> handler) {
  return Add({nullptr, std::move(moment), [handler = std::move(handler)](short /*events*/) { handler(); }});
}

EventLoop::Registration EventLoop::Add(Entry entry) {
  m_entries.push_back(std::make_shared<Entry>(std::move(entry)));
  return Registration(m_entries.back());
}

void EventLoop::Turn() {
  const auto isOver = [](const std::shared_ptr<Entry>& entry) { return entry->isOver; };
  m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), isOver), m_entries.end());

  m_waiting.clear();
  std::optional<Clock::time_point> next;
  // In reverse order: an event that came before another one is then seen no later, and handled before it.
  for (auto entry = m_entries.rbegin(); entry != m_entries.rend(); ++entry) {
    m_waiting.push_back((*entry)->interest ? (*entry)->interest() : pollfd{-1, 0, 0});
    if (const auto moment = (*entry)->Next(); moment && (!next || *moment < *next)) {
      next = moment;
    }
  }
  const timespec wait = next ? LeftUntil(*next) : timespec{};
  if (::ppoll(m_waiting.data(), m_waiting.size(), next ? &wait : nullptr, nullptr) == -1) {
    return;
  }

  // Handlers may add and remove registrations: the new ones wait for the next turn.
  const auto now = Clock::now();
  for (std::size_t i = 0; i < m_waiting.size(); ++i) {
    const std::shared_ptr<Entry> entry = m_entries[i];
    const short events = m_waiting[m_waiting.size() - 1 - i].revents;
    const auto moment = entry->isOver ? std::nullopt : entry->Next();
    if (!entry->isOver && (events != 0 || (moment && *moment <= now))) {
      entry->handler(events);
    }
  }
}
