#include "BenchTransport.h"
#include "common/ResultText.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

namespace {

constexpr int kPipeSize = 1 << 20;
constexpr int kPollBoundMs = 10000;  // a polled wait this long is a failure, not a slow case

std::string Errno(const char* call) {
    return std::string(call) + ": " + std::strerror(errno);
}

}  // namespace

BenchTransport::BenchTransport(Profile profile, std::string name)
    : m_profile(profile), m_name(std::move(name)) {}

BenchTransport::~BenchTransport() {
    Close();
}

bool BenchTransport::Prepare(std::string& error) {
    if (m_profile.kind == Pipe) {
        for (int(&pair)[2] : m_fds) {
            if (pipe2(pair, O_CLOEXEC) != 0) {
                error = Errno("pipe2");
                return false;
            }
            // Best effort: without the privilege the row still runs, and reports the size it got.
            fcntl(pair[1], F_SETPIPE_SZ, kPipeSize);
        }
        m_kernelBuffer = fcntl(m_fds[0][1], F_GETPIPE_SZ);
    } else if (m_profile.kind == SocketPair) {
        const int nonBlocking = m_profile.polled ? SOCK_NONBLOCK : 0;
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | nonBlocking, 0, m_fds[0]) != 0) {
            error = Errno("socketpair");
            return false;
        }
        socklen_t size = sizeof m_kernelBuffer;
        getsockopt(m_fds[0][0], SOL_SOCKET, SO_SNDBUF, &m_kernelBuffer, &size);
    }
    return true;
}

void BenchTransport::KeepOnly(bool end0, bool end1) {
    if (m_profile.kind == Pipe) {
        if (!end0) {
            CloseFd(m_fds[0][0]);
            CloseFd(m_fds[1][1]);
        }
        if (!end1) {
            CloseFd(m_fds[1][0]);
            CloseFd(m_fds[0][1]);
        }
    } else if (m_profile.kind == SocketPair) {
        if (!end0) CloseFd(m_fds[0][0]);
        if (!end1) CloseFd(m_fds[0][1]);
    }
}

bool BenchTransport::Open(int end, std::string& error) {
    if (!IsKelIpc()) return true;
    const KelIpcType type = m_profile.kind == KelProcess ? Process : Local;
    const int rc = OpenSocket(m_sockets[end], m_profile, type, end == 0 ? Server : Client, m_name);
    if (rc != IPC_OK) error = "KelIpcSocket Open (end " + std::to_string(end) + ") rc=" + ResultText(rc);
    return rc == IPC_OK;
}

int BenchTransport::OpenSocket(KelIpcSocket& socket, const Profile& profile, KelIpcType type, KelSide side,
                               const std::string& name) {
    int block = profile.block;
    if (block != 0) {
        int rc = socket.SetOption(LBufferSize, &block);
        if (rc == IPC_OK) rc = socket.SetOption(RBufferSize, &block);
        if (rc != IPC_OK) return rc;
    }
    return socket.Open(type, side, name.c_str(), nullptr);
}

bool BenchTransport::AwaitReady(int end, bool write, std::string& error) {
    const uint32_t want = write && !IsKelIpc() ? EPOLLOUT : EPOLLIN;
    if (m_epoll[end] < 0) {
        m_epoll[end] = epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        event.events = want;
        const int fd = IsKelIpc() ? m_sockets[end].PollFd() : m_fds[0][end];
        if (m_epoll[end] < 0 || fd < 0 || epoll_ctl(m_epoll[end], EPOLL_CTL_ADD, fd, &event) != 0) {
            error = Errno("epoll set");
            return false;
        }
        m_waitFor[end] = want;
    } else if (want != m_waitFor[end]) {
        // As an epoll server does: it asks for EPOLLOUT only while a write waits.
        epoll_event event{};
        event.events = want;
        if (epoll_ctl(m_epoll[end], EPOLL_CTL_MOD, m_fds[0][end], &event) != 0) {
            error = Errno("epoll_ctl");
            return false;
        }
        m_waitFor[end] = want;
    }
    epoll_event event{};
    int rc;
    do {
        rc = epoll_wait(m_epoll[end], &event, 1, kPollBoundMs);
    } while (rc < 0 && errno == EINTR);
    if (rc <= 0) error = rc < 0 ? Errno("epoll_wait") : "no readiness within 10 s";
    return rc > 0;
}

bool BenchTransport::WritePolled(int end, const char* data, size_t length, std::string& error) {
    for (size_t done = 0; done < length;) {
        ssize_t rc;
        if (IsKelIpc()) {
            rc = m_sockets[end].NonBlockWrite(data + done, static_cast<int>(length - done));
            if (rc < 0) error = "KelIpcSocket NonBlockWrite rc=" + ResultText(static_cast<int>(rc));
        } else {
            rc = write(m_fds[0][end], data + done, length - done);
            if (rc < 0 && (errno == EAGAIN || errno == EINTR)) rc = 0;
            if (rc < 0) error = Errno("write");
        }
        if (rc < 0 || (rc == 0 && !AwaitReady(end, true, error))) return false;
        done += static_cast<size_t>(rc);
    }
    return true;
}

bool BenchTransport::ReadPolled(int end, char* buffer, size_t length, std::string& error) {
    for (size_t done = 0; done < length;) {
        ssize_t rc;
        if (IsKelIpc()) {
            rc = m_sockets[end].NonBlockRead(buffer + done, static_cast<int>(length - done));
            if (rc < 0) error = "KelIpcSocket NonBlockRead rc=" + ResultText(static_cast<int>(rc));
        } else {
            rc = read(m_fds[0][end], buffer + done, length - done);
            if (rc < 0 && (errno == EAGAIN || errno == EINTR)) rc = 0;
            if (rc < 0) error = Errno("read");
        }
        if (rc < 0 || (rc == 0 && !AwaitReady(end, false, error))) return false;
        done += static_cast<size_t>(rc);
    }
    return true;
}

bool BenchTransport::WriteAll(int end, const char* data, size_t length, std::string& error) {
    if (m_profile.polled) return WritePolled(end, data, length, error);
    size_t done = 0;
    if (IsKelIpc()) {
        KelIpcSocket& socket = m_sockets[end];
        while (done < length) {
            const int rc = socket.Write(data + done, static_cast<int>(length - done));
            if (rc < 0) {
                error = "KelIpcSocket Write rc=" + ResultText(rc);
                return false;
            }
            // Only a non-blocking direction passes nothing; these are blocking, but never spin silently.
            if (rc == 0) std::this_thread::yield();
            done += static_cast<size_t>(rc);
        }
        return true;
    }
    const int fd = WriteFd(end);
    while (done < length) {
        const ssize_t rc = write(fd, data + done, length - done);
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) {
            error = rc < 0 ? Errno("write") : "write passed nothing";
            return false;
        }
        done += static_cast<size_t>(rc);
    }
    return true;
}

bool BenchTransport::ReadAll(int end, char* buffer, size_t length, std::string& error) {
    if (m_profile.polled) return ReadPolled(end, buffer, length, error);
    size_t done = 0;
    if (IsKelIpc()) {
        KelIpcSocket& socket = m_sockets[end];
        while (done < length) {
            const int rc = socket.Read(buffer + done, static_cast<int>(length - done));
            if (rc < 0) {
                error = "KelIpcSocket Read rc=" + ResultText(rc);
                return false;
            }
            if (rc == 0) std::this_thread::yield();
            done += static_cast<size_t>(rc);
        }
        return true;
    }
    const int fd = ReadFd(end);
    while (done < length) {
        const ssize_t rc = read(fd, buffer + done, length - done);
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) {
            error = rc < 0 ? Errno("read") : "the peer closed the connection";
            return false;
        }
        done += static_cast<size_t>(rc);
    }
    return true;
}

bool BenchTransport::Stop() {
    if (!IsKelIpc()) return false;
    for (KelIpcSocket& socket : m_sockets)
        if (socket.Opened()) socket.Stop();
    return true;
}

void BenchTransport::Close() {
    // The client first: its close stops the rings, which signals the semaphores the server then removes.
    for (int end = 1; end >= 0; --end)
        if (m_sockets[end].Opened()) m_sockets[end].Close();
    for (int(&pair)[2] : m_fds) {
        CloseFd(pair[0]);
        CloseFd(pair[1]);
    }
    for (int& set : m_epoll) CloseFd(set);
}

void BenchTransport::Sweep(const Profile& profile, const std::string& name) {
    if (profile.kind != KelProcess) return;
    // A server open removes and recreates the objects of the name; its close removes them for good.
    KelIpcSocket socket;
    if (OpenSocket(socket, profile, Process, Server, name) == IPC_OK) socket.Close();
    // A killed end leaves its descriptor FIFO too.
    for (const char* poll : {"_XS_poll", "_XC_poll"}) unlink(("/dev/shm/" + name + poll).c_str());
}

int BenchTransport::WriteFd(int end) const {
    if (m_profile.kind == SocketPair) return m_fds[0][end];
    return end == 0 ? m_fds[1][1] : m_fds[0][1];
}

int BenchTransport::ReadFd(int end) const {
    if (m_profile.kind == SocketPair) return m_fds[0][end];
    return end == 0 ? m_fds[0][0] : m_fds[1][0];
}

void BenchTransport::CloseFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}
