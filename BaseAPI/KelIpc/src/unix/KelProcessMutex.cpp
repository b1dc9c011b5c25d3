#include "KelProcessMutex.h"

// Excludes nothing: neither argument is kept, lock and unlock return 0 at once.
KelProcessMutex::KelProcessMutex(const std::string& /*name*/, void* /*attributes*/)
    : m_handle(nullptr), m_name() {}

// m_handle is never set to anything but null; reading it here keeps clang's unused-field warning quiet.
KelProcessMutex::~KelProcessMutex() {
    (void)m_handle;
}

int KelProcessMutex::lock() {
    return 0;
}

int KelProcessMutex::unlock() {
    return 0;
}
