// SIGINT, SIGTERM and SIGHUP as a flag and a pipe that a loop can look at.
#pragma once

namespace qrtln {

// Whether the signal is SIGHUP and whoever started this process has it ignored, as nohup does.
bool is_ignored_hangup(int signal);

// Installs the handlers, but not for a SIGHUP that is ignored; once, from main, before any thread
// or child exists.
void install_interrupt_handlers();

// The first signal that came, or 0.
int interrupt_signal();

// Whether one more came, a second or more after the first: those who started this process may send
// several at once.
bool interrupted_again();

// Readable once a signal has come; for poll(). -1 before the handlers are installed.
int interrupt_descriptor();

// Throws the ClientError that ends an interrupted command, when a signal has come.
void throw_if_interrupted();

// Blocks the signals above while it lives, so that a fork's two sides start undisturbed.
class InterruptsBlocked {
  public:
    InterruptsBlocked();
    ~InterruptsBlocked();
    InterruptsBlocked(const InterruptsBlocked&) = delete;
    InterruptsBlocked& operator=(const InterruptsBlocked&) = delete;
};

} // namespace qrtln
