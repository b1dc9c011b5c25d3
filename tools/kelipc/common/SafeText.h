#ifndef KELIPC_TOOL_SAFE_TEXT_H
#define KELIPC_TOOL_SAFE_TEXT_H

#include <nlohmann/json.hpp>
#include <string>

// Names and process names come from other users: any user can plant a segment under any name and call
// a process anything. These turn such bytes into text that is harmless on a terminal and in JSON.
namespace SafeText {

// Strict UTF-8 (no overlong forms, surrogates or code points above U+10FFFF), as JSON requires.
bool ValidUtf8(const std::string& text);
// The word in bash quoting that reads back as exactly these bytes: plain single quotes, or $'...' with
// \xHH escapes where the text holds control characters (C0, DEL, C1, bidirectional overrides) or bytes
// that are not UTF-8. Either form is free of bytes a terminal acts on.
std::string ShellQuote(const std::string& text);
// The text as it is when it holds nothing a terminal acts on, else its ShellQuote form.
std::string Printable(const std::string& text);
// Two lowercase hex digits per byte.
std::string Hex(const std::string& bytes);
// One line of JSON that never fails: bytes that are not UTF-8 become U+FFFD.
std::string JsonLine(const nlohmann::ordered_json& json);
// Adds "<key>": text, and "<key>Hex": its bytes in hex when it is not UTF-8, so that no name is lost.
void PutName(nlohmann::ordered_json& json, const std::string& key, const std::string& text);

}  // namespace SafeText

#endif  // KELIPC_TOOL_SAFE_TEXT_H
