#ifndef KEL_POLL_FIFO_H
#define KEL_POLL_FIFO_H

#include <sys/types.h>

#include <string>

#include "KelTrust.h"

// A FIFO under /dev/shm through which the other end of a Process channel rings this end's descriptor
// (KelIpcSocket::PollFd). The end that polls creates it and removes it at Close; the other end opens it
// by name whenever it must ring. Each ring is one byte: a full FIFO is readable already.
class KelPollFifo {
public:
    KelPollFifo() = default;
    ~KelPollFifo() { Close(); }
    KelPollFifo(const KelPollFifo&) = delete;
    KelPollFifo& operator=(const KelPollFifo&) = delete;

    // Creates path with exactly mode (masked to 0777) and opens it for reading and writing, so that it
    // never reports a hang-up. A FIFO of a trusted user left under the name (by an end of this side that
    // died) is replaced. IPC_ERR_ACCESS when anything else holds the name; IPC_ERR_FAILED (logged).
    int Create(const std::string& path, mode_t mode, const KelTrust& trust);
    int Fd() const { return m_fd; }
    // Closes, and removes the name while it still refers to this FIFO, in the process that made it only (a
    // child forked without exec leaves its parent's FIFO alone).
    void Close();

    // The ringing end: opens path for reading and writing (never blocks, never raises SIGPIPE), -1 when
    // it is missing or not a FIFO of a trusted user (logged).
    static int OpenPeer(const std::string& path, const KelTrust& trust);
    // Empties a descriptor's FIFO; true when anything was there.
    static bool Drain(int fd);
    static void Ring(int fd);

private:
    int m_fd = -1;
    std::string m_path;
    pid_t m_creator = -1;
};

#endif  // KEL_POLL_FIFO_H
