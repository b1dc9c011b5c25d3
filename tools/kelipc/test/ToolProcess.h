#ifndef KELIPC_TOOL_PROCESS_H
#define KELIPC_TOOL_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

// A running `kelipc` fed through a pipe, its stdout and stderr kept in memory files, for driving the
// program as a user would. Nothing it prints can stall it, so the test only has to feed it.
class ToolProcess {
public:
    // The arguments after the program name; another program than kelipc (a shell) by its path.
    explicit ToolProcess(const std::vector<std::string>& args, const std::string& program = KELIPC_BINARY);
    ~ToolProcess();  // kills and reaps a process still running
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // Writes all of data to its stdin; false when the pipe broke or timeoutMs passed.
    bool WriteInput(const std::string& data, int timeoutMs = 20000);
    void CloseInput();
    // Waits for the exit and collects the output. The exit code, or -1 on a death by signal or a timeout
    // (the process is then killed).
    int Finish(int timeoutMs = 60000);
    void Signal(int signal);

    const std::string& Out() const { return m_out; }
    const std::string& Err() const { return m_err; }
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_outFd = -1;
    int m_errFd = -1;
    std::string m_out;
    std::string m_err;
};

// Runs the program to completion with the given input; the exit code as Finish returns it.
int RunTool(const std::vector<std::string>& args, const std::string& input, std::string* out = nullptr,
            std::string* err = nullptr, int timeoutMs = 60000);

#endif  // KELIPC_TOOL_PROCESS_H
