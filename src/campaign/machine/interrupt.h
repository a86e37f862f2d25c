#pragma once

#include <stdexcept>

// SIGINT, SIGTERM, SIGHUP (a dropped session), SIGPIPE (a reader of the
// report gone) and SIGQUIT do not end the campaign on the spot: they are noted,
// and the campaign stops at the next point where it waits or moves on,
// undoing what it set up (mounts, loop devices, the image) on the way out.
class Interrupted : public std::runtime_error {
 public:
  explicit Interrupted(int signal_number);
  int SignalNumber() const { return m_signal; }

 private:
  int m_signal;
};

// Installs the handlers (without SA_RESTART, so that a wait is cut short).
void CatchInterrupts();
// The signal that arrived, or 0.
int PendingInterrupt();
// Throws Interrupted when a signal has arrived.
void ThrowIfInterrupted();
// What a forked child runs with: the default actions again.
void RestoreDefaultSignals();
