#include "SafeText.h"

#include <cstdint>

namespace SafeText {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

// The length of the UTF-8 sequence at text[at] with its code point, or 0 when it is not one.
size_t Sequence(const std::string& text, size_t at, uint32_t& code) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        code = lead;
        return 1;
    }
    size_t length = 0;
    unsigned char low = 0x80;  // the range of the second byte, narrowed against overlong and surrogate forms
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        code = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        code = lead & 0x0F;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        code = lead & 0x07;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = byte(i);
        if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xBF)) return 0;
        code = (code << 6) | (next & 0x3F);
    }
    return length;
}

// Code points that move the cursor, start an escape sequence or reorder what follows on a terminal.
bool Control(uint32_t code) {
    return code < 0x20 || (code >= 0x7F && code <= 0x9F) || (code >= 0x202A && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069);
}

void AppendEscaped(std::string& out, const std::string& text, size_t at, size_t length) {
    for (size_t i = at; i < at + length; ++i) {
        out += "\\x";
        out += Hex(text.substr(i, 1));
    }
}

bool NeedsEscapes(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        uint32_t code = 0;
        const size_t length = Sequence(text, at, code);
        if (length == 0 || Control(code)) return true;
        at += length;
    }
    return false;
}

}  // namespace

bool ValidUtf8(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        uint32_t code = 0;
        const size_t length = Sequence(text, at, code);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

std::string ShellQuote(const std::string& text) {
    if (!NeedsEscapes(text)) {
        std::string quoted = "'";
        for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return quoted + "'";
    }
    std::string quoted = "$'";
    for (size_t at = 0; at < text.size();) {
        uint32_t code = 0;
        const size_t sequence = Sequence(text, at, code);
        const size_t length = sequence == 0 ? 1 : sequence;  // a stray byte alone
        // A quote as \x27, not \', so that interactive history expansion still sees one quoted word.
        if (sequence == 0 || Control(code) || code == '\'') {
            AppendEscaped(quoted, text, at, length);
        } else if (code == '\\') {
            quoted += "\\\\";
        } else {
            quoted.append(text, at, length);
        }
        at += length;
    }
    return quoted + "'";
}

std::string Printable(const std::string& text) {
    return NeedsEscapes(text) ? ShellQuote(text) : text;
}

std::string Hex(const std::string& bytes) {
    std::string hex;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0xF];
    }
    return hex;
}

std::string JsonLine(const nlohmann::ordered_json& json) {
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

void PutName(nlohmann::ordered_json& json, const std::string& key, const std::string& text) {
    json[key] = text;
    if (!ValidUtf8(text)) json[key + "Hex"] = Hex(text);
}

}  // namespace SafeText
