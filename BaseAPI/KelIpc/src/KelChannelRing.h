#ifndef KEL_CHANNEL_RING_H
#define KEL_CHANNEL_RING_H

#include "KelCycleBuffer.h"
#include "KelCycleBuffer/KelRingWatch.h"

// The ring end of a channel with its open flag. Both channel kinds put one in front of their block: the
// argument tests and the forwarding of transfers and ring operations are the same whatever holds the
// block, so they live here once. The channel's Open attaches Buffer() and then marks it open.
class KelChannelRing {
public:
    KelChannelRing() = default;
    KelChannelRing(const KelChannelRing&) = delete;
    KelChannelRing& operator=(const KelChannelRing&) = delete;

    bool Opened() const { return m_opened; }
    void MarkOpened() { m_opened = true; }
    KelCycleBuffer& Buffer() { return m_buffer; }

    // Marks the channel closed and, when stop is set, stops its ring if it still runs, so that transfers
    // blocked on either end return; a failed stop is logged under logPath. False when it was not open.
    bool Close(const char* logPath, bool stop);

    // Write and Read leave the argument tests to the ring; the Block and NonBlock forms test here.
    int Write(const char* data, int length) {
        return m_opened ? m_buffer.Write(data, length) : IPC_ERR_NOT_OPENED;
    }
    int Read(char* buffer, int length) {
        return m_opened ? m_buffer.Read(buffer, length) : IPC_ERR_NOT_OPENED;
    }
    int BlockWrite(const char* data, int length) {
        const int rc = Test(data, length);
        return rc != IPC_OK ? rc : m_buffer.BlockWrite(data, length);
    }
    int BlockRead(char* buffer, int length) {
        const int rc = Test(buffer, length);
        return rc != IPC_OK ? rc : m_buffer.BlockRead(buffer, length);
    }
    int NonBlockWrite(const char* data, int length) {
        const int rc = Test(data, length);
        return rc != IPC_OK ? rc : m_buffer.NonblockWrite(data, length);
    }
    int ReadSome(char* buffer, int length) {
        const int rc = Test(buffer, length);
        return rc != IPC_OK ? rc : KelCycleBufferReadSome(m_buffer, buffer, length);
    }
    int NonBlockRead(char* buffer, int length) {
        const int rc = Test(buffer, length);
        return rc != IPC_OK ? rc : m_buffer.NonblockRead(buffer, length);
    }
    int DataSize() { return m_opened ? m_buffer.DataSize() : IPC_ERR_NOT_OPENED; }
    int SpaceSize() { return m_opened ? m_buffer.SpaceSize() : IPC_ERR_NOT_OPENED; }
    int Reset() { return m_opened ? m_buffer.Reset() : IPC_ERR_NOT_OPENED; }
    int Start() { return m_opened ? m_buffer.Start() : IPC_ERR_NOT_OPENED; }
    int Stop() { return m_opened ? m_buffer.Stop() : IPC_ERR_NOT_OPENED; }
    bool Running() { return m_opened && m_buffer.Running(); }

private:
    int Test(const void* data, int length) const {
        if (!m_opened) return IPC_ERR_NOT_OPENED;
        return data == nullptr || length < 1 ? IPC_ERR_NULL : IPC_OK;
    }

    bool m_opened = false;
    KelCycleBuffer m_buffer;
};

#endif  // KEL_CHANNEL_RING_H
