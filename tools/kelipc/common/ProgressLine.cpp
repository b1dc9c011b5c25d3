#include "common/ProgressLine.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

std::string Duration(double seconds) {
    char text[32];
    if (seconds < 60)
        std::snprintf(text, sizeof text, "%.0f s", seconds);
    else
        std::snprintf(text, sizeof text, "%d min %02d s", static_cast<int>(seconds) / 60,
                      static_cast<int>(seconds) % 60);
    return text;
}

}  // namespace

ProgressLine::ProgressLine(std::string what)
    : m_what(std::move(what)),
      m_enabled(isatty(STDERR_FILENO) == 1),
      m_start(std::chrono::steady_clock::now()) {}

bool ProgressLine::Due() {
    const auto now = std::chrono::steady_clock::now();
    if (!m_enabled || (m_drawn && now - m_last < std::chrono::milliseconds(250))) return false;
    m_last = now;
    return true;
}

void ProgressLine::Bytes(uint64_t done, uint64_t total) {
    if (!Due()) return;
    const double elapsed = std::chrono::duration<double>(m_last - m_start).count();
    const double rate = static_cast<double>(done) / std::max(elapsed, 1e-3);
    char text[160];
    std::snprintf(text, sizeof text, "%.1f of %.1f MiB, %.0f MiB/s, %s elapsed", done / 1048576.0,
                  total / 1048576.0, rate / 1048576.0, Duration(elapsed).c_str());
    std::string line = text;
    if (done > 0 && total > done) line += ", about " + Duration((total - done) / rate) + " left";
    Draw(line);
}

void ProgressLine::Step(int index, int count, const std::string& text) {
    if (!m_enabled) return;
    m_last = std::chrono::steady_clock::now();
    const double elapsed = std::chrono::duration<double>(m_last - m_start).count();
    std::string line = "[" + std::to_string(index + 1) + "/" + std::to_string(count) + "] " + text + ", " +
                       Duration(elapsed) + " elapsed";
    if (index > 0) line += ", about " + Duration(elapsed / index * (count - index)) + " left";
    Draw(line);
}

void ProgressLine::Draw(const std::string& text) {
    std::fprintf(stderr, "\r\033[K%s: %s", m_what.c_str(), text.c_str());
    std::fflush(stderr);
    m_drawn = true;
}

void ProgressLine::Clear() {
    if (!m_drawn) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    m_drawn = false;
}
