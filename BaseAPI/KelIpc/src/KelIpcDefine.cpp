#include "KelIpcDefine.h"

#include "KelIpcVersion.h"

namespace {

struct CodeMeaning {
    int code;
    const char* meaning;
};

// One row per code of KelIpcDefine.h; a test reads the header's list and fails on a code missing here.
constexpr CodeMeaning kMeanings[] = {
    {IPC_OK, "success"},
    {IPC_ERR_FAILED, "a system call or a lower step failed"},
    {IPC_ERR_NULL, "a required pointer is null, or a count or size is below 1"},
    {IPC_ERR_PARAM, "an argument is out of range"},
    {IPC_ERR_OPENED, "already open, or the name is already in use"},
    {IPC_ERR_NOT_OPENED, "not open or not running, or no server of that name"},
    {IPC_ERR_PEER_GONE, "the other end's process has died and nothing is left to read"},
    {IPC_ERR_TIMEOUT, "the wait ran out before anything moved"},
    {IPC_ERR_PEER_CLOSED, "the other end has shut its writing down and everything it wrote is read"},
    {IPC_ERR_ACCESS, "an object under the name belongs to another user or another name"},
};

}  // namespace

const char* KelIpcStrError(int code) {
    for (const CodeMeaning& entry : kMeanings) {
        if (entry.code == code) return entry.meaning;
    }
    return code > 0 ? "success, a byte count" : "unknown result code";
}

const char* KelIpcVersion() {
    return KELIPC_VERSION_STRING;
}
