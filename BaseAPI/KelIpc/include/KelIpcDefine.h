#ifndef KEL_IPC_DEFINE_H
#define KEL_IPC_DEFINE_H

#include <cstdint>

#define KELIPC_API __attribute__((visibility("default")))

// Result codes: 0 (or a non-negative byte count for transfers) on success, one of these on failure.
constexpr int IPC_OK = 0;
constexpr int IPC_ERR_FAILED = -10000;     // a system call or a lower step failed
constexpr int IPC_ERR_NULL = -9999;        // a required pointer is null, or a count/size below 1
constexpr int IPC_ERR_PARAM = -9998;       // an argument out of range
constexpr int IPC_ERR_OPENED = -9997;      // already open, or the name is already registered
constexpr int IPC_ERR_NOT_OPENED = -9996;  // not open, not attached, not running, or no peer
constexpr int IPC_ERR_PEER_GONE = -9995;   // the other end's process died and the ring has nothing left
constexpr int IPC_ERR_TIMEOUT = -9994;     // a bounded wait ran out before anything moved
constexpr int IPC_ERR_PEER_CLOSED = -9993; // the other end shut its writing down and every byte is read
constexpr int IPC_ERR_ACCESS = -9992;      // an object under the name is not what it should be

// A short meaning of a result code, for messages beside the number: "success" for IPC_OK, a byte-count
// meaning for any other non-negative value, "unknown result code" for a negative value not listed above.
// Never null; the text is static, so any thread may call it.
KELIPC_API const char* KelIpcStrError(int code);

// The version libKelIpc was built as, "MAJOR.MINOR.PATCH"; compare it with KELIPC_VERSION_STRING from
// KelIpcVersion.h to find a program running against another library than it was compiled with.
KELIPC_API const char* KelIpcVersion();

// Server creates and initialises the shared objects; Client attaches to them.
enum KelSide : int32_t { Server = 0, Client = 1 };

// Only Block makes a ring's Read and Write wait; any other value behaves as NonBlock.
enum KelMode : int32_t { NonBlock = 0, Block = 1 };

// Permissions for the objects an Open creates. Only mode (owner, group and others bits) is read;
// a null KelSecurity pointer means octal 0660.
struct KelSecurity {
    int32_t mode;
};

#endif  // KEL_IPC_DEFINE_H
