#ifndef BOARDKIT_EXAMPLES_UNINTERRUPTED_H
#define BOARDKIT_EXAMPLES_UNINTERRUPTED_H

#include <csignal>

/// While it lives, nobody ends the tour on the way: not from the keyboard, nor when its terminal goes away.
class Uninterrupted {
 public:
  Uninterrupted()
      : m_hangUp(std::signal(SIGHUP, SIG_IGN)),
        m_interrupt(std::signal(SIGINT, SIG_IGN)),
        m_pipe(std::signal(SIGPIPE, SIG_IGN)),
        m_terminate(std::signal(SIGTERM, SIG_IGN)) {}

  ~Uninterrupted() {
    std::signal(SIGHUP, m_hangUp);
    std::signal(SIGINT, m_interrupt);
    std::signal(SIGPIPE, m_pipe);
    std::signal(SIGTERM, m_terminate);
  }

  Uninterrupted(const Uninterrupted&) = delete;
  Uninterrupted& operator=(const Uninterrupted&) = delete;

 private:
  using Handler = void (*)(int);

  Handler m_hangUp;
  Handler m_interrupt;
  Handler m_pipe;
  Handler m_terminate;
};

#endif
