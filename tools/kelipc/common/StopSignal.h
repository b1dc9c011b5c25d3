#ifndef KELIPC_TOOL_STOP_SIGNAL_H
#define KELIPC_TOOL_STOP_SIGNAL_H

// SIGINT and SIGTERM only raise a flag that long-running commands poll, so that they stop their sockets
// and release the shared objects instead of dying with them left behind.
class StopSignal {
public:
    // Installs the handlers (and ignores SIGPIPE, so a vanished peer shows up as a write error).
    static bool Install();
    static bool Requested();
    static int Number();  // the signal received, 0 if none
    // Transfer threads call this so that signals reach the supervising thread, not a blocked transfer.
    static void BlockInThisThread();
};

#endif  // KELIPC_TOOL_STOP_SIGNAL_H
