#ifndef KELIPC_TOOL_DEMO_ENDPOINT_H
#define KELIPC_TOOL_DEMO_ENDPOINT_H

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

class KelIpcSocket;

enum DemoVerdict : int32_t { kVerdictOk = 0, kVerdictMismatch = 1, kVerdictFailed = 2 };

// What a receiver saw of one direction. Plain data: the client process sends it to the parent through a pipe.
struct DirectionResult {
    uint64_t bytes;       // payload bytes that arrived
    double seconds;       // from the start of the transfer to the last byte
    int32_t verdict;      // DemoVerdict
    int32_t code;         // library result of the failed call, IPC_OK otherwise
    uint64_t mismatchAt;  // offset of the first wrong byte
};

// One end of the demo on an open socket: a writer thread streams the payload of sendSeed in 64 KiB chunks
// and a reader thread receives the peer's payload of recvSeed and checks every chunk. Chunk i of a payload
// is slot i % kSlots of a pool both ends generate from the seed, so the writer only copies and the reader
// compares one XXH3 per chunk with the slot's; a wrong or displaced chunk is then compared byte by byte to
// name the first wrong byte.
class DemoEndpoint {
public:
    static constexpr uint64_t kChunk = 64 * 1024;

    DemoEndpoint(KelIpcSocket& socket, uint64_t size) : m_socket(socket), m_size(size) {}
    ~DemoEndpoint() { Join(); }
    DemoEndpoint(const DemoEndpoint&) = delete;
    DemoEndpoint& operator=(const DemoEndpoint&) = delete;

    void Start(uint64_t sendSeed, uint64_t recvSeed);
    bool Done() const { return m_active == 0; }
    bool Failed() const { return m_failed; }  // a transfer call returned an error
    uint64_t Sent() const { return m_sent; }  // so far
    uint64_t ReceivedBytes() const { return m_received; }
    void Join();
    const DirectionResult& Received() const { return m_result; }  // valid after Join

private:
    static constexpr uint64_t kSlots = 16;

    struct Pool {
        std::vector<char> bytes;  // kSlots chunks
        std::vector<uint64_t> hashes;
        const char* Slot(uint64_t chunk) const { return bytes.data() + (chunk % kSlots) * kChunk; }
    };

    static void MakePool(uint64_t seed, Pool& pool);
    void WriterLoop();
    void ReaderLoop();
    int WriteAll(const char* data, int length);
    int ReadAll(char* buffer, int length);

    KelIpcSocket& m_socket;
    const uint64_t m_size;
    Pool m_sendPool;
    Pool m_recvPool;
    std::thread m_writer;
    std::thread m_reader;
    std::atomic<int> m_active{0};
    std::atomic<bool> m_failed{false};
    std::atomic<uint64_t> m_sent{0};
    std::atomic<uint64_t> m_received{0};
    DirectionResult m_result{};
};

#endif  // KELIPC_TOOL_DEMO_ENDPOINT_H
