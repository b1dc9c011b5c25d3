#include <benchmark/benchmark.h>

#include <KelCycleBuffer.h>

#include <cstdlib>
#include <vector>

namespace {

// The socket's default block, so the figures match a default channel's ring.
constexpr int kBlock = 262144;

// A ring attached as server on a page-aligned block; no semaphore, since only the non-blocking
// transfers and the size queries are measured.
class Ring {
public:
    Ring() : m_block(static_cast<char*>(std::aligned_alloc(4096, kBlock))) {
        m_ok = m_block != nullptr && m_ring.Attach(m_block, kBlock, Server, NonBlock) == IPC_OK;
    }
    ~Ring() { std::free(m_block); }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    bool Ok() const { return m_ok; }
    KelCycleBuffer& Get() { return m_ring; }

private:
    char* m_block;
    KelCycleBuffer m_ring;
    bool m_ok = false;
};

// One write and one read of the same count per iteration: the positions walk round the ring, so the
// counts that do not divide the data area also take the wrapping path now and then.
void BM_NonblockWriteRead(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    Ring ring;
    if (!ring.Ok()) {
        state.SkipWithError("attach failed");
        return;
    }
    std::vector<char> source(count, 'k');
    std::vector<char> sink(count);
    for (auto _ : state) {
        if (ring.Get().NonblockWrite(source.data(), count) != count ||
            ring.Get().NonblockRead(sink.data(), count) != count) {
            state.SkipWithError("transfer did not pass the whole count");
            break;
        }
        benchmark::DoNotOptimize(sink.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * count);
}
BENCHMARK(BM_NonblockWriteRead)->Arg(64)->Arg(4096)->Arg(65536);

// A ring holding some bytes, so that the queries take their normal path.
template <int (KelCycleBuffer::*Query)()>
void BM_SizeQuery(benchmark::State& state) {
    Ring ring;
    std::vector<char> bytes(1000, 'k');
    if (!ring.Ok() || ring.Get().NonblockWrite(bytes.data(), 1000) != 1000) {
        state.SkipWithError("setup failed");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize((ring.Get().*Query)());
}
BENCHMARK_TEMPLATE(BM_SizeQuery, &KelCycleBuffer::DataSize)->Name("BM_DataSize");
BENCHMARK_TEMPLATE(BM_SizeQuery, &KelCycleBuffer::SpaceSize)->Name("BM_SpaceSize");

}  // namespace
