// The descriptor of KelIpcSocket::PollFd driven by an event-loop library users run: asio's
// posix::stream_descriptor waits on it, one io_context thread serves both ends of several connections.

#include <asio.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelIpc.h"
#include "PollFlow.h"
#include "TestSupport.h"

TEST(KelPollFdAsio, OneIoContextServesBothEndsOfFourConnectionsThroughStreamDescriptors) {
    constexpr int kConnections = 4;
    constexpr int64_t kTotal = 1 << 20;
    for (const KelIpcType type : {Process, Local}) {
        const std::string name = kt::UniqueName("asio");
        std::vector<KelIpcSocket> ends(2 * kConnections);
        for (int i = 0; i < 2 * kConnections; ++i)
            ASSERT_EQ(IPC_OK, kt::OpenEnd(ends[i], type, i % 2 == 0 ? Server : Client,
                                          name + std::to_string(i / 2), true));
        asio::io_context context;
        std::vector<kt::PollFlow> flows;
        std::vector<std::unique_ptr<asio::posix::stream_descriptor>> ready;
        for (KelIpcSocket& end : ends) {
            flows.emplace_back(end, kTotal, static_cast<uint32_t>(flows.size() / 2));
            ready.push_back(std::make_unique<asio::posix::stream_descriptor>(context, end.PollFd()));
        }
        std::string why;
        size_t left = flows.size();
        std::function<void(size_t)> serve = [&](size_t i) {
            ready[i]->async_wait(asio::posix::stream_descriptor::wait_read,
                                 [&, i](const std::error_code& error) {
                                     if (error || !why.empty()) return;
                                     if (!flows[i].Pump(why)) context.stop();
                                     if (!flows[i].Done()) {
                                         serve(i);
                                     } else if (--left == 0) {
                                         context.stop();  // the watch's timer need not run out
                                     }
                                 });
        };
        for (size_t i = 0; i < flows.size(); ++i) serve(i);
        // A loop that moved nothing for 2 s with work left lost a wake-up.
        asio::steady_timer watch(context);
        int64_t moved = -1;
        std::function<void()> look = [&] {
            int64_t now = 0;
            bool done = true;
            for (const kt::PollFlow& flow : flows) {
                now += flow.Moved();
                done = done && flow.Done();
            }
            if (done) return;
            if (now == moved) {
                why = "nothing moved for 2 s with work left: a lost wake-up";
                context.stop();
                return;
            }
            moved = now;
            watch.expires_after(std::chrono::seconds(2));
            watch.async_wait([&](const std::error_code& error) {
                if (!error) look();
            });
        };
        look();
        context.run_for(std::chrono::seconds(60));
        EXPECT_EQ("", why) << (type == Process ? "Process" : "Local");
        for (const kt::PollFlow& flow : flows) EXPECT_TRUE(flow.Done());
        // The sockets own their descriptors: asio lets go of them before they close.
        for (auto& descriptor : ready) descriptor->release();
    }
}
