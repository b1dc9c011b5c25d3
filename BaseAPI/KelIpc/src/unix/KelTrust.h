#ifndef KEL_TRUST_H
#define KEL_TRUST_H

#include <sys/types.h>

// Whose objects a channel end accepts under its name: its own effective user's, root's, and those of at
// most one more user (the TrustedUid option). Names under /dev/shm and keys derived from them are public,
// so an object made by anyone else is a squatter's, never the peer's.
class KelTrust {
public:
    static constexpr int kNone = -1;

    explicit KelTrust(int trustedUid = kNone) : m_trustedUid(trustedUid) {}

    bool Trusts(uid_t uid) const;
    // A semaphore set's owner can be handed over (IPC_SET) while its creator keeps control: both count.
    bool TrustsSet(uid_t owner, uid_t creator) const { return Trusts(owner) && Trusts(creator); }

private:
    int m_trustedUid;
};

#endif  // KEL_TRUST_H
