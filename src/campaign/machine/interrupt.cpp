#include "campaign/machine/interrupt.h"

#include <signal.h>
#include <string.h>

#include <string>

namespace {

volatile sig_atomic_t g_signal = 0;

void Note(int signal_number) { g_signal = signal_number; }

}  // namespace

Interrupted::Interrupted(int signal_number)
    : std::runtime_error(std::string("interrupted by SIG") + sigabbrev_np(signal_number)), m_signal(signal_number) {}

void CatchInterrupts() {
  struct sigaction action {};
  action.sa_handler = Note;
  sigemptyset(&action.sa_mask);
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) sigaction(signal_number, &action, nullptr);
}

int PendingInterrupt() { return g_signal; }

void ThrowIfInterrupted() {
  if (g_signal != 0) throw Interrupted(g_signal);
}

void RestoreDefaultSignals() {
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) signal(signal_number, SIG_DFL);
}
