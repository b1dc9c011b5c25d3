// Answers one greeting on the channel named argv[1]. Usage: server NAME
#include <KelIpc.h>

#include <cstdio>

static int Fail(const char* what, int rc) {
    std::fprintf(stderr, "server: %s failed, rc=%d (%s)\n", what, rc, KelIpcStrError(rc));
    return 1;
}

int main(int argc, char** argv) {
    if (argc != 2) return Fail("usage: server NAME;", IPC_ERR_PARAM);
    KelIpcSocket socket;
    int rc = socket.Open(Process, Server, argv[1], nullptr);
    if (rc != IPC_OK) return Fail("Open", rc);
    std::printf("server: listening on %s\n", argv[1]);
    std::fflush(stdout);
    constexpr int kSize = 64;  // fixed-size messages: a blocking Read waits until the whole count is there
    char greeting[kSize];
    rc = socket.Read(greeting, kSize);
    if (rc != kSize) return Fail("Read", rc);
    greeting[kSize - 1] = '\0';
    std::printf("server: got \"%s\"\n", greeting);
    const char reply[kSize] = "hello, client";
    rc = socket.Write(reply, kSize);
    if (rc != kSize) return Fail("Write", rc);
    // Stop empties the rings, so wait for the client's word that the reply has arrived.
    rc = socket.Read(greeting, 1);
    if (rc != 1) return Fail("Read", rc);
    rc = socket.Stop();  // ends the client's last Read; the server, which removes the channel, closes last
    if (rc != IPC_OK) return Fail("Stop", rc);
    rc = socket.Close();
    if (rc != IPC_OK) return Fail("Close", rc);
    return 0;
}
