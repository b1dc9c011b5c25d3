#ifndef KEL_LOGGER_H
#define KEL_LOGGER_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#define KEL_LOGGER_API __attribute__((visibility("default")))

enum LogLevel : int32_t { KEL_LOG_TRACE = 0, KEL_LOG_ERROR = 1, KEL_LOG_WARNING = 2, KEL_LOG_INFO = 3 };

struct KelLogRecord {
    std::string file;  // the source path the caller passed
    int line;
    std::string function;  // the function name the caller passed
    int32_t level;
    std::string message;  // the formatted message
};

// Process-wide logger. Log and SetSink may be called from any thread; records reach the sink one at a
// time, in the order they were logged. A sink must not call Log itself.
class KEL_LOGGER_API KelLogger {
public:
    static KelLogger* GetInstance();

    // printf-style; errno is the same after the call as before it.
    void Log(const char* file, int line, const char* function, const char* separator, const char* extra,
             LogLevel level, const char* format, ...) __attribute__((format(printf, 8, 9)));

    using Sink = std::function<void(const KelLogRecord&)>;
    // An empty sink restores the default: one line per record on stderr.
    void SetSink(Sink sink);

    KelLogger(const KelLogger&) = delete;
    KelLogger& operator=(const KelLogger&) = delete;

private:
    KelLogger() = default;
    ~KelLogger() = default;

    std::mutex m_mutex;
    Sink m_sink;
};

#endif  // KEL_LOGGER_H
