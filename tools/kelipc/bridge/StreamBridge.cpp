#include "StreamBridge.h"

#include <KelLogger.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "common/Arguments.h"
#include "common/Commands.h"
#include "common/FastHash.h"
#include "common/ResultText.h"
#include "common/StopSignal.h"

using namespace std::chrono_literals;

namespace {

constexpr int kChunk = 128 * 1024;
constexpr int kPollMs = 50;
constexpr std::chrono::microseconds kIdleMax{4000};

// Sleeps a little longer each time nothing moved: an idle end costs little, a busy one stays quick.
void Pause(std::chrono::microseconds& idle) {
    idle = std::min(kIdleMax, idle.count() != 0 ? idle * 2 : std::chrono::microseconds(20));
    std::this_thread::sleep_for(idle);
}

std::string TransferError(const char* direction, int rc) {
    if (rc == IPC_ERR_NOT_OPENED) return "the connection was stopped";
    if (rc == IPC_ERR_PEER_GONE) return "the peer process is gone";
    return std::string(direction) + " the socket failed, rc=" + ResultText(rc);
}

double MiBPerSecond(uint64_t bytes, std::chrono::steady_clock::duration elapsed) {
    return bytes / 1048576.0 / std::max(std::chrono::duration<double>(elapsed).count(), 1e-9);
}

}  // namespace

StreamBridge::StreamBridge(Config config)
    : m_config(std::move(config)), m_command(m_config.side == Server ? "serve" : "connect") {}

StreamBridge::~StreamBridge() {
    if (m_sender.joinable()) m_sender.join();
    if (m_receiver.joinable()) m_receiver.join();
}

// Everything a transfer thread does with the socket or the marks goes through here, so that Abort can
// close them once no call is inside: a thread raises m_inSocket before it looks at m_quit, Abort sets
// m_quit before it looks at m_inSocket, so one of the two always sees the other.
template <typename Call>
int StreamBridge::Guarded(Call call) {
    m_inSocket.fetch_add(1);
    const int rc = m_quit.load() ? IPC_ERR_NOT_OPENED : call();
    m_inSocket.fetch_sub(1);
    return rc;
}

int StreamBridge::Run() {
    if (!Connect()) {
        m_socket.Close();
        m_marks.Close();
        return StopSignal::Requested() ? kExitSignalBase + StopSignal::Number() : kExitFailure;
    }
    m_start = m_lastReport = Clock::now();
    m_active = 2;
    m_sender = std::thread(&StreamBridge::SendLoop, this);
    m_receiver = std::thread(&StreamBridge::ReceiveLoop, this);
    return Supervise() ? Finish() : Abort();
}

bool StreamBridge::Connect() {
    int block = m_config.block;
    m_socket.SetOption(LBufferSize, &block);
    m_socket.SetOption(RBufferSize, &block);
    if (m_config.side == Client) {
        // Each attempt before the server is up logs the missing objects; only the outcome matters.
        KelLogger::GetInstance()->SetSink([](const KelLogRecord&) {});
        const bool open = WaitFor(&StreamBridge::TryOpenClient);
        KelLogger::GetInstance()->SetSink(nullptr);
        return open;
    }
    int rc = m_socket.Open(Process, Server, m_config.name.c_str(), nullptr);
    if (rc == IPC_OK) rc = m_marks.Open(m_config.name, Server, block);
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc serve: cannot open socket \"%s\", rc=%d (%s)\n", m_config.name.c_str(),
                     rc, KelIpcStrError(rc));
        return false;
    }
    m_marks.Announce();
    return WaitFor(&StreamBridge::ClientPresent);
}

bool StreamBridge::WaitFor(bool (StreamBridge::*ready)(std::string&)) {
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(m_config.waitSeconds));
    std::string reason;
    for (;;) {
        if ((this->*ready)(reason)) return true;
        if (StopSignal::Requested()) return false;
        if (m_config.waitSeconds > 0 && Clock::now() >= deadline) {
            std::fprintf(stderr, "kelipc %s: %s within %g s\n", m_command, reason.c_str(),
                         m_config.waitSeconds);
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
}

bool StreamBridge::ClientPresent(std::string& reason) {
    reason = "no client connected to \"" + m_config.name + "\"";
    return (m_marks.PeerFlags() & StreamMarks::kPresent) != 0;
}

bool StreamBridge::TryOpenClient(std::string& reason) {
    reason =
        "no server \"" + m_config.name + "\" (with a block of " + std::to_string(m_config.block) + " bytes)";
    if (m_marks.Open(m_config.name, Client, m_config.block) != IPC_OK) return false;
    // Only a server whose open has finished announces itself; a client open against a half-made pair
    // would fail at the second direction and, closing the first, stop the server's ring.
    // A server that died after announcing itself is refused by the socket's own open.
    bool ready = (m_marks.PeerFlags() & StreamMarks::kPresent) != 0;
    if (ready && m_marks.Claimed()) {
        reason = "server \"" + m_config.name + "\" is busy with another client";
        ready = false;
    }
    if (ready) ready = m_socket.Open(Process, Client, m_config.name.c_str(), nullptr) == IPC_OK;
    if (!ready) {
        m_marks.Close();
        return false;
    }
    m_marks.Announce();
    return true;
}

void StreamBridge::SendLoop() {
    StopSignal::BlockInThisThread();
    std::vector<char> buffer(kChunk);
    FastHash::Stream sentHash;
    while (!m_quit) {
        // Bounded waits on stdin, so that a stop never waits for a user who types nothing.
        pollfd entry{STDIN_FILENO, POLLIN, 0};
        const int ready = poll(&entry, 1, kPollMs);
        if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
        const ssize_t got = ready < 0 ? -1 : read(STDIN_FILENO, buffer.data(), buffer.size());
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got < 0) {
            Fail(std::string("reading stdin: ") + std::strerror(errno));
            break;
        }
        if (got == 0) {
            m_sendDone = true;
            Guarded([&] {
                m_marks.SetStreamHash(sentHash.Value());
                m_marks.Publish(StreamMarks::kEnded);
                return IPC_OK;
            });
            break;
        }
        sentHash.Add(buffer.data(), static_cast<size_t>(got));
        if (!Send(buffer.data(), static_cast<int>(got))) break;
    }
    --m_active;
}

bool StreamBridge::Send(const char* data, int length) {
    std::chrono::microseconds idle{0};
    for (int done = 0; done < length;) {
        const int rc = Guarded([&] {
            int moved = 0;
            if (!m_config.nonBlock) {
                moved = m_socket.Write(data + done, length - done);
            } else {
                // SpaceSize is 0 on a stopped ring as well; Running tells the two apart.
                const int space = m_socket.SpaceSize();
                if (space > 0)
                    moved = m_socket.NonBlockWrite(data + done, std::min(space, length - done));
                else if (space < 0)
                    moved = space;
                else if (!m_socket.Running())
                    moved = IPC_ERR_NOT_OPENED;
            }
            // Counted only once the bytes are in the ring, so a reader that sees the final count has them.
            if (moved > 0) m_marks.AddSent(static_cast<uint64_t>(moved));
            return moved;
        });
        if (rc < 0) {
            if (rc == IPC_ERR_PEER_GONE) m_peerGone = true;
            Fail(TransferError("writing to", rc));
            return false;
        }
        if (rc == 0) {
            Pause(idle);
            continue;
        }
        idle = {};
        done += rc;
        m_sent += static_cast<uint64_t>(rc);
    }
    return true;
}

void StreamBridge::ReceiveLoop() {
    StopSignal::BlockInThisThread();
    std::vector<char> buffer(kChunk);
    std::chrono::microseconds idle{0};
    uint64_t received = 0;
    FastHash::Stream receivedHash;
    while (!m_quit) {
        const int rc = Guarded([&] {
            // Never more than is stored: a blocking Read would wait for bytes the peer may never send.
            const int stored = m_socket.DataSize();
            if (stored <= 0) return stored;
            const int count = std::min(stored, kChunk);
            return m_config.nonBlock ? m_socket.NonBlockRead(buffer.data(), count)
                                     : m_socket.Read(buffer.data(), count);
        });
        if (rc > 0) {
            idle = {};
            receivedHash.Add(buffer.data(), static_cast<size_t>(rc));
            if (!WriteOut(buffer.data(), static_cast<size_t>(rc))) break;
            received += static_cast<uint64_t>(rc);
            m_received = received;
            continue;
        }
        uint64_t total = 0;
        // The ring was empty just now; once the peer has ended, its count tells whether that is all.
        const int ended = rc < 0 ? rc : Guarded([&] {
            if (!m_socket.Running()) return IPC_ERR_NOT_OPENED;
            return m_marks.PeerEnded(total) ? 1 : 0;
        });
        if (ended < 0) {
            if (ended == IPC_ERR_PEER_GONE) m_peerGone = true;
            Fail(TransferError("reading from", ended));
            break;
        }
        if (ended == 1 && received > total) {
            Fail("received more bytes than the peer sent");
            break;
        }
        if (ended == 1 && received == total) {
            // Counts can agree while bytes differ; the sender's XXH3 of its whole stream says whether they
            // do.
            uint64_t peerHash = 0;
            Guarded([&] {
                peerHash = m_marks.PeerStreamHash();
                return IPC_OK;
            });
            if (peerHash != receivedHash.Value()) {
                Fail("the bytes received differ from the bytes the peer sent (XXH3 mismatch)");
                break;
            }
            m_receiveDone = true;
            Guarded([this] {
                m_marks.Publish(StreamMarks::kDrained);
                return IPC_OK;
            });
            break;
        }
        Pause(idle);
    }
    --m_active;
}

bool StreamBridge::WriteOut(const char* data, size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDOUT_FILENO, data, length);
        if (written >= 0) {
            data += written;
            length -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            pollfd entry{STDOUT_FILENO, POLLOUT, 0};
            poll(&entry, 1, kPollMs);
            if (m_quit) return false;
        } else if (errno != EINTR) {
            Fail(std::string("writing stdout: ") + std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool StreamBridge::Done() {
    return m_sendDone && m_receiveDone && (m_marks.PeerFlags() & StreamMarks::kDrained) != 0;
}

bool StreamBridge::Supervise() {
    for (;;) {
        // Read before Done: a peer closes (and so stops the rings) only after marking kDrained.
        const bool running = m_socket.Running();
        if (Done()) return true;
        if (StopSignal::Requested()) Fail("interrupted");
        if (!running) Fail("the peer stopped the connection");
        // Once the receiver has finished, no transfer may be under way to learn of a death: the sender can
        // wait on stdin for ever.
        if (m_receiveDone && m_socket.DataSize() == IPC_ERR_PEER_GONE) {
            m_peerGone = true;
            Fail("the peer process is gone");
        }
        if (m_failed) return false;
        ReportProgress(false);
        std::this_thread::sleep_for(10ms);
    }
}

int StreamBridge::Finish() {
    m_sender.join();
    m_receiver.join();
    ReportProgress(true);
    CloseSocket(5s);
    return kExitOk;
}

int StreamBridge::Abort() {
    const int code = StopSignal::Requested() ? kExitSignalBase + StopSignal::Number() : kExitFailure;
    m_quit = true;
    m_socket.Stop();
    // Stop releases every blocked transfer of both ends; a call still inside after that cannot be closed
    // under.
    for (const auto giveUp = Clock::now() + 5s; m_inSocket != 0; std::this_thread::sleep_for(2ms)) {
        if (Clock::now() > giveUp) {
            std::fprintf(stderr, "kelipc %s: transfers did not return after Stop\n", m_command);
            std::_Exit(code);
        }
    }
    CloseSocket(1s);
    // A thread blocked on a stdout nobody reads cannot be interrupted; it holds nothing shared any more.
    for (const auto giveUp = Clock::now() + 1s; m_active != 0; std::this_thread::sleep_for(2ms)) {
        if (Clock::now() > giveUp) std::_Exit(code);
    }
    m_sender.join();
    m_receiver.join();
    return code;
}

void StreamBridge::CloseSocket(Clock::duration patience) {
    if (m_config.side == Client) {
        m_socket.Close();
        m_marks.Publish(StreamMarks::kClosed);
    } else {
        // The client's Close and its blocked writers still signal the semaphore sets; removing the sets
        // first would make those signals fail.
        const auto giveUp = Clock::now() + patience;
        while ((m_marks.PeerFlags() & StreamMarks::kClosed) == 0 && !m_peerGone &&
               m_socket.DataSize() != IPC_ERR_PEER_GONE && Clock::now() < giveUp)
            std::this_thread::sleep_for(2ms);
        m_socket.Close();
    }
    m_marks.Close();
}

void StreamBridge::Fail(const std::string& message) {
    // After a stop every transfer fails at once; only the cause is worth a line.
    if (m_quit || m_failed.exchange(true)) return;
    std::fprintf(stderr, "kelipc %s: %s\n", m_command, message.c_str());
}

void StreamBridge::ReportProgress(bool final) {
    const auto now = Clock::now();
    if (!m_config.progress || (!final && now - m_lastReport < 1s)) return;
    const uint64_t sent = m_sent;
    const uint64_t received = m_received;
    if (final) {
        std::fprintf(
            stderr,
            "kelipc %s: done in %.1f s: sent %llu bytes (%.1f MiB/s), received %llu bytes (%.1f MiB/s)\n",
            m_command, std::chrono::duration<double>(now - m_start).count(),
            static_cast<unsigned long long>(sent), MiBPerSecond(sent, now - m_start),
            static_cast<unsigned long long>(received), MiBPerSecond(received, now - m_start));
        return;
    }
    std::fprintf(stderr, "kelipc %s: sent %llu bytes (%.1f MiB/s), received %llu bytes (%.1f MiB/s)\n",
                 m_command, static_cast<unsigned long long>(sent),
                 MiBPerSecond(sent - m_lastSent, now - m_lastReport),
                 static_cast<unsigned long long>(received),
                 MiBPerSecond(received - m_lastReceived, now - m_lastReport));
    m_lastReport = now;
    m_lastSent = sent;
    m_lastReceived = received;
}

namespace {

CommandRun SetupBridge(KelSide side, CLI::App& command) {
    const bool server = side == Server;
    auto config = std::make_shared<StreamBridge::Config>();
    config->side = side;
    config->waitSeconds = server ? 0 : 10;
    command.footer(
        server ? "Opens the server end of socket NAME (transport Process) and waits for `kelipc connect\n"
                 "NAME`. Then it copies the client's bytes to stdout and stdin to the client, until both\n"
                 "inputs have ended and each end holds every byte the other sent. Give it an input that\n"
                 "ends (a file, a pipe, or < /dev/null): a terminal's input ends only with Ctrl-D."
               : "Opens the client end of socket NAME, waiting for its `kelipc serve NAME`. Then it copies\n"
                 "stdin to the server and the server's bytes to stdout, until both inputs have ended and\n"
                 "each end holds every byte the other sent.");
    command.add_option("NAME", config->name, "the socket name")->required()->check(Arguments::ChannelName());
    command
        .add_option("--wait", config->waitSeconds,
                    server ? "how long to wait for a client; 0: until interrupted (default 0)"
                           : "how long to wait for the server; 0: until interrupted (default 10)")
        ->type_name("SECONDS")
        ->check(Arguments::Seconds(0, 1e9));
    Arguments::AddBlock(command, config->block, "; the same on both ends");
    command.add_flag("--nonblock", config->nonBlock,
                     "move bytes with non-blocking calls, polling, instead of blocking ones");
    command.add_flag("--progress", config->progress,
                     "show bytes, rates and time on stderr (one updating line on a terminal)");
    return [config, server] {
        if (!StopSignal::Install()) {
            std::fprintf(stderr, "kelipc %s: sigaction: %s\n", server ? "serve" : "connect",
                         std::strerror(errno));
            return kExitFailure;
        }
        return StreamBridge(*config).Run();
    };
}

}  // namespace

CommandRun SetupServe(CLI::App& command) {
    return SetupBridge(Server, command);
}

CommandRun SetupConnect(CLI::App& command) {
    return SetupBridge(Client, command);
}
