#ifndef KELIPC_TOOL_BENCH_RUNNER_H
#define KELIPC_TOOL_BENCH_RUNNER_H

#include <chrono>
#include <cstdint>
#include <string>

#include "BenchReport.h"
#include "BenchTransport.h"
#include "common/ProgressLine.h"

// Runs the whole benchmark: streaming throughput per write size and transport, 64-byte round trips per
// transport, and the CPU cost of an idle KelIpc connection; every case is repeated, each run in fresh
// processes, and the repeats are interleaved so that a slow drift of the machine spreads over all rows.
class BenchRunner {
public:
    struct Config {
        bool quick = false;
        int repeat = 3;
        uint64_t volume = 0;  // timed bytes per stream case; writes of 64 bytes move a sixteenth
        uint64_t roundTrips = 0;
        std::string name;  // prefix of the socket names
        std::string json;  // empty: no JSON file
        int load = 0;      // busy loops to run beside the measurement
    };

    explicit BenchRunner(Config config);
    int Run();  // the exit code

private:
    void RunStream(const BenchTransport::Profile& profile, uint64_t writeSize);
    void RunLatency(const BenchTransport::Profile& profile, bool sameCpu);
    void RunIdle();
    std::string NextName();
    void Progress(const std::string& what);
    static BenchReport::Settings MakeSettings(const Config& config);
    static double MeasureChecker();

    Config m_config;
    BenchReport::Settings m_settings;
    BenchReport m_report;
    int m_caseIndex = 0;
    int m_caseCount = 0;
    ProgressLine m_progress{"kelipc bench"};
};

#endif  // KELIPC_TOOL_BENCH_RUNNER_H
