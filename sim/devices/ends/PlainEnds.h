#ifndef BOARDKIT_SIM_DEVICES_ENDS_PLAINENDS_H
#define BOARDKIT_SIM_DEVICES_ENDS_PLAINENDS_H

#include "devices/ends/FarEnd.h"

/// Nobody.
class NoEnd : public FarEnd {
 public:
  NoEnd(const std::string& /*device*/, const std::string& /*target*/, EventLog& /*log*/) {}

  bool IsConnected() const override {
    return false;
  }
};

/// Somebody who sends back what he gets.
class EchoEnd : public FarEnd {
 public:
  EchoEnd(const std::string& /*device*/, const std::string& /*target*/, EventLog& /*log*/) {}

  bool IsConnected() const override {
    return true;
  }
  bool ReturnsBytes() const override {
    return true;
  }
};

/// A loop-back plug: TX is wired to RX, RTS to CTS, DTR to DSR and CD.
class PlugEnd : public FarEnd {
 public:
  PlugEnd(const std::string& /*device*/, const std::string& /*target*/, EventLog& /*log*/) {}

  bool IsConnected() const override {
    return true;
  }
  unsigned int Inputs(unsigned int outputs) const override {
    return ((outputs & TIOCM_RTS) != 0 ? TIOCM_CTS : 0U) | ((outputs & TIOCM_DTR) != 0 ? TIOCM_DSR | TIOCM_CAR : 0U);
  }
  bool ReturnsBytes() const override {
    return true;
  }
  bool ReturnsBreaks() const override {
    return true;
  }
};

#endif
