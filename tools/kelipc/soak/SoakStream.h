#ifndef KELIPC_TOOL_SOAK_STREAM_H
#define KELIPC_TOOL_SOAK_STREAM_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

class KelIpcSocket;

enum SoakVerdict : int32_t { kSoakOk = 0, kSoakFault = 1, kSoakFailed = 2 };

// What a reader saw of one direction. Plain data: the client process sends it to the parent through a pipe.
struct SoakResult {
    uint64_t bytes;    // record bytes that arrived and checked out, the end record not counted
    uint64_t records;  // records that checked out
    double seconds;    // from the start of the reader to the end record
    int32_t verdict;   // SoakVerdict
    int32_t code;      // library result of the failed call, IPC_OK otherwise
    char detail[240];  // the first offending record, or the call that failed
};

// One end of a soak run on an open socket: a writer thread sends records (SoakRecord) in writes of random
// sizes and a reader thread checks the peer's records (SoakParser) in reads of random sizes, both cycling
// through the three transfer forms call by call: the mode-following one, the always blocking one and the
// all-or-nothing one, which is retried while it passes nothing.
class SoakStream {
public:
    struct Settings {
        uint64_t size = 0;  // record bytes to send, at least
        std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
        int chunk = 0;          // the ring's piece: block size / 50
        bool nonBlock = false;  // the mode-following forms are all-or-nothing too
        uint64_t sendSeed = 0;  // payload and sizes of what this end writes
        uint64_t recvSeed = 0;  // payload of what the peer writes
        uint64_t readSeed = 0;  // sizes of this end's reads
    };

    SoakStream(KelIpcSocket& socket, const Settings& settings);
    ~SoakStream() { Join(); }
    SoakStream(const SoakStream&) = delete;
    SoakStream& operator=(const SoakStream&) = delete;

    void Start();
    bool Done() const { return m_active == 0; }
    bool Failed() const { return m_failed; }  // a transfer returned an error or the peer's stream was wrong
    uint64_t Progress() const { return m_sent + m_received; }  // bytes moved either way so far
    void Join();
    const SoakResult& Received() const { return m_result; }         // valid after Join
    const std::string& WriteError() const { return m_writeError; }  // valid after Join; empty if none

private:
    void WriterLoop();
    void ReaderLoop();
    int SendPiece(int form, const char* data, int length);
    int ReceivePiece(int form, char* buffer, int length);

    KelIpcSocket& m_socket;
    const Settings m_settings;
    const int m_maxTransfer;
    const uint32_t m_maxPayload;
    std::thread m_writer;
    std::thread m_reader;
    std::atomic<int> m_active{0};
    std::atomic<bool> m_failed{false};
    std::atomic<uint64_t> m_sent{0};
    std::atomic<uint64_t> m_received{0};
    SoakResult m_result{};
    std::string m_writeError;
    std::string m_readError;
};

#endif  // KELIPC_TOOL_SOAK_STREAM_H
