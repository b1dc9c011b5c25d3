#ifndef KEL_SECURE_MEM_H
#define KEL_SECURE_MEM_H

#include <cstddef>

// Bounds-checked copy and fill. Internal (hidden symbols, own namespace) so they never clash with a
// host's own functions of the same names.
namespace kel {

// Largest capacity or count accepted; a negative int converted to size_t lands above it.
constexpr size_t kSecureMemMax = 0x7fffffffu;

// 0 on success. Non-zero for a null pointer, a zero count or capacity, a count above the capacity or
// kSecureMemMax, or overlapping ranges. A rejected copy clears the destination when the destination and
// its capacity are valid.
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
// 0 on success; non-zero for a null destination, a zero count or a count above the capacity.
int memset_s(void* dest, size_t destMax, int value, size_t count);

}  // namespace kel

#endif  // KEL_SECURE_MEM_H
