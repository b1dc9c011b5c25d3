#include "KelLogger.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

void WriteDefault(const KelLogRecord& record) {
    // One fprintf per record so that lines of concurrent processes sharing stderr do not interleave.
    std::fprintf(stderr, "%s:%d %s [%d] %s\n", record.file.c_str(), record.line, record.function.c_str(),
                 record.level, record.message.c_str());
}

std::string Format(const char* format, va_list args) {
    char small[256];
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (needed < 0) return std::string();
    if (static_cast<size_t>(needed) < sizeof(small)) return std::string(small, static_cast<size_t>(needed));
    std::vector<char> large(static_cast<size_t>(needed) + 1);
    std::vsnprintf(large.data(), large.size(), format, args);
    return std::string(large.data(), static_cast<size_t>(needed));
}

}  // namespace

KelLogger* KelLogger::GetInstance() {
    // Never destroyed, so that code running during static destruction can still log.
    static KelLogger* instance = new KelLogger();
    return instance;
}

void KelLogger::Log(const char* file, int line, const char* function, const char* /*separator*/,
                    const char* /*extra*/, LogLevel level, const char* format, ...) {
    const int savedErrno = errno;
    KelLogRecord record;
    record.file = file != nullptr ? file : "";
    record.line = line;
    record.function = function != nullptr ? function : "";
    record.level = level;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        record.message = Format(format, args);
        va_end(args);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_sink) {
            m_sink(record);
        } else {
            WriteDefault(record);
        }
    }
    errno = savedErrno;
}

void KelLogger::SetSink(Sink sink) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sink = std::move(sink);
}
