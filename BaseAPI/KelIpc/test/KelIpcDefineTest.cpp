// Result-code meanings and the library's version. The codes are read from the public header's text, so a
// code added there without a meaning fails here.
#include <climits>
#include <fstream>
#include <map>
#include <regex>
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

std::set<std::string> Matches(const std::string& text, const std::regex& pattern) {
    std::set<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) {
        found.insert((*it)[1]);
    }
    return found;
}

}  // namespace

TEST(KelIpcStrError, EveryCodeOfTheHeaderHasItsOwnMeaning) {
    const std::string header = HeaderText();
    const std::regex declaration(R"(\b(IPC_[A-Z_]+)\s*=\s*(-?[0-9]+))");
    std::map<std::string, int> codes;
    for (std::sregex_iterator it(header.begin(), header.end(), declaration), end; it != end; ++it) {
        codes[(*it)[1]] = std::stoi((*it)[2]);
    }
    // A code declared in a form the pattern misses would escape the walk below, so every name must match.
    std::set<std::string> declared;
    for (const auto& code : codes) declared.insert(code.first);
    ASSERT_EQ(Matches(header, std::regex(R"(\b(IPC_[A-Z_]+)\b)")), declared);
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
