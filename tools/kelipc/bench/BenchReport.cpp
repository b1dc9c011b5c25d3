#include "BenchReport.h"
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

std::string SizeText(uint64_t bytes) {
    const char* const units[] = {"B", "KiB", "MiB", "GiB"};
    int unit = 0;
    while (unit < 3 && bytes >= 1024 && bytes % 1024 == 0) {
        bytes /= 1024;
        ++unit;
    }
    return std::to_string(bytes) + " " + units[unit];
}

std::string Format(const char* format, double a, double b) {
    char text[64];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}

}  // namespace

BenchStreamRow& BenchReport::Stream(const std::string& transport, bool kelIpc, uint64_t writeSize,
                                    bool polled) {
    for (BenchStreamRow& row : m_stream)
        if (row.transport == transport && row.writeSize == writeSize) return row;
    m_stream.emplace_back();
    m_stream.back().transport = transport;
    m_stream.back().kelIpc = kelIpc;
    m_stream.back().writeSize = writeSize;
    m_stream.back().polled = polled;
    return m_stream.back();
}

BenchLatencyRow& BenchReport::Latency(const std::string& transport, bool kelIpc, bool sameCpu, bool polled) {
    for (BenchLatencyRow& row : m_latency)
        if (row.transport == transport && row.sameCpu == sameCpu) return row;
    m_latency.emplace_back();
    m_latency.back().transport = transport;
    m_latency.back().kelIpc = kelIpc;
    m_latency.back().sameCpu = sameCpu;
    m_latency.back().polled = polled;
    return m_latency.back();
}

BenchReport::Summary BenchReport::Summarize(std::vector<double> values) {
    Summary summary;
    if (values.empty()) return summary;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    summary.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    summary.min = values.front();
    summary.max = values.back();
    summary.valid = true;
    return summary;
}

template <typename Row, typename Get>
BenchReport::Summary BenchReport::Of(const Row& row, Get get) {
    std::vector<double> values;
    for (const auto& sample : row.samples) values.push_back(get(sample));
    return Summarize(values);
}

double BenchReport::StreamRatio(const BenchStreamRow& row) const {
    const Summary mine = Of(row, [](const BenchStreamSample& s) { return s.mbps; });
    double best = 0;
    for (const BenchStreamRow& other : m_stream) {
        if (other.kelIpc || other.writeSize != row.writeSize || other.polled != row.polled) continue;
        const Summary theirs = Of(other, [](const BenchStreamSample& s) { return s.mbps; });
        if (theirs.valid) best = std::max(best, theirs.median);
    }
    return mine.valid && best > 0 ? mine.median / best : 0;
}

double BenchReport::LatencyRatio(const BenchLatencyRow& row, bool p99) const {
    auto pick = [p99](const BenchLatencySample& s) { return p99 ? s.p99us : s.p50us; };
    const Summary mine = Of(row, pick);
    double best = 0;
    for (const BenchLatencyRow& other : m_latency) {
        if (other.kelIpc || other.sameCpu != row.sameCpu || other.polled != row.polled) continue;
        const Summary theirs = Of(other, pick);
        if (theirs.valid && (best == 0 || theirs.median < best)) best = theirs.median;
    }
    return mine.valid && best > 0 ? mine.median / best : 0;
}

BenchReport::Summary BenchReport::PerUnit(const BenchStreamRow& row, bool syscalls) {
    const double units = row.writeSize == 64 ? static_cast<double>(row.bytes / row.writeSize)
                                             : static_cast<double>(row.bytes) / 1048576.0;
    std::vector<double> values;
    for (const BenchStreamSample& x : row.samples) {
        const int64_t writer = syscalls ? x.syscallsWriter : x.vcswWriter;
        const int64_t reader = syscalls ? x.syscallsReader : x.vcswReader;
        if (writer >= 0 && reader >= 0) values.push_back(static_cast<double>(writer + reader) / units);
    }
    return Summarize(values);
}

void BenchReport::Print(FILE* out) const {
    const Settings& s = m_settings;
    std::fprintf(out, "kelipc bench: %d run%s per case%s; ", s.repeat, s.repeat == 1 ? "" : "s",
                 s.quick ? " (quick)" : "");
    if (s.cpuA >= 0)
        std::fprintf(out, "reader and echo side on CPU %d, writer and pinger on CPU %d\n", s.cpuA, s.cpuB);
    else
        std::fprintf(out, "one CPU: sides not pinned\n");
    std::fprintf(out, "receive-side checksum runs at %.1f GB/s on one core (1 MiB in cache)\n",
                 s.checkerGBps);
    if (s.load > 0)
        std::fprintf(out, "load: %d busy loop%s (unpinned processes) ran beside every case\n", s.load,
                     s.load == 1 ? "" : "s");
    if (!s.syscallsCounted) std::fprintf(out, "system calls: n/a, %s\n", s.syscallsWhyNot.c_str());
    std::fprintf(out, "\n");

    std::fprintf(
        out,
        "stream throughput in MB/s (10^6 B/s), %s timed per case (64-byte writes: %s): median and range of\n"
        "the runs; vs kernel = KelIpc median / best of pipe and socketpair (-epoll rows: / "
        "socketpair-epoll,\n"
        "both served by non-blocking calls and epoll); syscalls, vol. csw: system calls\n"
        "and voluntary context switches (sleeps) of the writer and reader threads together, per MiB or, for\n"
        "64-byte writes, per write; cpu (user+sys) of writer and reader in s: RUSAGE_SELF of each side's\n"
        "process (kelipc-local, whose sides share one: RUSAGE_THREAD); all medians over the timed part\n",
        SizeText(s.volume).c_str(), SizeText(s.smallVolume).c_str());
    std::fprintf(out, "%-7s %-18s %12s %19s %9s %10s %10s %9s %9s\n", "write", "transport", "median MB/s",
                 "range MB/s", "vs kernel", "syscalls", "vol. csw", "cpu wr s", "cpu rd s");
    uint64_t lastSize = 0;
    for (const BenchStreamRow& row : m_stream) {
        const bool first = row.writeSize != lastSize;
        if (first && lastSize != 0) std::fprintf(out, "\n");
        lastSize = row.writeSize;
        const std::string size = first ? SizeText(row.writeSize) : "";
        const Summary mbps = Of(row, [](const BenchStreamSample& x) { return x.mbps; });
        if (!mbps.valid) {
            std::fprintf(out, "%-7s %-18s %12s\n", size.c_str(), row.transport.c_str(), "failed");
            continue;
        }
        std::string versus;
        if (row.kelIpc) {
            const double ratio = StreamRatio(row);
            versus = ratio > 0 ? Format("%.2fx", ratio, 0) : "-";
        } else {
            bool best = true;
            for (const BenchStreamRow& other : m_stream) {
                if (other.kelIpc || other.writeSize != row.writeSize || other.polled != row.polled ||
                    &other == &row)
                    continue;
                const Summary theirs = Of(other, [](const BenchStreamSample& x) { return x.mbps; });
                best = best && (!theirs.valid || theirs.median <= mbps.median);
            }
            versus = best ? "best" : "";
        }
        const char* unit = row.writeSize == 64 ? "/wr" : "/MiB";
        auto perUnit = [&](bool syscalls) {
            const Summary figure = PerUnit(row, syscalls);
            if (!figure.valid) return std::string("n/a");
            return Format(figure.median < 10 ? "%.2f" : "%.0f", figure.median, 0) + unit;
        };
        std::fprintf(out, "%-7s %-18s %12.1f %19s %9s %10s %10s %9.3f %9.3f\n", size.c_str(),
                     row.transport.c_str(), mbps.median, Format("%.1f-%.1f", mbps.min, mbps.max).c_str(),
                     versus.c_str(), perUnit(true).c_str(), perUnit(false).c_str(),
                     Of(row, [](const BenchStreamSample& x) { return x.cpuWriter; }).median,
                     Of(row, [](const BenchStreamSample& x) { return x.cpuReader; }).median);
    }

    std::string buffers;
    for (const BenchStreamRow& row : m_stream) {
        if (row.kernelBuffer <= 0 || row.writeSize != m_stream.front().writeSize) continue;
        buffers += (buffers.empty() ? "" : ", ") + row.transport + " " + std::to_string(row.kernelBuffer);
    }
    if (!buffers.empty()) std::fprintf(out, "kernel buffers granted, bytes: %s\n", buffers.c_str());

    std::fprintf(out,
                 "\n64-byte round trip in us: %llu timed after %llu untimed per run; median and range of the "
                 "runs'\np50 and p99; vs kernel = KelIpc p50 / best kernel p50 with the ends placed alike\n"
                 "(below 1 is faster); cpu: medians over the timed part\n",
                 static_cast<unsigned long long>(s.roundTrips), static_cast<unsigned long long>(s.warmTrips));
    std::fprintf(out, "%-18s %8s %15s %8s %15s %9s %9s %9s\n", "transport", "p50 us", "range p50", "p99 us",
                 "range p99", "vs kernel", "cpu ping", "cpu echo");
    for (const bool sameCpu : {false, true}) {
        std::fprintf(out, "%s\n", sameCpu ? "both ends on one CPU:" : "ends on two CPUs:");
        for (const BenchLatencyRow& row : m_latency) {
            if (row.sameCpu != sameCpu) continue;
            const Summary p50 = Of(row, [](const BenchLatencySample& x) { return x.p50us; });
            const Summary p99 = Of(row, [](const BenchLatencySample& x) { return x.p99us; });
            if (!p50.valid) {
                std::fprintf(out, "%-18s %8s\n", row.transport.c_str(), "failed");
                continue;
            }
            std::string versus;
            if (row.kelIpc) {
                const double ratio = LatencyRatio(row, false);
                versus = ratio > 0 ? Format("%.2fx", ratio, 0) : "-";
            }
            std::fprintf(out, "%-18s %8.2f %15s %8.2f %15s %9s %9.3f %9.3f\n", row.transport.c_str(),
                         p50.median, Format("%.2f-%.2f", p50.min, p50.max).c_str(), p99.median,
                         Format("%.2f-%.2f", p99.min, p99.max).c_str(), versus.c_str(),
                         Of(row, [](const BenchLatencySample& x) { return x.cpuPinger; }).median,
                         Of(row, [](const BenchLatencySample& x) { return x.cpuEcho; }).median);
        }
    }

    std::vector<double> reader;
    std::vector<double> writer;
    for (const BenchIdleSample& sample : m_idle) {
        reader.push_back(sample.cpuReader * 1e6);
        writer.push_back(sample.cpuWriter * 1e6);
    }
    const Summary idleReader = Summarize(reader);
    const Summary idleWriter = Summarize(writer);
    std::fprintf(
        out, "\nidle connection (Process, default blocks; reader blocked in Read, writer idle, %.1f s):\n",
        s.idleSeconds);
    if (idleReader.valid)
        std::fprintf(
            out,
            "  cpu reader %.0f us (range %.0f-%.0f), writer %.0f us (range %.0f-%.0f); the writer only "
            "sleeps,\n  so its figure is what this measurement shows for no work at all\n",
            idleReader.median, idleReader.min, idleReader.max, idleWriter.median, idleWriter.min,
            idleWriter.max);
    else
        std::fprintf(out, "  failed\n");

    for (const std::string& failure : m_failures) std::fprintf(out, "FAILED: %s\n", failure.c_str());
}

bool BenchReport::WriteJson(const std::string& path, std::string& error) const {
    using Json = nlohmann::ordered_json;
    // A figure that could not be measured is null.
    auto number = [](double value, bool valid) { return valid ? Json(value) : Json(nullptr); };
    auto count = [](int64_t value) { return value >= 0 ? Json(value) : Json(nullptr); };
    const Settings& s = m_settings;
    Json json = {
        {"tool", "kelipc bench"},
        {"settings",
         {{"repeat", s.repeat},
          {"quick", s.quick},
          {"volume_bytes", s.volume},
          {"small_write_volume_bytes", s.smallVolume},
          {"round_trips", s.roundTrips},
          {"warm_round_trips", s.warmTrips},
          {"idle_seconds", s.idleSeconds},
          {"cpu_reader", s.cpuA},
          {"cpu_writer", s.cpuB},
          {"checker_gbps", s.checkerGBps},
          {"load_busy_loops", s.load},
          {"syscalls_counted", s.syscallsCounted},
          {"syscalls_not_counted_because", s.syscallsCounted ? Json(nullptr) : Json(s.syscallsWhyNot)}}}};
    Json& stream = json["stream"] = Json::array();
    for (const BenchStreamRow& row : m_stream) {
        const Summary mbps = Of(row, [](const BenchStreamSample& x) { return x.mbps; });
        const double ratio = row.kelIpc ? StreamRatio(row) : 0;
        Json runs = Json::array();
        for (const BenchStreamSample& x : row.samples)
            runs.push_back({{"mbps", x.mbps},
                            {"seconds", x.seconds},
                            {"cpu_writer_s", x.cpuWriter},
                            {"cpu_reader_s", x.cpuReader},
                            {"cpu_children_s", x.cpuChildren},
                            {"syscalls_writer", count(x.syscallsWriter)},
                            {"syscalls_reader", count(x.syscallsReader)},
                            {"vcsw_writer", x.vcswWriter},
                            {"vcsw_reader", x.vcswReader}});
        const char* per = row.writeSize == 64 ? "per_write" : "per_mib";
        const Summary syscalls = PerUnit(row, true);
        const Summary vcsw = PerUnit(row, false);
        stream.push_back({{"transport", row.transport},
                          {"kelipc", row.kelIpc},
                          {"epoll", row.polled},
                          {"write_bytes", row.writeSize},
                          {"bytes", row.bytes},
                          {"kernel_buffer", row.kernelBuffer},
                          {"median_mbps", number(mbps.median, mbps.valid)},
                          {"min_mbps", number(mbps.min, mbps.valid)},
                          {"max_mbps", number(mbps.max, mbps.valid)},
                          {"ratio_to_best_kernel", number(ratio, ratio > 0)},
                          {std::string("median_syscalls_") + per, number(syscalls.median, syscalls.valid)},
                          {std::string("median_vcsw_") + per, number(vcsw.median, vcsw.valid)},
                          {"failures", row.failures},
                          {"runs", runs}});
    }
    Json& latency = json["latency"] = Json::array();
    for (const BenchLatencyRow& row : m_latency) {
        const Summary p50 = Of(row, [](const BenchLatencySample& x) { return x.p50us; });
        const Summary p99 = Of(row, [](const BenchLatencySample& x) { return x.p99us; });
        const double ratio50 = row.kelIpc ? LatencyRatio(row, false) : 0;
        const double ratio99 = row.kelIpc ? LatencyRatio(row, true) : 0;
        Json runs = Json::array();
        for (const BenchLatencySample& x : row.samples)
            runs.push_back({{"p50_us", x.p50us},
                            {"p99_us", x.p99us},
                            {"cpu_pinger_s", x.cpuPinger},
                            {"cpu_echo_s", x.cpuEcho},
                            {"cpu_children_s", x.cpuChildren}});
        latency.push_back({{"transport", row.transport},
                           {"kelipc", row.kelIpc},
                           {"epoll", row.polled},
                           {"same_cpu", row.sameCpu},
                           {"message_bytes", 64},
                           {"median_p50_us", number(p50.median, p50.valid)},
                           {"min_p50_us", number(p50.min, p50.valid)},
                           {"max_p50_us", number(p50.max, p50.valid)},
                           {"median_p99_us", number(p99.median, p99.valid)},
                           {"min_p99_us", number(p99.min, p99.valid)},
                           {"max_p99_us", number(p99.max, p99.valid)},
                           {"ratio_p50_to_best_kernel", number(ratio50, ratio50 > 0)},
                           {"ratio_p99_to_best_kernel", number(ratio99, ratio99 > 0)},
                           {"failures", row.failures},
                           {"runs", runs}});
    }
    Json idle = Json::array();
    for (const BenchIdleSample& x : m_idle)
        idle.push_back(
            {{"seconds", x.seconds}, {"cpu_reader_s", x.cpuReader}, {"cpu_writer_s", x.cpuWriter}});
    json["idle"] = {{"transport", "kelipc-process"}, {"seconds", s.idleSeconds}, {"runs", idle}};
    json["failures"] = m_failures;
    json["verdict"] = Failed() ? "FAILED" : "OK";
    FILE* const out = std::fopen(path.c_str(), "w");
    if (out == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    const std::string text = json.dump(2) + "\n";
    const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    if (std::fclose(out) != 0 || !written) {
        error = path + ": write failed";
        return false;
    }
    return true;
}
