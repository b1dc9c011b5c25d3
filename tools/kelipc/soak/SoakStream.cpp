#include "SoakStream.h"

#include <KelIpc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "SoakParser.h"
#include "SoakRecord.h"
#include "common/ResultText.h"
#include "common/StopSignal.h"

namespace {

enum Form { kModeForm = 0, kBlockForm = 1, kAllOrNothingForm = 2, kForms = 3 };
const char* const kWriteNames[kForms] = {"Write", "BlockWrite", "NonBlockWrite"};
const char* const kReadNames[kForms] = {"Read", "BlockRead", "NonBlockRead"};

constexpr uint64_t kSizeSalt = 0x536F616B53697A65ULL;

// One transfer in eight is tiny, so that single bytes and sizes that split a record header come up often.
int RandomTransfer(std::mt19937_64& random, int largest) {
    const uint64_t value = random();
    if ((value & 7) == 0) return 1 + static_cast<int>((value >> 3) % 16);
    return 1 + static_cast<int>((value >> 3) % static_cast<uint64_t>(largest));
}

uint32_t RandomPayload(std::mt19937_64& random, uint32_t largest) {
    const uint64_t value = random();
    if ((value & 7) == 0) return static_cast<uint32_t>((value >> 3) % 33);
    return static_cast<uint32_t>((value >> 3) % (uint64_t{largest} + 1));
}

// An all-or-nothing transfer that passed nothing waits for the peer: at first by giving up the CPU, then,
// when the peer is slow, by short sleeps, so that two such threads do not starve the others on a small
// machine.
void Pause(int& attempts) {
    if (++attempts <= 16)
        std::this_thread::yield();
    else
        std::this_thread::sleep_for(std::chrono::microseconds(50));
}

std::string CallText(const char* name, int length, int rc) {
    return std::string(name) + "(" + std::to_string(length) + ") returned " + ResultText(rc);
}

}  // namespace

SoakStream::SoakStream(KelIpcSocket& socket, const Settings& settings)
    : m_socket(socket),
      m_settings(settings),
      m_maxTransfer(4 * settings.chunk),
      m_maxPayload(static_cast<uint32_t>(3 * settings.chunk)) {}

void SoakStream::Start() {
    m_active = 2;
    m_writer = std::thread(&SoakStream::WriterLoop, this);
    m_reader = std::thread(&SoakStream::ReaderLoop, this);
}

void SoakStream::Join() {
    if (m_writer.joinable()) m_writer.join();
    if (m_reader.joinable()) m_reader.join();
}

// IPC_OK once all of data has passed, or the failing result.
int SoakStream::SendPiece(int form, const char* data, int length) {
    for (int attempts = 0;;) {
        int rc;
        if (form == kModeForm)
            rc = m_socket.Write(data, length);
        else if (form == kBlockForm)
            rc = m_socket.BlockWrite(data, length);
        else
            rc = m_socket.NonBlockWrite(data, length);
        if (rc == length) return IPC_OK;
        const bool allOrNothing = form == kAllOrNothingForm || (form == kModeForm && m_settings.nonBlock);
        if (rc != 0 || !allOrNothing) {
            m_writeError = CallText(kWriteNames[form], length, rc);
            return rc < 0 ? rc : IPC_ERR_FAILED;
        }
        Pause(attempts);
    }
}

// The byte count read (at most length), or the failing result.
int SoakStream::ReceivePiece(int form, char* buffer, int length) {
    int wanted = length;
    for (int attempts = 0;;) {
        int rc;
        if (form == kModeForm)
            rc = m_socket.Read(buffer, wanted);
        else if (form == kBlockForm)
            rc = m_socket.BlockRead(buffer, wanted);
        else
            rc = m_socket.NonBlockRead(buffer, wanted);
        if (rc == wanted) return rc;
        const bool allOrNothing = form == kAllOrNothingForm || (form == kModeForm && m_settings.nonBlock);
        if (rc != 0 || !allOrNothing) {
            m_readError = CallText(kReadNames[form], wanted, rc);
            return rc < 0 ? rc : IPC_ERR_FAILED;
        }
        // Fewer bytes are there than asked for: after a few tries take what is there, so that reads of
        // every size, down to what a slow writer has just passed, come up as well.
        if (attempts >= 2) {
            const int stored = m_socket.DataSize();
            if (stored < 0) {
                m_readError = CallText("DataSize", 0, stored);
                return stored;
            }
            if (stored > 0 && stored < wanted) {
                wanted = stored;
                continue;
            }
        }
        Pause(attempts);
    }
}

void SoakStream::WriterLoop() {
    StopSignal::BlockInThisThread();
    std::mt19937_64 random(m_settings.sendSeed ^ kSizeSalt);
    const size_t largestRecord = SoakRecord::kOverhead + m_maxPayload;
    std::vector<char> stage(m_maxTransfer + 2 * largestRecord);
    size_t head = 0;
    size_t tail = 0;
    uint64_t sequence = 0;
    uint64_t emitted = 0;
    bool ended = false;
    int rc = IPC_OK;
    for (int form = 0; rc == IPC_OK; form = (form + 1) % kForms) {
        const size_t length = static_cast<size_t>(RandomTransfer(random, m_maxTransfer));
        while (tail - head < length && !ended) {
            if (stage.size() - tail < largestRecord) {
                std::memmove(stage.data(), stage.data() + head, tail - head);
                tail -= head;
                head = 0;
            }
            const uint64_t left = m_settings.size > emitted ? m_settings.size - emitted : 0;
            if (left == 0 || std::chrono::steady_clock::now() >= m_settings.deadline) {
                tail += SoakRecord::EncodeEnd(sequence, stage.data() + tail);
                ended = true;
                break;
            }
            uint32_t payload = RandomPayload(random, m_maxPayload);
            // The last two records are sized so that the stream ends exactly at the requested size.
            if (left <= largestRecord)
                payload =
                    static_cast<uint32_t>(left > SoakRecord::kOverhead ? left - SoakRecord::kOverhead : 0);
            else
                payload =
                    static_cast<uint32_t>(std::min<uint64_t>(payload, left - 2 * SoakRecord::kOverhead));
            tail += SoakRecord::Encode(m_settings.sendSeed, sequence++, payload, stage.data() + tail);
            emitted += SoakRecord::kOverhead + payload;
        }
        const int piece = static_cast<int>(std::min(length, tail - head));
        if (piece == 0) break;
        rc = SendPiece(form, stage.data() + head, piece);
        if (rc != IPC_OK) break;
        head += piece;
        m_sent += piece;
    }
    // Padding after the end record: the peer's last read may ask for up to a full transfer past it, and a
    // blocking one returns only once that many bytes have come. Written blocking, since only blocking
    // writes wake a reader that sleeps in a blocking read.
    if (rc == IPC_OK) {
        const std::vector<char> padding(m_maxTransfer, 0);
        rc = SendPiece(kBlockForm, padding.data(), m_maxTransfer);
    }
    if (rc != IPC_OK) m_failed = true;
    --m_active;
}

void SoakStream::ReaderLoop() {
    StopSignal::BlockInThisThread();
    const auto begin = std::chrono::steady_clock::now();
    std::mt19937_64 random(m_settings.readSeed);
    SoakParser parser(m_settings.recvSeed, m_maxPayload);
    std::vector<char> buffer(m_maxTransfer);
    int rc = IPC_OK;
    for (int form = 0; !parser.Ended() && !parser.Faulted(); form = (form + 1) % kForms) {
        rc = ReceivePiece(form, buffer.data(), RandomTransfer(random, m_maxTransfer));
        if (rc < 0) break;
        m_received += static_cast<uint64_t>(rc);
        parser.Feed(buffer.data(), static_cast<size_t>(rc));
    }
    SoakResult& result = m_result;
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    result.bytes = parser.Bytes();
    result.records = parser.Records();
    result.code = IPC_OK;
    result.verdict = kSoakOk;
    if (parser.Faulted()) {
        result.verdict = kSoakFault;
        std::snprintf(result.detail, sizeof result.detail, "%s", parser.Fault().c_str());
    } else if (rc < 0) {
        result.verdict = kSoakFailed;
        result.code = rc;
        std::snprintf(result.detail, sizeof result.detail, "%s after %llu bytes", m_readError.c_str(),
                      static_cast<unsigned long long>(m_received.load()));
    }
    if (result.verdict != kSoakOk) m_failed = true;
    --m_active;
}
