#ifndef KEL_SHARE_MEMORY_DESCRIPTOR_H
#define KEL_SHARE_MEMORY_DESCRIPTOR_H

#include "KelShareMemory.h"

// The open segment's descriptor, -1 when not open; it stays the segment's, so callers never close it.
int KelShareMemoryDescriptor(KelShareMemory& memory);

#endif  // KEL_SHARE_MEMORY_DESCRIPTOR_H
