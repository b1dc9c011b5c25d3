#ifndef KELIPC_TOOL_DEMO_ENDPOINT_H
#define KELIPC_TOOL_DEMO_ENDPOINT_H

#include <atomic>
#include <cstdint>
#include <thread>

class KelIpcSocket;

enum DemoVerdict : int32_t { kVerdictOk = 0, kVerdictMismatch = 1, kVerdictFailed = 2 };

// What a receiver saw of one direction. Plain data: the client process sends it to the parent through a pipe.
struct DirectionResult {
    uint64_t bytes;       // payload bytes that arrived
    double seconds;       // from the start of the transfer to the last byte
    int32_t verdict;      // DemoVerdict
    int32_t code;         // library result of the failed call, IPC_OK otherwise
    uint64_t mismatchAt;  // offset of the first wrong byte; the payload size when only the checksum differed
};

// One end of the demo on an open socket: a writer thread streams the payload of sendSeed in 64 KiB
// chunks followed by its FNV-1a checksum; a reader thread receives the peer's payload and checks each
// byte against recvSeed and the checksum against its own.
class DemoEndpoint {
public:
    DemoEndpoint(KelIpcSocket& socket, uint64_t size) : m_socket(socket), m_size(size) {}
    ~DemoEndpoint() { Join(); }
    DemoEndpoint(const DemoEndpoint&) = delete;
    DemoEndpoint& operator=(const DemoEndpoint&) = delete;

    void Start(uint64_t sendSeed, uint64_t recvSeed);
    bool Done() const { return m_active == 0; }
    bool Failed() const { return m_failed; }  // a transfer call returned an error
    void Join();
    const DirectionResult& Received() const { return m_received; }  // valid after Join

private:
    void WriterLoop(uint64_t seed);
    void ReaderLoop(uint64_t seed);
    int WriteAll(const char* data, int length);
    int ReadAll(char* buffer, int length);

    KelIpcSocket& m_socket;
    const uint64_t m_size;
    std::thread m_writer;
    std::thread m_reader;
    std::atomic<int> m_active{0};
    std::atomic<bool> m_failed{false};
    DirectionResult m_received{};
};

#endif  // KELIPC_TOOL_DEMO_ENDPOINT_H
