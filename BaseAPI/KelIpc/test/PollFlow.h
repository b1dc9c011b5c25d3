#ifndef KEL_IPC_TEST_POLL_FLOW_H
#define KEL_IPC_TEST_POLL_FLOW_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "KelIpc.h"
#include "TestSupport.h"

namespace kt {

constexpr int kBlock = 65536;
constexpr int kMostPerCall = 20000;  // two calls' worth fit in kBlock's ring only sometimes

// Opens an end with kBlock rings; polled ends take both directions non-blocking, so ReadSome returns at once.
inline int OpenEnd(KelIpcSocket& socket, KelIpcType type, KelSide side, const std::string& name,
                   bool polled) {
    int block = kBlock;
    socket.SetOption(LBufferSize, &block);
    socket.SetOption(RBufferSize, &block);
    if (polled) {
        socket.SetOption(LNonBlock, nullptr);
        socket.SetOption(RNonBlock, nullptr);
    }
    return socket.Open(type, side, name.c_str(), nullptr);
}

// One connection's end under an event loop: total bytes each way, written in random sizes through
// NonBlockWrite (a write that passed nothing is tried again as it was) and read through NonBlockRead and
// ReadSome, every byte checked.
class PollFlow {
public:
    PollFlow(KelIpcSocket& socket, int64_t total, uint32_t seed)
        : m_socket(&socket), m_total(total), m_random(seed) {}

    KelIpcSocket& Socket() const { return *m_socket; }
    bool Done() const { return m_sent == m_total && m_got == m_total; }
    int64_t Moved() const { return m_sent + m_got; }
    // Moves what it can now; false with why on a wrong byte or a code.
    bool Pump(std::string& why) {
        while (m_sent < m_total) {
            const int n = m_pending != 0 ? m_pending : Size(m_total - m_sent);
            const std::vector<char> bytes = Pattern(n, m_sent);
            const int rc = m_socket->NonBlockWrite(bytes.data(), n);
            m_pending = rc == 0 ? n : 0;
            if (rc == 0) break;
            if (rc != n) return Fail(why, "NonBlockWrite", rc);
            m_sent += n;
        }
        while (m_got < m_total) {
            const int n = Size(m_total - m_got);
            const int rc = m_random() % 2 != 0 ? m_socket->ReadSome(m_buffer.data(), n)
                                               : m_socket->NonBlockRead(m_buffer.data(), n);
            if (rc == 0) break;
            if (rc < 0 || rc > n) return Fail(why, "a read", rc);
            if (FirstWrong(m_buffer.data(), rc, m_got) >= 0) return Fail(why, "a wrong byte after", m_got);
            m_got += rc;
        }
        return true;
    }

private:
    int Size(int64_t left) {
        return static_cast<int>(std::min<int64_t>(1 + m_random() % kMostPerCall, left));
    }
    static bool Fail(std::string& why, const char* what, int64_t value) {
        why = std::string(what) + " " + std::to_string(value);
        return false;
    }

    KelIpcSocket* m_socket;
    int64_t m_total;
    std::mt19937 m_random;
    int64_t m_sent = 0;
    int64_t m_got = 0;
    int m_pending = 0;
    std::vector<char> m_buffer = std::vector<char>(kMostPerCall);
};

}  // namespace kt

#endif  // KEL_IPC_TEST_POLL_FLOW_H
