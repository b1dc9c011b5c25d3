#ifndef KELIPC_TOOL_JSON_TEXT_H
#define KELIPC_TOOL_JSON_TEXT_H

#include <string>

// text as a quoted JSON string: quotes, backslashes and control bytes escaped.
std::string JsonString(const std::string& text);

#endif  // KELIPC_TOOL_JSON_TEXT_H
