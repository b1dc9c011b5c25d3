#ifndef KELIPC_TOOL_BENCH_REPORT_H
#define KELIPC_TOOL_BENCH_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// One run of a stream case; CPU times cover the timed part only, except cpuChildren (whole processes).
struct BenchStreamSample {
    double mbps;
    double seconds;
    double cpuWriter;
    double cpuReader;
    double cpuChildren;
    int64_t syscallsWriter;  // -1 when not counted
    int64_t syscallsReader;
    int64_t vcswWriter;
    int64_t vcswReader;
};

struct BenchStreamRow {
    std::string transport;
    bool kelIpc = false;
    bool polled = false;  // served through epoll; compared only with rows served alike
    uint64_t writeSize = 0;
    uint64_t bytes = 0;    // timed bytes per run
    int kernelBuffer = 0;  // pipe or socket buffer granted; 0 for KelIpc
    std::vector<BenchStreamSample> samples;
    int failures = 0;
};

struct BenchLatencySample {
    double p50us;
    double p99us;
    double cpuPinger;
    double cpuEcho;
    double cpuChildren;
};

struct BenchLatencyRow {
    std::string transport;
    bool kelIpc = false;
    bool polled = false;   // served through epoll; compared only with rows served alike
    bool sameCpu = false;  // both ends pinned to one CPU; compared only with rows of the same kind
    std::vector<BenchLatencySample> samples;
    int failures = 0;
};

struct BenchIdleSample {
    double seconds;
    double cpuReader;
    double cpuWriter;
};

// Collects the figures of a run and presents them: a table per measurement with the median and range of
// the repeats and the ratio of each KelIpc row to the best kernel transport, and the same as JSON.
class BenchReport {
public:
    struct Settings {
        int repeat = 0;
        bool quick = false;
        uint64_t volume = 0;       // timed bytes per stream case
        uint64_t smallVolume = 0;  // for 64-byte writes
        uint64_t roundTrips = 0;
        uint64_t warmTrips = 0;
        double idleSeconds = 0;
        int cpuA = -1;  // reader, echo side
        int cpuB = -1;  // writer, pinger
        double checkerGBps = 0;
        bool syscallsCounted = false;
        std::string syscallsWhyNot;  // when not counted
        int load = 0;                // busy loops beside the measurement
    };

    struct Summary {
        double median = 0;
        double min = 0;
        double max = 0;
        bool valid = false;
    };

    explicit BenchReport(const Settings& settings) : m_settings(settings) {}

    BenchStreamRow& Stream(const std::string& transport, bool kelIpc, uint64_t writeSize, bool polled);
    BenchLatencyRow& Latency(const std::string& transport, bool kelIpc, bool sameCpu, bool polled);
    std::vector<BenchIdleSample>& Idle() { return m_idle; }
    void AddFailure(const std::string& what) { m_failures.push_back(what); }
    bool Failed() const { return !m_failures.empty(); }

    void Print(FILE* out) const;
    bool WriteJson(const std::string& path, std::string& error) const;

    static Summary Summarize(std::vector<double> values);

private:
    template <typename Row, typename Get>
    static Summary Of(const Row& row, Get get);
    // Median of this KelIpc row over the best kernel row's median for the same size; 0 when unknown.
    double StreamRatio(const BenchStreamRow& row) const;
    double LatencyRatio(const BenchLatencyRow& row, bool p99) const;
    // Wake-up cost of a stream row, clock-free: both sides' system calls (syscalls) or voluntary context
    // switches per MiB, or per write for 64-byte writes; invalid when not counted.
    static Summary PerUnit(const BenchStreamRow& row, bool syscalls);

    Settings m_settings;
    std::vector<BenchStreamRow> m_stream;
    std::vector<BenchLatencyRow> m_latency;
    std::vector<BenchIdleSample> m_idle;
    std::vector<std::string> m_failures;
};

#endif  // KELIPC_TOOL_BENCH_REPORT_H
