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

#endif
