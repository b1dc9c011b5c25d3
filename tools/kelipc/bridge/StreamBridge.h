#ifndef KELIPC_TOOL_STREAM_BRIDGE_H
#define KELIPC_TOOL_STREAM_BRIDGE_H

#include <KelIpc.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "StreamMarks.h"

// One end of `kelipc serve` / `kelipc connect`: stdin goes to the peer and the peer's bytes to stdout
// over a Process socket, until both inputs have ended and both ends hold every byte (see StreamMarks).
// A sender thread and a receiver thread move the bytes; the calling thread waits for the peer, watches
// for signals, failures and a peer the library reports gone (IPC_ERR_PEER_GONE), and on any of them
// stops the socket, which releases every blocked transfer of both ends, before it closes.
class StreamBridge {
public:
    struct Config {
        std::string name;
        KelSide side = Server;
        int block = 262144;
        bool nonBlock = false;  // poll with NonBlockWrite/NonBlockRead instead of Write/Read
        bool progress = false;
        double waitSeconds = 0;  // for the peer to appear; 0: no limit
    };

    explicit StreamBridge(Config config);
    ~StreamBridge();
    StreamBridge(const StreamBridge&) = delete;
    StreamBridge& operator=(const StreamBridge&) = delete;

    int Run();  // the exit code

private:
    using Clock = std::chrono::steady_clock;

    bool Connect();
    // Polls ready every 10 ms until it holds, a signal arrives or the wait runs out (then reason is told).
    bool WaitFor(bool (StreamBridge::*ready)(std::string&));
    bool ClientPresent(std::string& reason);
    bool TryOpenClient(std::string& reason);
    void SendLoop();
    bool Send(const char* data, int length);
    void ReceiveLoop();
    bool WriteOut(const char* data, size_t length);
    bool Done();
    bool Supervise();
    int Finish();
    int Abort();
    // The client closes first and says so; the server waits up to patience for that, then closes.
    void CloseSocket(Clock::duration patience);
    template <typename Call>
    int Guarded(Call call);
    void Fail(const std::string& message);
    void ReportProgress(bool final);

    Config m_config;
    const char* m_command;
    KelIpcSocket m_socket;
    StreamMarks m_marks;
    std::thread m_sender;
    std::thread m_receiver;
    std::atomic<int> m_active{0};     // transfer threads still running
    std::atomic<int> m_inSocket{0};   // transfer threads inside a Guarded call
    std::atomic<bool> m_quit{false};  // set before the socket is stopped: no new socket call starts
    std::atomic<bool> m_failed{false};
    std::atomic<bool> m_sendDone{false};
    std::atomic<bool> m_receiveDone{false};
    std::atomic<bool> m_peerGone{false};  // a transfer or a size returned IPC_ERR_PEER_GONE
    std::atomic<uint64_t> m_sent{0};
    std::atomic<uint64_t> m_received{0};
    Clock::time_point m_start;
    Clock::time_point m_lastReport;
    uint64_t m_lastSent = 0;
    uint64_t m_lastReceived = 0;
};

#endif  // KELIPC_TOOL_STREAM_BRIDGE_H
