#ifndef KEL_SEMAPHORE_H
#define KEL_SEMAPHORE_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// Process-local counting semaphore, the wake-up object of an in-process ring. Releases accumulate.
class KelSemaphore {
public:
    KelSemaphore() : m_count(0) {}
    KelSemaphore(const KelSemaphore&) = delete;
    KelSemaphore& operator=(const KelSemaphore&) = delete;

    // Waits, without a time limit, until the count is above 0, then lowers it by one.
    void Acquire() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_count == 0) {
            m_cond.wait(lock);
        }
        --m_count;
    }

    // As Acquire, for at most the given time; false when it ran out with the count still 0.
    bool AcquireFor(int milliseconds) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cond.wait_for(lock, std::chrono::milliseconds(milliseconds),
                             [this] { return m_count != 0; })) {
            return false;
        }
        --m_count;
        return true;
    }

    // Raises the count by one and wakes one waiter; never blocks.
    void Release() {
        std::lock_guard<std::mutex> lock(m_mutex);
        // A writer releases after every piece whether or not anyone waits; saturating instead of wrapping
        // keeps a days-long stream of unconsumed releases from ever reading as zero.
        if (m_count != UINT32_MAX) ++m_count;
        m_cond.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    uint32_t m_count;
};

#endif  // KEL_SEMAPHORE_H
