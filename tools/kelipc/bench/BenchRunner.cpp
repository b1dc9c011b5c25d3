#include "BenchRunner.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "BenchCase.h"
#include "BenchChecksum.h"
#include "BenchWorker.h"
#include "BusyLoad.h"
#include "SyscallCounter.h"
#include "common/Arguments.h"
#include "common/Commands.h"
#include "common/PayloadPattern.h"
#include "common/StopSignal.h"

using namespace std::chrono_literals;

namespace {

const BenchTransport::Profile kTransports[] = {
    {BenchTransport::KelProcess, 0, "kelipc-process"},
    {BenchTransport::KelProcess, 4 << 20, "kelipc-process-4M"},
    {BenchTransport::KelLocal, 0, "kelipc-local"},
    {BenchTransport::Pipe, 0, "pipe-1M"},
    {BenchTransport::SocketPair, 0, "socketpair"},
};
// Served as an event loop serves: non-blocking calls, and epoll when they cannot move (KelIpc on PollFd).
const BenchTransport::Profile kPolledTransports[] = {
    {BenchTransport::KelProcess, 0, "kelipc-process-epoll", true},
    {BenchTransport::SocketPair, 0, "socketpair-epoll", true},
};
constexpr uint64_t kPolledWrite = 65536;
// The round trip with both ends on one CPU: a wake-up there is a switch between the two ends.
const BenchTransport::Profile kSameCpuTransports[] = {kTransports[0], kTransports[3], kTransports[4],
                                                      kPolledTransports[0], kPolledTransports[1]};
const uint64_t kWriteSizes[] = {64, 4096, 65536, 1 << 20};
constexpr uint64_t kSmallWrite = 64;
constexpr uint64_t kSmallVolumeDivisor = 16;  // 64-byte writes cost per call, not per byte
constexpr uint64_t kDefaultVolume = 256ULL << 20;
constexpr uint64_t kQuickVolume = 32ULL << 20;
constexpr uint64_t kDefaultTrips = 5000;
constexpr uint64_t kQuickTrips = 1000;
constexpr uint64_t kMessage = 64;
constexpr double kIdleSeconds = 1.0;
constexpr uint64_t kSeed = 0x4B656C4970630B00ULL;
// Only a safety net against a hung case: far below any plausible transport speed.
constexpr double kSlowestBytesPerSecond = 4e6;

// KelIpc Local runs both sides as threads of one process; every other kind gives each side a process.
std::vector<std::vector<BenchWork>> Layout(const BenchTransport::Profile& profile, BenchWork end0,
                                           BenchWork end1) {
    if (profile.kind == BenchTransport::KelLocal) {
        end0.threadCpu = true;
        end1.threadCpu = true;
        return {{end0, end1}};
    }
    return {{end0}, {end1}};
}

const BenchSideResult* Find(const std::vector<BenchSideResult>& results, BenchRole role) {
    for (const BenchSideResult& result : results)
        if (result.role == role) return &result;
    return nullptr;
}

std::string SizeName(uint64_t bytes) {
    if (bytes >= (1 << 20)) return std::to_string(bytes >> 20) + " MiB";
    if (bytes >= 1024) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " B";
}

}  // namespace

BenchRunner::BenchRunner(Config config)
    : m_config(std::move(config)), m_settings(MakeSettings(m_config)), m_report(m_settings) {}

BenchReport::Settings BenchRunner::MakeSettings(const Config& config) {
    BenchReport::Settings settings;
    settings.repeat = config.repeat;
    settings.quick = config.quick;
    settings.volume = config.volume;
    settings.smallVolume = std::max<uint64_t>(config.volume / kSmallVolumeDivisor, kSmallWrite);
    settings.roundTrips = config.roundTrips;
    settings.warmTrips = std::max<uint64_t>(config.roundTrips / 10, 100);
    settings.idleSeconds = kIdleSeconds;
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    std::vector<int> cpus;
    if (sched_getaffinity(0, sizeof allowed, &allowed) == 0)
        for (int cpu = 0; cpu < CPU_SETSIZE && cpus.size() < 2; ++cpu)
            if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
    if (cpus.size() == 2) {
        settings.cpuA = cpus[0];
        settings.cpuB = cpus[1];
    }
    settings.checkerGBps = MeasureChecker();
    settings.syscallsCounted = SyscallCounter::Available(settings.syscallsWhyNot);
    settings.load = config.load;
    return settings;
}

// The receive side sums every byte it gets; its speed on cached data bounds what a stream row can show.
// The best of several short rounds, so that a busy moment of the machine does not understate it.
double BenchRunner::MeasureChecker() {
    const size_t length = 1 << 20;
    std::vector<char> buffer(length);
    PayloadPattern(kSeed).Fill(0, buffer.data(), length);
    BenchChecksum hash;
    hash.AddChunk(buffer.data(), length);  // warm the cache
    int64_t best = INT64_MAX;
    const int rounds = 4;
    for (int attempt = 0; attempt < 16; ++attempt) {
        const int64_t begin = BenchWorker::NowNs();
        for (int round = 0; round < rounds; ++round) hash.AddChunk(buffer.data(), length);
        best = std::min(best, std::max<int64_t>(BenchWorker::NowNs() - begin, 1));
    }
    volatile uint64_t sink = hash.Value();
    (void)sink;
    return static_cast<double>(length) * rounds / static_cast<double>(best);
}

int BenchRunner::Run() {
    const int transports = static_cast<int>(sizeof kTransports / sizeof kTransports[0]);
    const int sameCpu = static_cast<int>(sizeof kSameCpuTransports / sizeof kSameCpuTransports[0]);
    const int sizes = static_cast<int>(sizeof kWriteSizes / sizeof kWriteSizes[0]);
    const int polled = static_cast<int>(sizeof kPolledTransports / sizeof kPolledTransports[0]);
    m_caseCount = m_config.repeat * (transports * sizes + transports + 2 * polled + sameCpu + 1);
    BusyLoad load;
    std::string error;
    if (!load.Start(m_config.load, error)) {
        std::fprintf(stderr, "kelipc bench: cannot start the busy loops: %s\n", error.c_str());
        return kExitFailure;
    }
    for (int run = 0; run < m_config.repeat && !StopSignal::Requested(); ++run)
        for (uint64_t size : kWriteSizes)
            for (const BenchTransport::Profile& profile : kTransports)
                if (!StopSignal::Requested()) RunStream(profile, size);
    for (int run = 0; run < m_config.repeat && !StopSignal::Requested(); ++run)
        for (const BenchTransport::Profile& profile : kPolledTransports)
            if (!StopSignal::Requested()) RunStream(profile, kPolledWrite);
    for (int run = 0; run < m_config.repeat && !StopSignal::Requested(); ++run) {
        for (const BenchTransport::Profile& profile : kTransports)
            if (!StopSignal::Requested()) RunLatency(profile, false);
        for (const BenchTransport::Profile& profile : kPolledTransports)
            if (!StopSignal::Requested()) RunLatency(profile, false);
        for (const BenchTransport::Profile& profile : kSameCpuTransports)
            if (!StopSignal::Requested()) RunLatency(profile, true);
    }
    for (int run = 0; run < m_config.repeat && !StopSignal::Requested(); ++run) RunIdle();
    load.Stop();
    m_progress.Clear();
    m_report.Print(stdout);
    int code = m_report.Failed() ? kExitFailure : kExitOk;
    if (!m_config.json.empty()) {
        std::string error;
        if (!m_report.WriteJson(m_config.json, error)) {
            std::fprintf(stderr, "kelipc bench: %s\n", error.c_str());
            code = kExitFailure;
        }
    }
    if (StopSignal::Requested()) {
        std::printf("verdict: INTERRUPTED\n");
        return kExitSignalBase + StopSignal::Number();
    }
    std::printf("verdict: %s\n", code == kExitOk ? "OK (every byte checked on both sides)" : "FAILED");
    return code;
}

void BenchRunner::RunStream(const BenchTransport::Profile& profile, uint64_t writeSize) {
    const uint64_t volume = writeSize == kSmallWrite ? m_settings.smallVolume : m_settings.volume;
    const std::string what = std::string(profile.label) + ", " + SizeName(writeSize) + " writes";
    Progress("stream, " + what);
    BenchWork reader;
    reader.role = kRoleReader;
    reader.end = 0;
    reader.cpu = m_settings.cpuA;
    reader.chunk = writeSize;
    reader.chunks = std::max<uint64_t>(volume / writeSize, 1);
    reader.warmChunks = std::max<uint64_t>(reader.chunks / 8, 1);
    reader.seed = kSeed + static_cast<uint64_t>(m_caseIndex);
    BenchWork writer = reader;
    writer.role = kRoleWriter;
    writer.end = 1;
    writer.cpu = m_settings.cpuB;
    const double total = static_cast<double>((reader.chunks + reader.warmChunks) * writeSize);
    const auto timeout =
        30s + std::chrono::milliseconds(static_cast<int64_t>(total / kSlowestBytesPerSecond * 1e3));
    BenchCase benchCase(profile, NextName(), Layout(profile, reader, writer), timeout);
    std::vector<BenchSideResult> results;
    double childCpu = 0;
    std::string error;
    const bool ran = benchCase.Run(results, childCpu, error);
    BenchStreamRow& row = m_report.Stream(
        profile.label, profile.kind == BenchTransport::KelProcess || profile.kind == BenchTransport::KelLocal,
        writeSize, profile.polled);
    row.bytes = reader.chunks * writeSize;
    row.kernelBuffer = benchCase.KernelBuffer();
    const BenchSideResult* in = Find(results, kRoleReader);
    const BenchSideResult* out = Find(results, kRoleWriter);
    if (ran && (in == nullptr || out == nullptr)) error = "a side did not report";
    if (ran && in != nullptr && out != nullptr && in->hash != out->hash) error = "checksum mismatch";
    if (!error.empty()) {
        ++row.failures;
        m_report.AddFailure("stream " + what + ": " + error);
        return;
    }
    const double seconds = static_cast<double>(in->endNs - in->beginNs) / 1e9;
    row.samples.push_back({static_cast<double>(in->bytes) / 1e6 / std::max(seconds, 1e-9), seconds,
                           static_cast<double>(out->cpuNs) / 1e9, static_cast<double>(in->cpuNs) / 1e9,
                           childCpu, out->syscalls, in->syscalls, out->vcsw, in->vcsw});
}

void BenchRunner::RunLatency(const BenchTransport::Profile& profile, bool sameCpu) {
    Progress(std::string("round trip, ") + profile.label + (sameCpu ? ", one CPU" : ""));
    BenchWork echo;
    echo.role = kRolePonger;
    echo.end = 0;
    echo.cpu = m_settings.cpuA;
    echo.chunk = kMessage;
    echo.chunks = m_settings.roundTrips;
    echo.warmChunks = m_settings.warmTrips;
    echo.seed = kSeed + static_cast<uint64_t>(m_caseIndex);
    BenchWork pinger = echo;
    pinger.role = kRolePinger;
    pinger.end = 1;
    pinger.cpu = sameCpu ? m_settings.cpuA : m_settings.cpuB;
    const auto timeout = 30s + std::chrono::milliseconds(m_settings.roundTrips + m_settings.warmTrips);
    BenchCase benchCase(profile, NextName(), Layout(profile, echo, pinger), timeout);
    std::vector<BenchSideResult> results;
    double childCpu = 0;
    std::string error;
    const bool ran = benchCase.Run(results, childCpu, error);
    BenchLatencyRow& row = m_report.Latency(
        profile.label, profile.kind == BenchTransport::KelProcess || profile.kind == BenchTransport::KelLocal,
        sameCpu, profile.polled);
    const BenchSideResult* a = Find(results, kRolePinger);
    const BenchSideResult* b = Find(results, kRolePonger);
    if (ran && (a == nullptr || b == nullptr)) error = "a side did not report";
    if (ran && a != nullptr && b != nullptr && a->hash != b->hash) error = "checksum mismatch";
    if (!error.empty()) {
        ++row.failures;
        m_report.AddFailure(std::string("round trip ") + profile.label + ": " + error);
        return;
    }
    row.samples.push_back({static_cast<double>(a->p50Ns) / 1e3, static_cast<double>(a->p99Ns) / 1e3,
                           static_cast<double>(a->cpuNs) / 1e9, static_cast<double>(b->cpuNs) / 1e9,
                           childCpu});
}

void BenchRunner::RunIdle() {
    Progress("idle connection");
    const BenchTransport::Profile profile = kTransports[0];
    BenchWork reader;
    reader.role = kRoleIdleReader;
    reader.end = 0;
    reader.cpu = m_settings.cpuA;
    reader.chunk = kMessage;
    reader.chunks = 1;
    reader.idleNs = static_cast<int64_t>(kIdleSeconds * 1e9);
    reader.seed = kSeed + static_cast<uint64_t>(m_caseIndex);
    BenchWork writer = reader;
    writer.role = kRoleIdleWriter;
    writer.end = 1;
    writer.cpu = m_settings.cpuB;
    BenchCase benchCase(profile, NextName(), Layout(profile, reader, writer), 30s);
    std::vector<BenchSideResult> results;
    double childCpu = 0;
    std::string error;
    const bool ran = benchCase.Run(results, childCpu, error);
    const BenchSideResult* in = Find(results, kRoleIdleReader);
    const BenchSideResult* out = Find(results, kRoleIdleWriter);
    if (ran && (in == nullptr || out == nullptr)) error = "a side did not report";
    if (ran && in != nullptr && out != nullptr && in->hash != out->hash) error = "checksum mismatch";
    if (!error.empty()) {
        m_report.AddFailure("idle connection: " + error);
        return;
    }
    m_report.Idle().push_back({static_cast<double>(out->endNs - out->beginNs) / 1e9,
                               static_cast<double>(in->cpuNs) / 1e9, static_cast<double>(out->cpuNs) / 1e9});
}

std::string BenchRunner::NextName() {
    return m_config.name + "_" + std::to_string(m_caseIndex++);
}

void BenchRunner::Progress(const std::string& what) {
    m_progress.Step(m_caseIndex, m_caseCount, what);
}

CommandRun SetupBench(CLI::App& command) {
    auto config = std::make_shared<BenchRunner::Config>();
    command.footer(
        "Measures, side by side, streaming throughput for writes of 64 B, 4 KiB, 64 KiB and 1 MiB and\n"
        "64-byte round-trip latency through KelIpc (Process with default and 4 MiB blocks, Local\n"
        "between two threads), a pipe with a 1 MiB buffer and an AF_UNIX socket pair, each case in\n"
        "fresh processes with the two sides on two CPUs and every byte checked on both sides; a 64 KiB\n"
        "stream and the round trip once more with both sides served as an event loop serves them\n"
        "(non-blocking calls, epoll on KelIpc's PollFd and on the socket pair); and the CPU an idle\n"
        "KelIpc connection uses in one second.");
    command.add_flag("--quick", config->quick,
                     "smaller defaults: 32M per case, 1000 round trips (whole run well under 30 s)");
    command
        .add_option("--repeat", config->repeat,
                    "runs of every case, reported as median and range, 1 to 100 "
                    "(default 3)")
        ->type_name("N")
        ->check(Arguments::Count(1, 100));
    CLI::Option* volume =
        command
            .add_option("--volume", config->volume,
                        "timed bytes per stream case, 64K to 64G, 64-byte writes a sixteenth (default 256M)")
            ->type_name("BYTES")
            ->transform(Arguments::Size(64 << 10, 64ULL << 30));
    CLI::Option* trips = command
                             .add_option("--round-trips", config->roundTrips,
                                         "timed round trips per latency case, 10 to "
                                         "100000000 (default 5000)")
                             ->type_name("N")
                             ->check(Arguments::Count(10, 100000000));
    command.add_option("--json", config->json, "also write every figure to FILE as JSON")
        ->type_name("FILE")
        ->check(Arguments::WritableFile());
    Arguments::AddName(command, config->name, "prefix of the socket names (default kelipc_bench_<pid>)");
    command
        .add_option("--load", config->load,
                    "run N busy loops (unpinned processes) beside the whole measurement, 0 to 64 (default 0)")
        ->type_name("N")
        ->check(Arguments::Count(0, 64));
    return [config, volume, trips] {
        if (volume->count() == 0) config->volume = config->quick ? kQuickVolume : kDefaultVolume;
        if (trips->count() == 0) config->roundTrips = config->quick ? kQuickTrips : kDefaultTrips;
        if (config->name.empty()) config->name = "kelipc_bench_" + std::to_string(getpid());
        if (!StopSignal::Install()) {
            std::perror("kelipc bench: sigaction");
            return kExitFailure;
        }
        return BenchRunner(*config).Run();
    };
}
