#include "devices/line/ModemControl.h"

#include "devices/ModemLines.h"

ModemControl::ModemControl(Port& port)
    : m_port(port), m_inputs(port.far->Inputs(0)), m_farInputs(m_inputs), m_counted(m_inputs) {}

unsigned int ModemControl::Lines() const {
  if (!IsLooped()) {
    return m_outputs | m_inputs;
  }
  // In the loop, the outputs are what the inputs see.
  unsigned int inputs = 0;
  inputs |= (m_outputs & TIOCM_RTS) != 0 ? TIOCM_CTS : 0;
  inputs |= (m_outputs & TIOCM_DTR) != 0 ? TIOCM_DSR : 0;
  inputs |= (m_outputs & kOut1) != 0 ? TIOCM_RNG : 0;
  inputs |= (m_outputs & kOut2) != 0 ? TIOCM_CAR : 0;
  return m_outputs | inputs;
}

bool ModemControl::IsLooped() const {
  return (m_outputs & kLoop) != 0;
}

bool ModemControl::IsCtsOn() const {
  return (Lines() & TIOCM_CTS) != 0;
}

void ModemControl::SetOutputs(unsigned int outputs) {
  m_outputs = outputs;
  LookAtFarEnd();
  Count();
}

void ModemControl::SetInputs(unsigned int bits, bool on) {
  m_inputs = on ? m_inputs | bits : m_inputs & ~bits;
  m_port.Log("inputs " + ModemLineNames(m_inputs));
  Count();
}

void ModemControl::LookAtFarEnd() {
  m_port.far->Look();
  const unsigned int inputs = m_port.far->Inputs(m_outputs);
  if (const unsigned int changed = inputs ^ m_farInputs; changed != 0) {
    m_farInputs = inputs;
    SetInputs(changed & inputs, true);
    SetInputs(changed & ~inputs, false);
  }
}

/// Counts changes as a UART does: for the ring indicator, only its end.
void ModemControl::Count() {
  const unsigned int inputs = Lines() & kInputs;
  const unsigned int changed = inputs ^ m_counted;
  m_port.counts.cts += (changed & TIOCM_CTS) != 0 ? 1 : 0;
  m_port.counts.dsr += (changed & TIOCM_DSR) != 0 ? 1 : 0;
  m_port.counts.dcd += (changed & TIOCM_CAR) != 0 ? 1 : 0;
  m_port.counts.rng += (changed & ~inputs & TIOCM_RNG) != 0 ? 1 : 0;
  m_counted = inputs;
}
