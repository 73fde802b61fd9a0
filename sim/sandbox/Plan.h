#ifndef BOARDKIT_SIM_SANDBOX_PLAN_H
#define BOARDKIT_SIM_SANDBOX_PLAN_H

#include <string>
#include <vector>

#include "sandbox/Filter.h"
#include "sandbox/Network.h"
#include "sandbox/Node.h"

/// What an application is to find.
struct Plan {
  std::vector<std::string> command;
  std::vector<Node> nodes;
  std::vector<std::string> classes;  // of /sys, which show the nodes alone
  TrappedRequests requests;
  Net net = Net::kPrivate;
  bool namespaces = true;
};

#endif
