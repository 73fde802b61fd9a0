#include "JoiningThread.h"

#include <signal.h>

#include <utility>

#include <gtest/gtest.h>

#include "ExpectThrow.h"

JoiningThread::JoiningThread(const std::function<void()>& work, std::function<void()> release)
    : m_release(std::move(release)), m_thread([work] {
        sigset_t brokenPipe;
        ::sigemptyset(&brokenPipe);
        ::sigaddset(&brokenPipe, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
        try {
          work();
        } catch (...) {
          ADD_FAILURE() << "the thread beside the test threw " << Thrown::Current();
        }
      }) {}

JoiningThread::~JoiningThread() {
  if (m_thread.joinable()) {
    if (m_release) {
      m_release();
    }
    m_thread.join();
  }
}

void JoiningThread::Join() {
  m_thread.join();
}
