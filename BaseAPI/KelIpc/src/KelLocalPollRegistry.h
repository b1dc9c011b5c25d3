#ifndef KEL_LOCAL_POLL_REGISTRY_H
#define KEL_LOCAL_POLL_REGISTRY_H

#include <memory>
#include <string>

#include "KelIpcDefine.h"

// The eventfds of the Local channels' ends that poll (KelIpcSocket::PollFd), by channel name and side:
// an end finds its peer's here to ring it. Each is shared, so that it stays open while a ringer writes.
class KelLocalPollRegistry {
public:
    using Event = std::shared_ptr<const int>;

    // Registers event as side's descriptor under name, in place of any earlier one.
    static void Publish(const std::string& name, KelSide side, const Event& event);
    // Removes side's descriptor under name while it is still event.
    static void Withdraw(const std::string& name, KelSide side, const Event& event);
    // Side's descriptor under name, or null.
    static Event Find(const std::string& name, KelSide side);
};

#endif  // KEL_LOCAL_POLL_REGISTRY_H
