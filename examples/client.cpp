// Greets the server on the channel named argv[1] and prints its reply. Usage: client NAME
#include <KelIpc.h>
#include <KelLogger.h>

#include <chrono>
#include <cstdio>
#include <thread>

static int Fail(const char* what, int rc) {
    std::fprintf(stderr, "client: %s failed, rc=%d (%s)\n", what, rc, KelIpcStrError(rc));
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 2) return Fail("usage: client NAME;", IPC_ERR_PARAM);
    KelIpcSocket socket;
    // A client opened before its server fails: retry for up to five seconds, without the library's log
    // lines for each attempt that finds no server yet.
    KelLogger::GetInstance()->SetSink([](const KelLogRecord&) {});
    int rc = socket.Open(Process, Client, argv[1], nullptr);
    for (int tries = 0; rc != IPC_OK && tries < 50; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rc = socket.Open(Process, Client, argv[1], nullptr);
    }
    KelLogger::GetInstance()->SetSink(nullptr);
    if (rc != IPC_OK) return Fail("Open (no server within 5 s)", rc);
    constexpr int kSize = 64;  // both ends use fixed-size messages
    const char greeting[kSize] = "hello, server";
    rc = socket.Write(greeting, kSize);
    if (rc != kSize) return Fail("Write", rc);
    char reply[kSize];
    rc = socket.Read(reply, kSize);
    if (rc != kSize) return Fail("Read", rc);
    reply[kSize - 1] = '\0';
    std::printf("client: got \"%s\"\n", reply);
    rc = socket.Read(reply, 1);  // the server's lingering Close ends its stream after the reply
    if (rc != IPC_ERR_PEER_CLOSED) return Fail("waiting for the end of the server's stream", rc);
    rc = socket.Close();
    if (rc != IPC_OK) return Fail("Close", rc);
    return 0;
}
