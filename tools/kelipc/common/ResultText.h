#ifndef KELIPC_TOOL_RESULT_TEXT_H
#define KELIPC_TOOL_RESULT_TEXT_H

#include <KelIpcDefine.h>

#include <string>

// A result code as the tool prints it: the number, then its meaning.
inline std::string ResultText(int rc) {
    return std::to_string(rc) + " (" + KelIpcStrError(rc) + ")";
}

#endif  // KELIPC_TOOL_RESULT_TEXT_H
