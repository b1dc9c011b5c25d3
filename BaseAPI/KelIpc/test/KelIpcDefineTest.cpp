// Result-code meanings. The codes are read from the public header's text, so a code added there without a
// meaning fails here.
#include <cctype>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "KelIpcDefine.h"

TEST(KelIpcStrError, EveryCodeOfTheHeaderHasItsOwnMeaningAndOtherValuesAreByteCountsOrUnknown) {
    const std::string self = __FILE__;
    std::ifstream in(self.substr(0, self.rfind('/')) + "/../include/KelIpcDefine.h");
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const auto nameChar = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
    // Every name starting with IPC_. One declared in any other form than "NAME = integer" keeps INT_MIN,
    // which has no meaning, and so fails below instead of escaping the check.
    std::map<std::string, int> codes;
    for (size_t at = text.find("IPC_"); at != std::string::npos; at = text.find("IPC_", at + 1)) {
        if (at > 0 && nameChar(text[at - 1])) continue;
        size_t end = at;
        while (end < text.size() && nameChar(text[end])) ++end;
        const std::string name = text.substr(at, end - at);
        codes.emplace(name, INT_MIN);
        const size_t equals = text.find_first_not_of(" \t", end);
        if (equals == std::string::npos || text[equals] != '=') continue;
        const char* number = text.c_str() + equals + 1;
        char* parsed = nullptr;
        const long value = std::strtol(number, &parsed, 10);
        if (parsed != number) codes[name] = static_cast<int>(value);
    }
    ASSERT_EQ(IPC_ERR_NOT_OPENED, codes["IPC_ERR_NOT_OPENED"]);

    std::set<std::string> meanings;
    for (const auto& code : codes) {
        const std::string meaning = KelIpcStrError(code.second);
        EXPECT_NE("unknown result code", meaning) << code.first;
        EXPECT_TRUE(meanings.insert(meaning).second) << code.first << " repeats \"" << meaning << '"';
    }
    EXPECT_STREQ("success", KelIpcStrError(IPC_OK));
    for (int count : {1, INT_MAX}) EXPECT_STREQ("success, a byte count", KelIpcStrError(count));
    for (int other : {-1, IPC_ERR_FAILED - 1, INT_MIN})
        EXPECT_STREQ("unknown result code", KelIpcStrError(other));
}
