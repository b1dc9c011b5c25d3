#ifndef KELIPC_TOOL_BENCH_TRANSPORT_H
#define KELIPC_TOOL_BENCH_TRANSPORT_H

#include <KelIpc.h>

#include <cstddef>
#include <cstdint>
#include <string>

// One duplex connection under test with two ends: end 0 (the KelIpc server; the reader of a stream, the
// echoing side of a round trip) and end 1. Kernel objects are made in the parent before it forks, so both
// children inherit them; each child then keeps the ends it plays and, for KelIpc, opens them (end 0 first).
class BenchTransport {
public:
    enum Kind { KelProcess, KelLocal, Pipe, SocketPair };

    struct Profile {
        Kind kind;
        int block;          // KelIpc block per direction; 0 for the library's default
        const char* label;  // the row name in reports
        bool polled =
            false;  // non-blocking calls, waiting in epoll (KelIpc: on PollFd) when they cannot move
    };

    BenchTransport(Profile profile, std::string name);
    ~BenchTransport();  // closes whatever is still open; no transfer may be running
    BenchTransport(const BenchTransport&) = delete;
    BenchTransport& operator=(const BenchTransport&) = delete;

    const Profile& GetProfile() const { return m_profile; }
    const std::string& Name() const { return m_name; }
    bool IsKelIpc() const { return m_profile.kind == KelProcess || m_profile.kind == KelLocal; }
    // Kernel buffer actually granted (pipe size, socket send buffer), 0 for KelIpc.
    int KernelBuffer() const { return m_kernelBuffer; }

    // In the parent, before forking: pipes or the socket pair.
    bool Prepare(std::string& error);
    // In a child after the fork: closes the descriptors of the ends it does not play.
    void KeepOnly(bool end0, bool end1);
    // Opens an end for use (KelIpc Open; nothing for the kernel kinds). False with a reason.
    bool Open(int end, std::string& error);
    // Whole-count transfers; false with a reason on any error.
    bool WriteAll(int end, const char* data, size_t length, std::string& error);
    bool ReadAll(int end, char* buffer, size_t length, std::string& error);
    // Ends every blocked KelIpc transfer of both ends; false for the kernel kinds, which cannot be woken
    // from outside and are ended by the process exiting instead.
    bool Stop();
    void Close();

    // After a child holding a KelProcess server was killed: removes the segments and semaphores it left.
    static void Sweep(const Profile& profile, const std::string& name);

private:
    static int OpenSocket(KelIpcSocket& socket, const Profile& profile, KelIpcType type, KelSide side,
                          const std::string& name);
    bool WritePolled(int end, const char* data, size_t length, std::string& error);
    bool ReadPolled(int end, char* buffer, size_t length, std::string& error);
    // Waits in the end's epoll set until it may proceed (a socket pair's end: writable or readable).
    bool AwaitReady(int end, bool write, std::string& error);
    int WriteFd(int end) const;
    int ReadFd(int end) const;
    static void CloseFd(int& fd);

    Profile m_profile;
    std::string m_name;
    KelIpcSocket m_sockets[2];
    // Pipe: m_fds[0] carries end 1 -> end 0, m_fds[1] end 0 -> end 1 ([read, write] each).
    // SocketPair: m_fds[0][0] is end 0's socket, m_fds[0][1] end 1's.
    int m_fds[2][2] = {{-1, -1}, {-1, -1}};
    int m_kernelBuffer = 0;
    int m_epoll[2] = {-1, -1};       // polled profiles: each end's set, made at its first wait
    uint32_t m_waitFor[2] = {0, 0};  // a socket pair's end: the event its set waits for now
};

#endif  // KELIPC_TOOL_BENCH_TRANSPORT_H
