#ifndef KELIPC_TOOL_PROGRESS_LINE_H
#define KELIPC_TOOL_PROGRESS_LINE_H

#include <chrono>
#include <cstdint>
#include <string>

// One line on stderr that a long command rewrites in place (done, rate, elapsed, remaining) while stderr is
// a terminal; nothing at all when it is not, so that logs and pipes get only the results.
class ProgressLine {
public:
    explicit ProgressLine(std::string what);
    ~ProgressLine() { Clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Bytes moved of total so far; redraws at most a few times a second.
    void Bytes(uint64_t done, uint64_t total);
    // Step index (from 0) of count is starting: what it is, and the time left estimated from the steps done.
    void Step(int index, int count, const std::string& text);
    // Erases the line, before results are printed.
    void Clear();

private:
    bool Due();
    void Draw(const std::string& text);

    std::string m_what;
    bool m_enabled;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_last;
};

#endif  // KELIPC_TOOL_PROGRESS_LINE_H
