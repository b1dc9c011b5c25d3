// Seeded random non-blocking traffic on a ring over the smallest block, held step by step against a plain
// queue: every result, byte and size must match. Most counts are small so that the positions cross the end
// of the data area again and again; some exceed it, some are 0 or negative.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "KelCycleBuffer.h"
#include "KelSemaphore.h"

namespace {

constexpr int kBlock = 32768;
constexpr int kDataLen = kBlock - static_cast<int>(sizeof(KelCBHead));
constexpr int kSteps = 6000;

class KelCycleBufferModel : public ::testing::TestWithParam<uint64_t> {
protected:
    void SetUp() override {
        ASSERT_EQ(IPC_OK, m_server.AttachLocal(m_block.data(), kBlock, Server, NonBlock, &m_sem));
        ASSERT_EQ(IPC_OK, m_client.AttachLocal(m_block.data(), kBlock, Client, NonBlock, &m_sem));
    }

    int Stored() const { return static_cast<int>(m_model.size()); }
    int Space() const { return kDataLen - 1 - Stored(); }

    int RandomCount() {
        switch (m_random() % 16) {
            case 0:
                return 0;
            case 1:
                return m_random() % 2 ? -1 : INT_MIN;
            case 2:
                return 1 + static_cast<int>(m_random() % (2 * kDataLen));
            case 3:
                return std::max(1, Space() + static_cast<int>(m_random() % 3) - 1);
            case 4:
                return std::max(1, Stored() + static_cast<int>(m_random() % 3) - 1);
            default:
                return 1 + static_cast<int>(m_random() % 1500);
        }
    }

    void Write(int count) {
        // Exactly count bytes, so that a copy past them is an overflow (and under ASan a report).
        std::vector<char> data(std::max(count, 1));
        for (char& c : data) c = static_cast<char>(m_next++);
        const int expected = count < 1              ? IPC_ERR_FAILED
                             : count > kDataLen - 1 ? IPC_ERR_PARAM
                             : count > Space()      ? 0
                                                    : count;
        ASSERT_EQ(expected, m_server.NonblockWrite(data.data(), count)) << "write of " << count;
        if (expected > 0) m_model.insert(m_model.end(), data.begin(), data.end());
    }

    void Read(int count) {
        std::vector<char> buffer(std::max(count, 1), '\x5a');
        const int expected = count > kDataLen - 1 ? IPC_ERR_PARAM
                             : count > Stored()   ? 0
                             : count < 1          ? IPC_ERR_FAILED
                                                  : count;
        ASSERT_EQ(expected, m_client.NonblockRead(buffer.data(), count)) << "read of " << count;
        if (expected <= 0) {
            ASSERT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](char c) { return c == '\x5a'; }));
            return;
        }
        ASSERT_TRUE(std::equal(buffer.begin(), buffer.end(), m_model.begin())) << "read of " << count;
        m_model.erase(m_model.begin(), m_model.begin() + count);
    }

    void CheckSizes() {
        for (KelCycleBuffer* ring : {&m_server, &m_client}) {
            ASSERT_TRUE(ring->Running());
            ASSERT_EQ(Stored(), ring->DataSize());
            ASSERT_EQ(Space(), ring->SpaceSize());
        }
    }

    std::vector<char> m_block = std::vector<char>(kBlock);
    KelSemaphore m_sem;
    KelCycleBuffer m_server;  // writes
    KelCycleBuffer m_client;  // reads
    std::deque<char> m_model;
    std::mt19937_64 m_random{GetParam()};
    uint8_t m_next = 0;
};

TEST_P(KelCycleBufferModel, RandomTrafficMatchesQueue) {
    int wraps = 0;
    for (int step = 0; step < kSteps; ++step) {
        const int before = m_server.KelCBHeadPtr()->writePos;
        const uint64_t op = m_random() % 200;
        if (op < 90) {
            ASSERT_NO_FATAL_FAILURE(Write(RandomCount())) << "step " << step;
        } else if (op < 180) {
            ASSERT_NO_FATAL_FAILURE(Read(RandomCount())) << "step " << step;
        } else if (op < 198) {
            ASSERT_NO_FATAL_FAILURE(CheckSizes()) << "step " << step;
        } else {
            KelCycleBuffer& end = step % 2 ? m_server : m_client;
            ASSERT_EQ(IPC_OK, op == 198 ? end.Reset() : end.Start());
            m_model.clear();
        }
        if (m_server.KelCBHeadPtr()->writePos < before && !m_model.empty()) ++wraps;
    }
    ASSERT_NO_FATAL_FAILURE(CheckSizes());
    if (Stored() > 0) {
        ASSERT_NO_FATAL_FAILURE(Read(Stored()));
    }
    // The traffic is meant to cross the end of the data area many times, not just to fill and drain.
    EXPECT_GT(wraps, 20);
}

INSTANTIATE_TEST_SUITE_P(Seeds, KelCycleBufferModel, ::testing::Values(1u, 7u, 1234567u, 0x5eed5eedu));

}  // namespace
