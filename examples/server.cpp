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
    int linger = 5000;  // Close lets the client read the reply first, for up to 5 s
    socket.SetOption(CloseLinger, &linger);
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
    rc = socket.Close();  // shuts the writing down, waits until the client has the reply, removes the channel
    if (rc != IPC_OK) return Fail("Close", rc);
    return 0;
}
