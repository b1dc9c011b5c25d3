// One thread with epoll serves a client on each channel named on the command line, echoing every byte, then
// exits once every client has finished. Usage: epoll_echo NAME...
// The client side, for trying it out: epoll_echo --client NAME TEXT (sends TEXT, ends its stream, prints
// the echo).
#include <KelIpc.h>
#include <KelLogger.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

int Fail(const char* what, int rc) {
    std::fprintf(stderr, "epoll_echo: %s failed, rc=%d (%s)\n", what, rc, KelIpcStrError(rc));
    return 1;
}

struct Connection {
    std::string name;
    KelIpcSocket socket;
    std::string pending;  // read, not yet echoed
    long echoed = 0;
};

// Moves what it can without waiting; false once the connection is over: the client's stream ended and
// all of it is echoed, or the client closed or died.
bool Serve(Connection& c) {
    char buffer[4096];
    for (;;) {
        if (!c.pending.empty()) {
            const int rc = c.socket.NonBlockWrite(c.pending.data(), static_cast<int>(c.pending.size()));
            if (rc == 0) return true;  // no room: the descriptor rings once it fits
            if (rc < 0) return false;
            c.echoed += rc;
            c.pending.clear();
        }
        const int rc = c.socket.ReadSome(buffer, sizeof buffer);
        if (rc > 0) {
            c.pending.assign(buffer, static_cast<size_t>(rc));
        } else if (rc == 0) {
            return true;  // nothing yet: the descriptor rings when bytes come
        } else {
            return false;  // IPC_ERR_PEER_CLOSED, IPC_ERR_NOT_OPENED (closed), IPC_ERR_PEER_GONE (died)
        }
    }
}

int RunClient(const char* name, const std::string& text) {
    KelIpcSocket socket;
    KelLogger::GetInstance()->SetSink([](const KelLogRecord&) {});  // quiet while the server is not there yet
    int rc = socket.Open(Process, Client, name, nullptr);
    for (int tries = 0; rc != IPC_OK && tries < 50; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        rc = socket.Open(Process, Client, name, nullptr);
    }
    KelLogger::GetInstance()->SetSink(nullptr);
    if (rc != IPC_OK) return Fail("Open (no server within 5 s)", rc);
    if ((rc = socket.Write(text.data(), static_cast<int>(text.size()))) != static_cast<int>(text.size()))
        return Fail("Write", rc);
    socket.Shutdown();
    std::string echo;
    char buffer[4096];
    while ((rc = socket.ReadSome(buffer, sizeof buffer)) > 0) echo.append(buffer, static_cast<size_t>(rc));
    if (rc != IPC_ERR_PEER_CLOSED) return Fail("ReadSome", rc);
    std::printf("client %s: got \"%s\"\n", name, echo.c_str());
    return socket.Close() == IPC_OK ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--client") return RunClient(argv[2], argv[3]);
    if (argc < 2) return Fail("usage: epoll_echo NAME... or epoll_echo --client NAME TEXT;", IPC_ERR_PARAM);
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    std::vector<Connection> connections(static_cast<size_t>(argc - 1));
    for (size_t i = 0; i < connections.size(); ++i) {
        Connection& c = connections[i];
        c.name = argv[i + 1];
        c.socket.SetOption(LNonBlock, nullptr);  // ReadSome returns at once too
        c.socket.SetOption(RNonBlock, nullptr);
        int linger = 5000;  // Close ends our stream too and lets the client read the echo: it is reading
        c.socket.SetOption(CloseLinger, &linger);
        int rc = c.socket.Open(Process, Server, c.name.c_str(), nullptr);
        if (rc != IPC_OK) return Fail("Open", rc);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        const int fd = c.socket.PollFd();
        if (fd < 0) return Fail("PollFd", fd);
        if (epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event) != 0) return Fail("epoll_ctl", IPC_ERR_FAILED);
    }
    std::printf("epoll_echo: serving %zu channel%s\n", connections.size(),
                connections.size() == 1 ? "" : "s");
    std::fflush(stdout);
    for (size_t open = connections.size(); open > 0;) {
        epoll_event events[16];
        const int count = epoll_wait(loop, events, 16, -1);  // a new descriptor is readable once: all start
        for (int i = 0; i < count; ++i) {
            Connection& c = connections[events[i].data.u64];
            if (Serve(c)) continue;
            std::printf("epoll_echo: %s: echoed %ld bytes\n", c.name.c_str(), c.echoed);
            epoll_ctl(loop, EPOLL_CTL_DEL, c.socket.PollFd(), nullptr);
            c.socket.Close();
            --open;
        }
    }
    close(loop);
    return 0;
}
