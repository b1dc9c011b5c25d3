// Both ends of a channel outliving the other. Usage: reconnect NAME
// First this process serves clients, children, one after another, that each leave another way: one dies
// halfway through a message, one closes (lingering) after its message, one shuts its writing down and
// waits for the answer. Then a server in a child dies under this process's client,
// which reconnects to the server that replaces it.
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

// How a client left the server that outlives it.
enum Departure { kDied, kEnded, kClosed, kFailed };

// The loop of a server that outlives its clients, returning once a client has left: reads what the
// client sends, answers a client that shut its writing down, and makes room for the next client.
static Departure ServeOne(KelIpcSocket& server, const char* name, int& received) {
    char buffer[4096];
    for (;;) {
        const int rc = server.ReadSome(buffer, sizeof buffer);
        if (rc > 0) {
            received += rc;
            continue;
        }
        if (rc == IPC_ERR_PEER_CLOSED) {
            // Every byte the client sent is read. It shut its writing down and waits for the answer, or
            // closed lingering (then the answer fails: nobody reads it). A lingering Close lets the client
            // read the answer; opening afresh leaves the old client nothing to stop.
            char answer[kSize] = "all read";
            server.Write(answer, kSize);
            server.Close();
            return server.Open(Process, Server, name, nullptr) == IPC_OK ? kEnded : kFailed;
        }
        if (rc == IPC_ERR_NOT_OPENED || rc == IPC_ERR_PEER_GONE) {
            // The client closed without a linger (its Close stopped the rings) or died, after every byte
            // it sent. Start empties both directions and lets the next client in: until then a client's
            // Open fails as if no server ran, so none loses its first bytes to this Start.
            server.Start();
            return rc == IPC_ERR_PEER_GONE ? kDied : kClosed;
        }
        return kFailed;
    }
}

int main(int argc, char** argv) {
    if (argc != 2) return Fail("usage: reconnect NAME;", IPC_ERR_PARAM);
    const char* name = argv[1];
    {
        KelIpcSocket server;
        int linger = 5000;
        server.SetOption(CloseLinger, &linger);
        int rc = server.Open(Process, Server, name, nullptr);
        if (rc != IPC_OK) return Fail("server Open", rc);
        const char* const kinds[] = {"died", "closed lingering", "shut its writing down"};
        const Departure expected[] = {kDied, kEnded, kEnded};
        for (int kind = 0; kind < 3; ++kind) {
            const pid_t client = Spawn([&](int ready) {
                KelIpcSocket socket;
                socket.SetOption(CloseLinger, &linger);
                int opened = socket.Open(Process, Client, name, nullptr);
                for (int tries = 0; opened != IPC_OK && tries < 100; ++tries) {
                    usleep(10000);  // the server is still making room after the previous client
                    opened = socket.Open(Process, Client, name, nullptr);
                }
                if (write(ready, "r", 1) != 1 || opened != IPC_OK) return 1;
                char message[kSize] = "a message from a client";
                if (kind == 0) {
                    socket.Write(message, kSize / 2);
                    raise(SIGKILL);  // halfway through its message
                }
                if (socket.Write(message, kSize) != kSize) return 2;
                if (kind == 1) return socket.Close();  // lingers until the server has read it all
                socket.Shutdown();
                if (socket.Read(message, kSize) != kSize) return 3;
                std::printf("client: got \"%s\" after shutting its writing down\n", message);
                std::fflush(stdout);  // a child ends with _exit, which flushes nothing
                return socket.Read(message, 1) == IPC_ERR_PEER_CLOSED ? 0 : 4;
            });
            if (client < 0) return Fail("starting a client", IPC_ERR_FAILED);
            int received = 0;
            const Departure left = ServeOne(server, name, received);
            std::printf("server: a client %s after %d bytes\n", kinds[kind], received);
            std::fflush(stdout);
            if (kind == 0) waitpid(client, nullptr, 0);
            if (left != expected[kind] || (kind != 0 && !Exited0(client))) {
                return Fail("serving the clients", IPC_ERR_FAILED);
            }
        }
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
