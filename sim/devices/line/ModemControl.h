#ifndef BOARDKIT_SIM_DEVICES_LINE_MODEMCONTROL_H
#define BOARDKIT_SIM_DEVICES_LINE_MODEMCONTROL_H

#include "devices/line/Port.h"

/// The modem lines of a port.
class ModemControl {
 public:
  explicit ModemControl(Port& port);

  /// The word that TIOCMGET gives.
  unsigned int Lines() const;
  unsigned int Outputs() const {
    return m_outputs;
  }
  /// Whether the port hears itself instead of the line.
  bool IsLooped() const;
  bool IsCtsOn() const;

  void SetOutputs(unsigned int outputs);
  void SetInputs(unsigned int bits, bool on);
  /// Somebody may have come or gone, or changed the outputs there.
  void LookAtFarEnd();

 private:
  void Count();

  Port& m_port;
  unsigned int m_outputs = 0;  // and the loop
  unsigned int m_inputs;
  unsigned int m_farInputs;
  unsigned int m_counted;
};

#endif
