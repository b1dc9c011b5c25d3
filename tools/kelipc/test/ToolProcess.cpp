#include "ToolProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "TestSupport.h"

namespace {

std::string ReadAll(int fd) {
    std::string text;
    char buffer[65536];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
    return text;
}

}  // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& args, const std::string& program) {
    int in[2];
    m_outFd = memfd_create("kelipc-out", MFD_CLOEXEC);
    m_errFd = memfd_create("kelipc-err", MFD_CLOEXEC);
    if (m_outFd < 0 || m_errFd < 0 || pipe2(in, O_CLOEXEC) != 0) return;
    signal(SIGPIPE, SIG_IGN);
    m_pid = fork();
    if (m_pid == 0) {
        dup2(in[0], 0);
        dup2(m_outFd, 1);
        dup2(m_errFd, 2);
        std::vector<std::string> copy(args);
        std::string path = program;
        std::vector<char*> argv{&path[0]};
        for (std::string& arg : copy) argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(in[0]);
    m_in = in[1];
    fcntl(m_in, F_SETFL, O_NONBLOCK);
}

ToolProcess::~ToolProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    for (int fd : {m_in, m_outFd, m_errFd})
        if (fd >= 0) close(fd);
}

bool ToolProcess::WriteInput(const std::string& data, int timeoutMs) {
    size_t done = 0;
    const bool written = kt::WaitUntil(
        [&] {
            const ssize_t n = m_in < 0 ? -1 : write(m_in, data.data() + done, data.size() - done);
            if (n > 0) done += static_cast<size_t>(n);
            return done == data.size() || (n < 0 && errno != EAGAIN && errno != EINTR);
        },
        timeoutMs);
    return written && done == data.size();
}

void ToolProcess::CloseInput() {
    if (m_in >= 0) close(m_in);
    m_in = -1;
}

void ToolProcess::Signal(int signal) {
    if (m_pid > 0) kill(m_pid, signal);
}

int ToolProcess::Finish(int timeoutMs) {
    if (m_pid <= 0) return -1;
    int status = 0;
    const bool exited = kt::WaitUntil([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeoutMs);
    if (!exited) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    m_pid = -1;
    m_out = ReadAll(m_outFd);
    m_err = ReadAll(m_errFd);
    return exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
