#include "ToolProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace {

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void CloseFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& args) {
    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        std::vector<char*> argv;
        std::string program = KELIPC_BINARY;
        argv.push_back(&program[0]);
        std::vector<std::string> copy(args);
        for (std::string& arg : copy) argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    m_in = in[1];
    m_outFd = out[0];
    m_errFd = err[0];
    fcntl(m_in, F_SETFL, O_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);
}

ToolProcess::~ToolProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    CloseFd(m_in);
    CloseFd(m_outFd);
    CloseFd(m_errFd);
}

bool ToolProcess::WriteInput(const std::string& data, int timeoutMs) {
    const int64_t deadline = NowMs() + timeoutMs;
    size_t done = 0;
    while (done < data.size() && m_in >= 0) {
        // Drain our side too, so a program that writes while it reads never stalls on a full pipe.
        char sink[65536];
        for (int* fd : {&m_outFd, &m_errFd}) {
            pollfd p{*fd, POLLIN, 0};
            if (*fd >= 0 && poll(&p, 1, 0) > 0) {
                const ssize_t n = read(*fd, sink, sizeof(sink));
                if (n > 0) (fd == &m_outFd ? m_out : m_err).append(sink, static_cast<size_t>(n));
            }
        }
        const ssize_t n = write(m_in, data.data() + done, data.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        } else {
            pollfd p{m_in, POLLOUT, 0};
            poll(&p, 1, 10);
        }
        if (NowMs() > deadline) return false;
    }
    return done == data.size();
}

void ToolProcess::CloseInput() {
    CloseFd(m_in);
}

void ToolProcess::Signal(int signal) {
    if (m_pid > 0) kill(m_pid, signal);
}

int ToolProcess::Finish(int timeoutMs) {
    if (m_pid <= 0) return -1;
    const int64_t deadline = NowMs() + timeoutMs;
    char buffer[65536];
    while (m_outFd >= 0 || m_errFd >= 0) {
        pollfd fds[2] = {{m_outFd, POLLIN, 0}, {m_errFd, POLLIN, 0}};
        const int64_t left = deadline - NowMs();
        if (left <= 0) break;
        if (poll(fds, 2, static_cast<int>(left < 100 ? left : 100)) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            int& fd = i == 0 ? m_outFd : m_errFd;
            if (fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            const ssize_t n = read(fd, buffer, sizeof(buffer));
            if (n > 0) {
                (i == 0 ? m_out : m_err).append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                CloseFd(fd);
            }
        }
    }
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (NowMs() > deadline) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

int RunTool(const std::vector<std::string>& args, const std::string& input, std::string* out,
            std::string* err, int timeoutMs) {
    ToolProcess tool(args);
    if (!input.empty() && !tool.WriteInput(input, timeoutMs)) return -1;
    tool.CloseInput();
    const int code = tool.Finish(timeoutMs);
    if (out != nullptr) *out = tool.Out();
    if (err != nullptr) *err = tool.Err();
    return code;
}
