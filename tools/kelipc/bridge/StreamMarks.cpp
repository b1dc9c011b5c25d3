#include "StreamMarks.h"

#include <atomic>
#include <cstring>

int StreamMarks::Open(const std::string& name, KelSide side, int block) {
    Close();
    const std::string out = name + (side == Server ? "_XR_shm" : "_XL_shm");
    const std::string in = name + (side == Server ? "_XL_shm" : "_XR_shm");
    int rc = m_outMemory.Open(out.c_str(), block, Client, nullptr);
    if (rc == IPC_OK) rc = m_inMemory.Open(in.c_str(), block, Client, nullptr);
    // A client attach only takes the header over; the mode is irrelevant, nothing is transferred here.
    if (rc == IPC_OK) rc = m_out.Attach(m_outMemory.Data(), block, Client, NonBlock);
    if (rc == IPC_OK) rc = m_in.Attach(m_inMemory.Data(), block, Client, NonBlock);
    if (rc != IPC_OK) Close();
    m_open = rc == IPC_OK;
    return rc;
}

void StreamMarks::Close() {
    // The rings stay attached to the unmapped blocks; m_open keeps every later call away from them.
    m_open = false;
    m_outMemory.Close();
    m_inMemory.Close();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_flags = 0;
}

bool StreamMarks::Claimed() {
    uint64_t total = 0;
    uint64_t flags = 0;
    if (m_open) m_out.GetWyTransCounter(total, flags);
    return total != 0 || flags != 0;
}

void StreamMarks::Announce() {
    Publish(kPresent);
}

void StreamMarks::Publish(Flag flag) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open) return;
    m_flags |= flag;
    // What this end wrote before (bytes, pid) must reach the peer no later than the flag. The peer is
    // another process on x86-64, which keeps stores in order, so only the compiler must not move them.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    m_out.SetWyTransCounter(0, m_flags);
}

void StreamMarks::AddSent(uint64_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open) return;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    m_out.SetWyTransCounter(bytes, m_flags);
}

uint64_t StreamMarks::PeerFlags() {
    uint64_t total = 0;
    uint64_t flags = 0;
    if (m_open) m_in.GetWyTransCounter(total, flags);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return flags;
}

bool StreamMarks::PeerEnded(uint64_t& total) {
    if ((PeerFlags() & kEnded) == 0) return false;
    // One call loads the total before the flags, so it may predate the last write; a second load after
    // seeing kEnded is the final count.
    uint64_t flags = 0;
    m_in.GetWyTransCounter(total, flags);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return true;
}

void StreamMarks::SetStreamHash(uint64_t hash) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open) std::memcpy(m_out.KelCBHeadPtr()->ipcStatus.bytes + kHashOffset, &hash, sizeof hash);
}

uint64_t StreamMarks::PeerStreamHash() {
    KelIpcStatus status{};
    if (m_open) m_in.GetIpcStatus(status);
    uint64_t hash = 0;
    std::memcpy(&hash, status.bytes + kHashOffset, sizeof hash);
    return hash;
}
