// Result-code meanings and the library's version. The codes are read from the public header's text, so a
// code added there without a meaning fails here.
#include <cctype>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "KelIpcDefine.h"
#include "KelIpcVersion.h"

namespace {

std::string HeaderText() {
    const std::string self = __FILE__;
    std::ifstream in(self.substr(0, self.rfind('/')) + "/../include/KelIpcDefine.h");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool IsNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

// Every name starting with IPC_ in the header; those written "NAME = integer" also land in values.
std::set<std::string> HeaderCodes(std::map<std::string, int>& values) {
    const std::string text = HeaderText();
    std::set<std::string> names;
    for (size_t at = text.find("IPC_"); at != std::string::npos; at = text.find("IPC_", at + 1)) {
        if (at > 0 && IsNameChar(text[at - 1])) continue;
        size_t end = at;
        while (end < text.size() && IsNameChar(text[end])) ++end;
        const std::string name = text.substr(at, end - at);
        names.insert(name);
        const size_t equals = text.find_first_not_of(" \t", end);
        if (equals == std::string::npos || text[equals] != '=') continue;
        const char* number = text.c_str() + equals + 1;
        char* parsed = nullptr;
        const long value = std::strtol(number, &parsed, 10);
        if (parsed != number) values[name] = static_cast<int>(value);
    }
    return names;
}

}  // namespace

TEST(KelIpcStrError, EveryCodeOfTheHeaderHasItsOwnMeaning) {
    std::map<std::string, int> codes;
    const std::set<std::string> names = HeaderCodes(codes);
    // A code declared in a form the scan cannot read would escape the walk below, so every name must have
    // a value.
    std::set<std::string> valued;
    for (const auto& code : codes) valued.insert(code.first);
    ASSERT_EQ(names, valued);
    ASSERT_EQ(IPC_ERR_NOT_OPENED, codes.at("IPC_ERR_NOT_OPENED"));

    std::set<std::string> meanings;
    for (const auto& code : codes) {
        const std::string meaning = KelIpcStrError(code.second);
        EXPECT_NE("unknown result code", meaning) << code.first;
        EXPECT_TRUE(meanings.insert(meaning).second) << code.first << " repeats \"" << meaning << '"';
    }
}

TEST(KelIpcStrError, OtherValuesAreByteCountsOrUnknown) {
    EXPECT_STREQ("success", KelIpcStrError(IPC_OK));
    EXPECT_STREQ("success, a byte count", KelIpcStrError(1));
    EXPECT_STREQ("success, a byte count", KelIpcStrError(INT_MAX));
    EXPECT_STREQ("unknown result code", KelIpcStrError(-1));
    EXPECT_STREQ("unknown result code", KelIpcStrError(IPC_ERR_FAILED - 1));
    EXPECT_STREQ("unknown result code", KelIpcStrError(INT_MIN));
}

TEST(KelIpcVersion, LibraryIsTheVersionItsHeadersName) {
    const std::string fromParts = std::to_string(KELIPC_VERSION_MAJOR) + "." +
                                  std::to_string(KELIPC_VERSION_MINOR) + "." +
                                  std::to_string(KELIPC_VERSION_PATCH);
    EXPECT_EQ(fromParts, KELIPC_VERSION_STRING);
    EXPECT_STREQ(KELIPC_VERSION_STRING, KelIpcVersion());
}
