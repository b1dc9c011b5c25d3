#include "KelTrust.h"

#include <unistd.h>

bool KelTrust::Trusts(uid_t uid) const {
    return uid == 0 || uid == geteuid() || (m_trustedUid >= 0 && uid == static_cast<uid_t>(m_trustedUid));
}
