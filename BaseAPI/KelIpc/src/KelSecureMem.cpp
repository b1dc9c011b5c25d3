#include "KelSecureMem.h"

#include <cstdint>
#include <cstring>

namespace kel {

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (dest == nullptr || destMax == 0 || destMax > kSecureMemMax) return 1;
    const uintptr_t d = reinterpret_cast<uintptr_t>(dest);
    const uintptr_t s = reinterpret_cast<uintptr_t>(src);
    const bool overlap = count <= destMax && ((d <= s && s < d + count) || (s <= d && d < s + count));
    if (src == nullptr || count == 0 || count > destMax || overlap) {
        std::memset(dest, 0, destMax);
        return 1;
    }
    std::memcpy(dest, src, count);
    return 0;
}

int memset_s(void* dest, size_t destMax, int value, size_t count) {
    if (dest == nullptr || destMax == 0 || destMax > kSecureMemMax) return 1;
    if (count == 0 || count > destMax) return 1;
    std::memset(dest, value, count);
    return 0;
}

}  // namespace kel
