// Fuzz harness for KelCycleBuffer. The input is a program of operations on a server ring and a client ring
// attached to one block. The block and every transfer buffer are allocated at exactly their size, so
// AddressSanitizer reports any copy that strays outside them.
//
// While the header holds only what the rings themselves stored, every result is checked against a plain
// queue. Once the program has scribbled over a header word, a transfer may only refuse (a negative code),
// find no room or data (0), or move exactly its count through positions that lay inside the block; that
// last case is verified byte by byte against the data area.
//
// Built with -DKELIPC_FUZZ_STANDALONE, a seeded random driver replaces the fuzzer runtime.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "KelCycleBuffer.h"
#include "KelSemaphore.h"

namespace {

constexpr int kHead = static_cast<int>(sizeof(KelCBHead));
constexpr int kGcm = static_cast<int>(sizeof(KelCBHead::gcmData));
constexpr int kMinBlock = 32768;
constexpr int kBlockLengths[] = {32768, 32769, 33791, 40000, 65536, 262144};
constexpr int kMaxBlock = 262144;
constexpr int kMaxSteps = 512;
constexpr uint32_t kStopMarker = 'S';

// Reads the program; past its end every read yields 0, so any input is a complete program.
class Program {
public:
    Program(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Done() const { return m_pos >= m_size; }
    uint32_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    // Little-endian; the reads are sequenced so that every compiler decodes a program alike.
    uint32_t U16() {
        const uint32_t low = Byte();
        return low | Byte() << 8;
    }
    uint32_t U32() {
        const uint32_t low = U16();
        return low | U16() << 16;
    }
    uint64_t U64() {
        const uint64_t low = U32();
        return low | static_cast<uint64_t>(U32()) << 32;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// A heap buffer of exactly n bytes (n may be 0), so that one byte past it is a reported overflow.
struct Bytes {
    explicit Bytes(size_t n) : size(n), data(new char[n]) {}
    size_t size;
    std::unique_ptr<char[]> data;
};

// The four header words as one side would load them.
struct Words {
    int32_t w, r, len, run;
};

bool Initialised(const Words& h) {
    return h.len >= 1;
}
bool RunningWords(const Words& h) {
    return h.len >= 1 && h.run != 0;
}
// Positions and length that describe a ring inside a data area of area bytes.
bool Sane(const Words& h, int area) {
    return h.len >= 1 && h.len <= area && h.w >= 0 && h.w < h.len && h.r >= 0 && h.r < h.len;
}
int64_t UsedOf(const Words& h) {
    return ((static_cast<int64_t>(h.w) - h.r) % h.len + h.len) % h.len;
}
bool SameWords(const Words& a, const Words& b) {
    return a.w == b.w && a.r == b.r && a.len == b.len && a.run == b.run;
}

// Bytes for writes and for pre-filling read buffers, twice the largest block so that any window fits.
const char* Noise() {
    static const std::vector<char> bytes = [] {
        std::vector<char> b(2 * kMaxBlock);
        uint32_t x = 0x2545f491u;
        for (char& c : b) {
            x = x * 1664525u + 1013904223u;
            c = static_cast<char>(x >> 24);
        }
        return b;
    }();
    return bytes.data();
}

enum class Kind { Nonblock, Plain, Block };

class Session {
public:
    Session(Program& program, int length)
        : m_program(program), m_length(length), m_clientLength(length), m_block(new char[length]) {
        Expect(m_server.AttachLocal(m_block.get(), length, Server, NonBlock, &m_sem) == IPC_OK,
               "server attach");
        Expect(m_client.AttachLocal(m_block.get(), length, Client, NonBlock, &m_sem) == IPC_OK,
               "client attach");
    }

    void Run() {
        while (!m_program.Done() && m_step < kMaxSteps) {
            ++m_step;
            const uint32_t code = m_program.Byte();
            const bool client = (code / 20) & 1;
            switch (code % 20) {
                case 0:
                case 1:
                    Write(client, Kind::Nonblock, Count(), false);
                    break;
                case 2:
                case 3:
                    Read(client, Kind::Nonblock, Count(), false);
                    break;
                case 4:
                    Write(client, Kind::Plain, Count(), false);
                    break;
                case 5:
                    Read(client, Kind::Plain, Count(), false);
                    break;
                case 6:
                    Write(client, Kind::Block, Count(), false);
                    break;
                case 7:
                    Read(client, Kind::Block, Count(), false);
                    break;
                case 8:
                    Sizes(client);
                    break;
                case 9:
                    Control(client, 0);
                    break;
                case 10:
                    Control(client, 1);
                    break;
                case 11:
                    Control(client, 2);
                    break;
                case 12:
                    Gcm(client);
                    break;
                case 13:
                    Counters(client);
                    break;
                case 14:
                    Status(client);
                    break;
                case 15:
                case 16:
                    Scribble();
                    break;
                case 17:
                    Reattach();
                    break;
                case 18:
                    NullTransfer(client);
                    break;
                default:
                    Cycle();
                    break;
            }
        }
        // Whatever the model still holds must come out in order.
        if (m_exact && m_running && !m_queue.empty()) Read(false, Kind::Nonblock, Stored(), false);
    }

private:
    void Expect(bool ok, const char* what, int64_t expected = 0, int64_t actual = 0) const {
        if (ok) return;
        std::fprintf(stderr, "KelCycleBuffer fuzz: step %d, block %d: %s (expected %lld, got %lld)\n", m_step,
                     m_length, what, static_cast<long long>(expected), static_cast<long long>(actual));
        std::abort();
    }
    void ExpectEq(int64_t expected, int64_t actual, const char* what) const {
        Expect(expected == actual, what, expected, actual);
    }

    KelCycleBuffer& Ring(bool client) { return client ? m_client : m_server; }
    int Area(bool client) const { return (client ? m_clientLength : m_length) - kHead; }
    KelCBHead* Head() { return reinterpret_cast<KelCBHead*>(m_block.get()); }
    Words Load() {
        const KelCBHead* h = Head();
        return {h->writePos, h->readPos, h->dataLen, h->running};
    }
    bool RunWord() { return Load().run != 0; }
    // The count bytes from position pos of the ring described by h, wrapping at its end, equal bytes.
    bool InArea(const Words& h, int32_t pos, const char* bytes, int count) const {
        const char* area = m_block.get() + kHead;
        const int first = std::min(count, h.len - pos);
        return std::memcmp(area + pos, bytes, first) == 0 &&
               std::memcmp(area, bytes + first, count - first) == 0;
    }
    int Capacity() const { return m_length - kHead - 1; }
    int Stored() const { return static_cast<int>(m_queue.size()); }
    int Space() const { return Capacity() - Stored(); }

    // Counts from 0 and negative through typical sizes and the ring's edges to huge.
    int Count() {
        const int area = m_length - kHead;
        int64_t stored = Stored();
        int64_t space = Space();
        if (!m_exact) {
            const Words h = Load();
            stored = h.len >= 1 ? UsedOf(h) : 0;
            space = h.len >= 1 ? h.len - 1 - stored : 0;
        }
        switch (m_program.Byte() % 8) {
            case 0:
                return 0;
            case 1:
                return 1 + static_cast<int>(m_program.Byte() % 16);
            case 2:
                return 1 + static_cast<int>(m_program.U32() % (2u * area));
            case 3: {
                const int64_t base = m_program.Byte() & 1 ? space : stored;
                const int64_t c = base + static_cast<int>(m_program.Byte() % 5) - 2;
                return static_cast<int>(std::min<int64_t>(std::max<int64_t>(c, INT_MIN), INT_MAX));
            }
            case 4:
                return area - 3 + static_cast<int>(m_program.Byte() % 5);
            case 5: {
                const uint32_t pick = m_program.Byte() % 4;
                if (pick == 0) return -1;
                if (pick == 1) return INT_MIN;
                return -1 - static_cast<int>(m_program.U16());
            }
            case 6: {
                const uint32_t pick = m_program.Byte() % 4;
                if (pick == 0) return INT_MAX - static_cast<int>(m_program.Byte());
                if (pick == 1) return 1 << 30;
                if (pick == 2) return 4 * m_length;
                return static_cast<int>(m_program.U32());
            }
            default:
                return 1 + static_cast<int>(m_program.U16() % 4096);
        }
    }

    // An all-or-nothing transfer larger than the ring can ever hold is refused, not answered 0 for ever.
    static bool Oversized(Kind kind, const Words& h, int count) {
        return kind != Kind::Block && h.len >= 1 && count > h.len - 1;
    }

    // A transfer can never move more than its data area, so a larger count gets a block-sized buffer:
    // touching more than that is a stray access in itself.
    size_t BufferLength(int count) const { return count <= 0 ? 0 : std::min(count, m_length); }

    void Write(bool client, Kind kind, int count, bool null) {
        KelCycleBuffer& ring = Ring(client);
        if (kind == Kind::Block && count > 0 && RunWord()) {
            // A blocking write must not wait here: shrink it to what fits now.
            const int space = ring.SpaceSize();
            if (count > space) count = space;
            if (count <= 0) return;
        }
        Bytes data(BufferLength(count));
        std::memcpy(data.data.get(), Noise() + m_seq % kMaxBlock, data.size);
        m_seq += data.size + 1;
        const char* ptr = null ? nullptr : data.data.get();
        const Words before = Load();
        int rc = 0;
        if (kind == Kind::Nonblock) rc = ring.NonblockWrite(ptr, count);
        if (kind == Kind::Plain) rc = ring.Write(ptr, count);
        if (kind == Kind::Block) rc = ring.BlockWrite(ptr, count);
        const Words after = Load();

        if (rc > 0) {
            ExpectEq(count, rc, "write result is its count");
            Expect(!null, "write from a null pointer succeeded");
            Expect(Sane(before, Area(client)), "write through positions outside the block");
            Expect(count <= before.len - 1 - UsedOf(before), "write larger than the free space", before.len,
                   count);
            Expect(InArea(before, before.w, data.data.get(), count), "written bytes in the data area");
            ExpectEq((before.w + static_cast<int64_t>(count)) % before.len, after.w,
                     "writePos after a write");
            Expect(after.r == before.r && after.len == before.len && after.run == before.run,
                   "write changed a word it does not own");
        } else {
            Expect(rc == 0 || rc == IPC_ERR_FAILED || rc == IPC_ERR_NOT_OPENED ||
                       (kind == Kind::Plain && rc == IPC_ERR_NULL) ||
                       (Oversized(kind, before, count) && rc == IPC_ERR_PARAM),
                   "write result code", 0, rc);
            Expect(SameWords(before, after), "refused write changed the header");
        }
        const bool codeNull = kind == Kind::Plain && (null || count < 1);
        if (!codeNull) ExpectEq(before.run == 0, rc == IPC_ERR_NOT_OPENED, "write not opened iff stopped");

        if (!m_exact) return;
        int expected = count;
        if (codeNull) {
            expected = IPC_ERR_NULL;
        } else if (!m_running) {
            expected = IPC_ERR_NOT_OPENED;
        } else if (kind == Kind::Block && count <= 0) {
            expected = count == 0 ? 0 : IPC_ERR_FAILED;
        } else if (Oversized(kind, before, count)) {
            expected = IPC_ERR_PARAM;
        } else if (count > Space()) {
            expected = 0;
        } else if (count <= 0 || null) {
            expected = IPC_ERR_FAILED;
        }
        // A client attached with a shorter length than the block checks positions against its own length.
        if (client && m_clientLength != m_length && expected > 0 && rc == IPC_ERR_FAILED) return;
        ExpectEq(expected, rc, "write result against the model");
        if (rc > 0) m_queue.insert(m_queue.end(), data.data.get(), data.data.get() + count);
    }

    void Read(bool client, Kind kind, int count, bool null) {
        KelCycleBuffer& ring = Ring(client);
        if (kind == Kind::Block && count > 0 && RunWord()) {
            // A blocking read must not sleep here: shrink it to what is stored.
            const int stored = ring.DataSize();
            if (count > stored) count = stored;
            if (count <= 0) return;
        }
        Bytes buffer(BufferLength(count));
        std::memcpy(buffer.data.get(), Noise(), buffer.size);
        char* ptr = null ? nullptr : buffer.data.get();
        const Words before = Load();
        int rc = 0;
        if (kind == Kind::Nonblock) rc = ring.NonblockRead(ptr, count);
        if (kind == Kind::Plain) rc = ring.Read(ptr, count);
        if (kind == Kind::Block) rc = ring.BlockRead(ptr, count);
        const Words after = Load();

        if (rc > 0) {
            ExpectEq(count, rc, "read result is its count");
            Expect(!null, "read into a null pointer succeeded");
            Expect(Sane(before, Area(client)), "read through positions outside the block");
            Expect(count <= UsedOf(before), "read more than stored", UsedOf(before), count);
            Expect(InArea(before, before.r, buffer.data.get(), count), "read bytes against the data area");
            ExpectEq((before.r + static_cast<int64_t>(count)) % before.len, after.r, "readPos after a read");
            Expect(after.w == before.w && after.len == before.len && after.run == before.run,
                   "read changed a word it does not own");
        } else {
            Expect(rc == 0 || rc == IPC_ERR_FAILED || rc == IPC_ERR_NOT_OPENED ||
                       (kind == Kind::Plain && rc == IPC_ERR_NULL) ||
                       (Oversized(kind, before, count) && rc == IPC_ERR_PARAM),
                   "read result code", 0, rc);
            Expect(SameWords(before, after), "refused read changed the header");
            Expect(std::memcmp(buffer.data.get(), Noise(), buffer.size) == 0, "refused read wrote");
        }
        const bool codeNull = kind == Kind::Plain && (null || count < 1);
        if (!codeNull) ExpectEq(before.run == 0, rc == IPC_ERR_NOT_OPENED, "read not opened iff stopped");

        if (!m_exact) return;
        int expected = count;
        if (codeNull) {
            expected = IPC_ERR_NULL;
        } else if (!m_running) {
            expected = IPC_ERR_NOT_OPENED;
        } else if (kind == Kind::Block && count <= 0) {
            expected = count == 0 ? 0 : IPC_ERR_FAILED;
        } else if (Oversized(kind, before, count)) {
            expected = IPC_ERR_PARAM;
        } else if (count > Stored()) {
            expected = 0;
        } else if (count <= 0 || null) {
            expected = IPC_ERR_FAILED;
        }
        if (client && m_clientLength != m_length && expected > 0 && rc == IPC_ERR_FAILED) return;
        ExpectEq(expected, rc, "read result against the model");
        if (rc <= 0) return;
        Expect(std::equal(buffer.data.get(), buffer.data.get() + count, m_queue.begin()),
               "read bytes against the model");
        m_queue.erase(m_queue.begin(), m_queue.begin() + count);
    }

    void Sizes(bool client) {
        KelCycleBuffer& ring = Ring(client);
        const Words h = Load();
        const int stored = ring.DataSize();
        const int space = ring.SpaceSize();
        ExpectEq(RunningWords(h), ring.Running(), "Running against the header");
        if (!RunningWords(h)) {
            ExpectEq(0, stored, "DataSize of a ring not running");
            ExpectEq(0, space, "SpaceSize of a ring not running");
        } else {
            Expect(stored > -h.len && stored < h.len, "DataSize within the data length", h.len, stored);
            const int64_t rest = static_cast<int64_t>(h.len) - 1 - stored;
            if (rest >= INT_MIN && rest <= INT_MAX)
                ExpectEq(rest, space, "SpaceSize is dataLen - 1 - DataSize");
            if (Sane(h, h.len)) ExpectEq(UsedOf(h), stored, "DataSize of sane positions");
        }
        if (!m_exact) return;
        ExpectEq(m_running, ring.Running(), "Running against the model");
        ExpectEq(m_running ? Stored() : 0, stored, "DataSize against the model");
        ExpectEq(m_running ? Space() : 0, space, "SpaceSize against the model");
    }

    // After a control call the header may describe an empty ring of the attached length again; from then
    // on the model speaks for every result once more.
    void Resync() {
        const Words h = Load();
        if (h.len != m_length - kHead || h.w != 0 || h.r != 0) return;
        m_exact = true;
        m_running = h.run != 0;
        m_queue.clear();
    }

    void Control(bool client, int which) {
        KelCycleBuffer& ring = Ring(client);
        const Words before = Load();
        if (which == 0) {
            ExpectEq(Initialised(before) ? IPC_OK : IPC_ERR_NOT_OPENED, ring.Reset(), "Reset");
            if (!Initialised(before)) Expect(SameWords(before, Load()), "refused Reset changed the header");
        } else if (which == 1) {
            ExpectEq(IPC_OK, ring.Start(), "Start");
            ExpectEq(1, Load().run, "running after Start");
            if (m_exact) m_running = true;
        } else {
            // Stop pauses for 10 ms before it returns, a hundred times the cost of a whole program
            // otherwise: it runs at most once per program and only behind a marker byte, which the
            // fuzzer's comparison tracing finds at once while random programs seldom pay for it.
            if (m_program.Byte() != kStopMarker || m_stopped) return;
            m_stopped = true;
            ExpectEq(IPC_OK, ring.Stop(), "Stop");
            ExpectEq(0, Load().run, "running after Stop");
            if (m_exact) m_running = false;
        }
        const Words after = Load();
        if (Initialised(before)) Expect(after.w == 0 && after.r == 0, "positions after a control call");
        if (m_exact && Initialised(before)) m_queue.clear();
        Resync();
    }

    void Gcm(bool client) {
        KelCycleBuffer& ring = Ring(client);
        const bool init = Initialised(Load());
        const uint32_t pick = m_program.Byte() % 8;
        if (pick == 5) {
            ExpectEq(init ? IPC_OK : IPC_ERR_FAILED, ring.EraseGcmData(), "EraseGcmData");
            if (init) std::memset(m_gcm, 0, sizeof(m_gcm));
            return;
        }
        const bool null = pick >= 6;
        int length = kGcm;
        const uint32_t sizePick = null ? 0 : m_program.Byte() % 8;
        if (sizePick == 4) length = kGcm - 1;
        if (sizePick == 5) length = kGcm + 1;
        if (sizePick == 6) length = 0;
        if (sizePick == 7) length = static_cast<int>(m_program.U32());
        Bytes bytes(length >= 0 && length <= 4096 ? length : 0);
        for (size_t i = 0; i < bytes.size; ++i) bytes.data[i] = static_cast<char>(m_program.Byte() + i);
        const int expected = !init ? IPC_ERR_NOT_OPENED : length != kGcm || null ? IPC_ERR_FAILED : IPC_OK;
        if (pick < 4 || pick == 6) {
            ExpectEq(expected, ring.SetGcmData(null ? nullptr : bytes.data.get(), length), "SetGcmData");
            if (expected == IPC_OK) std::memcpy(m_gcm, bytes.data.get(), kGcm);
            // A rejected copy clears the stored block.
            if (init && null && length == kGcm) std::memset(m_gcm, 0, sizeof(m_gcm));
        } else {
            Bytes copy(bytes.size);
            std::memcpy(copy.data.get(), bytes.data.get(), bytes.size);
            ExpectEq(expected, ring.GetGcmData(null ? nullptr : bytes.data.get(), length), "GetGcmData");
            if (expected == IPC_OK) {
                Expect(std::memcmp(m_gcm, bytes.data.get(), kGcm) == 0, "GCM data read back");
            } else {
                Expect(std::memcmp(copy.data.get(), bytes.data.get(), bytes.size) == 0,
                       "refused GetGcmData wrote");
            }
        }
        Expect(std::memcmp(m_gcm, Head()->gcmData, kGcm) == 0, "stored GCM data");
    }

    void Counters(bool client) {
        KelCycleBuffer& ring = Ring(client);
        const bool init = Initialised(Load());
        const int expected = init ? IPC_OK : IPC_ERR_FAILED;
        const uint32_t pick = m_program.Byte() % 3;
        if (pick == 0) {
            ExpectEq(expected, ring.ResetWyTransCounter(), "ResetWyTransCounter");
            if (init) m_total = m_last = 0;
        } else if (pick == 1) {
            const uint64_t added = m_program.U64();
            const uint64_t latest = m_program.U64();
            ExpectEq(expected, ring.SetWyTransCounter(added, latest), "SetWyTransCounter");
            if (init) {
                m_total += added;
                m_last = latest;
            }
        }
        uint64_t total = 1;
        uint64_t latest = 1;
        ExpectEq(expected, ring.GetWyTransCounter(total, latest), "GetWyTransCounter");
        Expect(total == (init ? m_total : 0) && latest == (init ? m_last : 0), "counters read back");
    }

    void Status(bool client) {
        // Programs fill the status record in place; the ring only hands it out.
        const uint32_t offset = m_program.Byte() % sizeof(KelIpcStatus);
        const uint32_t n = std::min<uint32_t>(m_program.Byte() % 16, sizeof(KelIpcStatus) - offset);
        for (uint32_t i = 0; i < n; ++i)
            m_status.bytes[offset + i] = static_cast<unsigned char>(m_program.Byte());
        std::memcpy(&Head()->ipcStatus, &m_status, sizeof(m_status));
        KelIpcStatus status;
        std::memset(&status, 0x5a, sizeof(status));
        const bool init = Initialised(Load());
        ExpectEq(init ? IPC_OK : IPC_ERR_FAILED, Ring(client).GetIpcStatus(status), "GetIpcStatus");
        KelIpcStatus expected = {};
        if (init) expected = m_status;
        Expect(std::memcmp(&expected, &status, sizeof(status)) == 0, "status read back");
    }

    int32_t ScribbleValue() {
        const int area = m_length - kHead;
        switch (m_program.Byte() % 8) {
            case 0:
                return static_cast<int32_t>(m_program.U32());
            case 1:
                return 0;
            case 2:
                return -1 - static_cast<int32_t>(m_program.Byte() % 4);
            case 3:
                return m_program.Byte() & 1 ? INT32_MIN : INT32_MAX;
            case 4:
                return area - 2 + static_cast<int32_t>(m_program.Byte() % 5);
            case 5:
                return static_cast<int32_t>(m_program.U32() % static_cast<uint32_t>(area));
            case 6:
                return (1 << 30) + static_cast<int32_t>(m_program.Byte()) - 128;
            default:
                return static_cast<int32_t>(m_program.U16());
        }
    }

    // Another process owns the same header and may store anything into it.
    void Scribble() {
        KelCBHead* h = Head();
        int32_t* words[] = {&h->writePos, &h->readPos, &h->dataLen, &h->running};
        const uint32_t pick = m_program.Byte() % 5;
        if (pick < 4) {
            *words[pick] = ScribbleValue();
        } else {
            // Damage that takes several words together (a huge length with far-apart positions) would need
            // several lucky steps in a row one word at a time.
            for (int32_t* word : words) *word = ScribbleValue();
        }
        m_exact = false;
    }

    void Reattach() {
        const KelMode modes[] = {NonBlock, static_cast<KelMode>(-1), static_cast<KelMode>(7)};
        const KelMode mode = modes[m_program.Byte() % 3];
        const bool client = m_program.Byte() & 1;
        char* block = m_block.get();
        switch (m_program.Byte() % 6) {
            case 0:
                ExpectEq(IPC_OK, m_server.AttachLocal(block, m_length, Server, mode, &m_sem),
                         "server re-attach");
                std::memset(m_gcm, 0, sizeof(m_gcm));
                std::memset(&m_status, 0, sizeof(m_status));
                m_total = m_last = 0;
                ExpectEq(1, Load().run, "running after the server's attach");
                m_exact = true;
                m_running = true;
                m_queue.clear();
                break;
            case 1:
                ExpectEq(IPC_OK, m_client.AttachLocal(block, m_length, Client, mode, &m_sem),
                         "client re-attach");
                m_clientLength = m_length;
                break;
            case 2: {
                const int shorter =
                    kMinBlock + static_cast<int>(m_program.U32() % (m_length - kMinBlock + 1));
                ExpectEq(IPC_OK, m_client.AttachLocal(block, shorter, Client, mode, &m_sem),
                         "short client attach");
                m_clientLength = shorter;
                break;
            }
            default: {
                // Refused attaches leave the object on its block.
                const Words before = Load();
                const KelSide side = client ? Client : Server;
                const uint32_t pick = m_program.Byte() % 3;
                int rc = 0;
                if (pick == 0) rc = Ring(client).AttachLocal(nullptr, m_length, side, mode, &m_sem);
                if (pick == 1) {
                    const int length =
                        m_program.Byte() & 1 ? INT_MIN : kMinBlock - 1 - static_cast<int>(m_program.U16());
                    rc = Ring(client).AttachLocal(block, length, side, mode, &m_sem);
                }
                if (pick == 2) {
                    // An unknown side may also be accepted as long as it leaves the object where it was.
                    const KelSide bad = static_cast<KelSide>(
                        m_program.Byte() & 1 ? -1 : 2 + static_cast<int>(m_program.Byte()));
                    rc = Ring(client).AttachLocal(block, m_length, bad, mode, &m_sem);
                    Expect(rc == IPC_ERR_PARAM || rc == IPC_OK, "attach with an unknown side", IPC_ERR_PARAM,
                           rc);
                } else {
                    ExpectEq(IPC_ERR_PARAM, rc, "refused attach");
                }
                Expect(SameWords(before, Load()), "refused attach changed the header");
                Expect(Ring(client).KelCBHeadPtr() == Head(), "refused attach moved the object");
                break;
            }
        }
    }

    void NullTransfer(bool client) {
        const uint32_t pick = m_program.Byte() % 4;
        const Kind kind = pick & 2 ? Kind::Plain : Kind::Nonblock;
        if (pick & 1) {
            Read(client, kind, Count(), true);
        } else {
            Write(client, kind, Count(), true);
        }
    }

    // Equal writes and reads in a row: the positions sweep round the data area, crossing its end often.
    void Cycle() {
        const int size = 1 + static_cast<int>(m_program.U16() % 1024);
        const int rounds = 1 + static_cast<int>(m_program.Byte() % 64);
        for (int i = 0; i < rounds; ++i) {
            Write(false, Kind::Nonblock, size, false);
            Read(true, Kind::Nonblock, size, false);
        }
    }

    Program& m_program;
    const int m_length;
    int m_clientLength;
    std::unique_ptr<char[]> m_block;
    KelSemaphore m_sem;
    KelCycleBuffer m_server;
    KelCycleBuffer m_client;
    std::deque<char> m_queue;
    bool m_exact = true;  // the header holds only what the rings stored since the model last matched it
    bool m_running = true;
    bool m_stopped = false;
    uint64_t m_seq = 0;
    char m_gcm[kGcm] = {};
    uint64_t m_total = 0;
    uint64_t m_last = 0;
    KelIpcStatus m_status = {};
    int m_step = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Program program(data, size);
    const int length = kBlockLengths[program.Byte() % (sizeof(kBlockLengths) / sizeof(kBlockLengths[0]))];
    Session session(program, length);
    session.Run();
    return 0;
}

#ifdef KELIPC_FUZZ_STANDALONE

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

// Present when a sanitizer runtime is linked in; its reports end the process without a signal we can catch.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace {

// The program being run, saved to KELIPC_FUZZ_CRASH_FILE when it fails, so that replaying that file
// reproduces the failure.
const std::vector<uint8_t>* g_current = nullptr;
const char* g_crashFile = nullptr;

void SaveCurrent() {
    if (g_current == nullptr || g_crashFile == nullptr) return;
    const int fd = open(g_crashFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return;
    if (write(fd, g_current->data(), g_current->size()) < 0) {
        // Nothing more to do while dying.
    }
    close(fd);
    g_current = nullptr;
}

void OnAbort(int) {
    SaveCurrent();
    std::signal(SIGABRT, SIG_DFL);
    std::raise(SIGABRT);
}

}  // namespace

// Without the fuzzer runtime: replays every corpus file given, then runs seeded random programs (fresh
// ones and mutated corpus entries) for the given number of seconds. A failed check aborts the process.
// Usage: KelCycleBufferFuzz [SECONDS] [CORPUS_DIR_OR_FILE...]; KELIPC_FUZZ_SEED picks the seed and
// KELIPC_FUZZ_CRASH_FILE names the file that receives a failing program.
int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
    g_crashFile = std::getenv("KELIPC_FUZZ_CRASH_FILE");
    if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(SaveCurrent);
    std::signal(SIGABRT, OnAbort);
    std::vector<std::vector<uint8_t>> corpus;
    for (int i = 2; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                if (entry.is_regular_file()) files.push_back(entry.path());
            }
            std::sort(files.begin(), files.end());
        } else {
            files.emplace_back(argv[i]);
        }
        for (const auto& file : files) {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "cannot read %s\n", file.c_str());
                return 2;
            }
            corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
            g_current = &corpus.back();
            LLVMFuzzerTestOneInput(corpus.back().data(), corpus.back().size());
        }
    }
    const char* seedText = std::getenv("KELIPC_FUZZ_SEED");
    const uint64_t seed = seedText != nullptr ? std::strtoull(seedText, nullptr, 0) : 20240601;
    std::mt19937_64 random(seed);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    uint64_t runs = 0;
    std::vector<uint8_t> input;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!corpus.empty() && random() % 2 == 0) {
            input = corpus[random() % corpus.size()];
            const int edits = 1 + static_cast<int>(random() % 8);
            for (int e = 0; e < edits; ++e) {
                const uint64_t what = random() % 4;
                if (what == 0 || input.empty()) {
                    input.push_back(static_cast<uint8_t>(random()));
                } else if (what == 1 && input.size() > 1) {
                    input.erase(input.begin() + static_cast<std::ptrdiff_t>(random() % input.size()));
                } else {
                    input[random() % input.size()] = static_cast<uint8_t>(random());
                }
            }
        } else {
            input.resize(1 + random() % 512);
            for (auto& byte : input) byte = static_cast<uint8_t>(random());
        }
        g_current = &input;
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++runs;
    }
    std::printf("KelCycleBufferFuzz: %zu corpus files replayed, %llu random programs in %.0f s (seed %llu)\n",
                corpus.size(), static_cast<unsigned long long>(runs), seconds,
                static_cast<unsigned long long>(seed));
    return 0;
}

#endif  // KELIPC_FUZZ_STANDALONE
