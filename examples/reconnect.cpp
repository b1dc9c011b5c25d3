// Both ends of a channel outliving the other's crash. Usage: reconnect NAME
// First this process serves: its client, a child, dies halfway through a message; the server gets the
// bytes it had sent, then IPC_ERR_PEER_GONE, calls Start and serves the next client. Then a server in a
// child dies under this process's client, which reconnects to the server that replaces it.
#include <KelIpc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

static int Fail(const char* what, int rc) {
    std::fprintf(stderr, "reconnect: %s failed, rc=%d (%s)\n", what, rc, KelIpcStrError(rc));
    return 1;
}

constexpr int kSize = 64;

// Runs fn in a child process, and returns once the child has written its ready byte.
template <typename Fn>
static pid_t Spawn(Fn fn) {
    std::fflush(stdout);  // or the child would print this process's pending lines again
    int ready[2];
    if (pipe(ready) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        _exit(fn(ready[1]));
    }
    close(ready[1]);
    char byte;
    if (pid < 0 || read(ready[0], &byte, 1) != 1) return -1;
    close(ready[0]);
    return pid;
}

static void Kill(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

static bool Exited0(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// One greeting each way; the side that sent first closes, which ends the other's last Read.
static int Greet(KelIpcSocket& socket, const char* role) {
    char text[kSize] = {};
    std::snprintf(text, kSize, "hello from the %s", role);
    const bool client = role[0] == 'c';
    if (client && socket.Write(text, kSize) != kSize) return 1;
    if (socket.Read(text, kSize) != kSize) return 2;
    std::printf("%s: got \"%s\"\n", role, text);
    std::fflush(stdout);  // a child ends with _exit, which flushes nothing
    std::snprintf(text, kSize, "hello from the %s", role);
    if (!client && socket.Write(text, kSize) != kSize) return 3;
    return client ? socket.Close() : socket.Read(text, 1) == IPC_ERR_NOT_OPENED ? 0 : 4;
}

int main(int argc, char** argv) {
    if (argc != 2) return Fail("usage: reconnect NAME;", IPC_ERR_PARAM);
    const char* name = argv[1];
    {
        KelIpcSocket server;
        int rc = server.Open(Process, Server, name, nullptr);
        if (rc != IPC_OK) return Fail("server Open", rc);
        pid_t client = Spawn([&](int ready) {
            KelIpcSocket socket;
            if (socket.Open(Process, Client, name, nullptr) != IPC_OK) return 1;
            socket.Write("half a mess", 11);
            if (write(ready, "r", 1) != 1) return 2;
            pause();  // killed here
            return 0;
        });
        if (client < 0) return Fail("starting the first client", IPC_ERR_FAILED);
        Kill(client);
        char message[kSize];
        rc = server.Read(message, kSize);
        std::printf("server: the client died after %d of %d bytes\n", rc, kSize);
        rc = server.Read(message, kSize);
        if (rc != IPC_ERR_PEER_GONE) return Fail("the read after the client's death", rc);
        // Start drops what was left for the dead client and lets the next one attach.
        rc = server.Start();
        if (rc != IPC_OK) return Fail("Start", rc);
        client = Spawn([&](int ready) {
            KelIpcSocket socket;
            const int opened = socket.Open(Process, Client, name, nullptr);
            if (write(ready, "r", 1) != 1 || opened != IPC_OK) return 1;
            return Greet(socket, "client");
        });
        rc = Greet(server, "server");
        if (rc != 0 || !Exited0(client)) return Fail("the conversation with the next client", IPC_ERR_FAILED);
        server.Close();
    }
    const auto serve = [&](bool die) {
        return Spawn([&, die](int ready) {
            KelIpcSocket socket;
            const int opened = socket.Open(Process, Server, name, nullptr);
            if (write(ready, "r", 1) != 1 || opened != IPC_OK) return 1;
            if (die) pause();  // killed here
            const int rc = Greet(socket, "server");
            return rc != 0 ? rc : socket.Close();
        });
    };
    pid_t server = serve(true);
    KelIpcSocket client;
    int rc = client.Open(Process, Client, name, nullptr);
    if (server < 0 || rc != IPC_OK) return Fail("client Open", rc);
    Kill(server);
    char reply[kSize];
    rc = client.Read(reply, kSize);
    if (rc != IPC_ERR_PEER_GONE) return Fail("the read after the server's death", rc);
    std::printf("client: the server died\n");
    // A new server reclaims the dead one's objects; the client closes its old end and opens again.
    server = serve(false);
    client.Close();
    rc = client.Open(Process, Client, name, nullptr);
    if (server < 0 || rc != IPC_OK) return Fail("client Open after the restart", rc);
    rc = Greet(client, "client");
    if (rc != 0 || !Exited0(server)) return Fail("the conversation with the new server", IPC_ERR_FAILED);
    return 0;
}
