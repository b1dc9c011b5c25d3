#include "KelLocalPollRegistry.h"

#include <map>
#include <mutex>

namespace {

struct Ends {
    std::weak_ptr<const int> side[2];
};

std::mutex g_mutex;
std::map<std::string, Ends> g_ends;

}  // namespace

void KelLocalPollRegistry::Publish(const std::string& name, KelSide side, const Event& event) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_ends[name].side[side == Server ? 0 : 1] = event;
}

void KelLocalPollRegistry::Withdraw(const std::string& name, KelSide side, const Event& event) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto found = g_ends.find(name);
    if (found == g_ends.end()) return;
    std::weak_ptr<const int>& mine = found->second.side[side == Server ? 0 : 1];
    if (mine.lock() == event) mine.reset();
    if (found->second.side[0].expired() && found->second.side[1].expired()) g_ends.erase(found);
}

KelLocalPollRegistry::Event KelLocalPollRegistry::Find(const std::string& name, KelSide side) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto found = g_ends.find(name);
    return found == g_ends.end() ? nullptr : found->second.side[side == Server ? 0 : 1].lock();
}
