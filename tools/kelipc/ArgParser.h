#ifndef KELIPC_TOOL_ARG_PARSER_H
#define KELIPC_TOOL_ARG_PARSER_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

// Options of one subcommand, each "--name VALUE" or "--name=VALUE", plus --help / -h.
class ArgParser {
public:
    ArgParser(std::string usage, std::string summary);

    void AddOption(std::string name, std::string valueName, std::string help);
    // Parses argv[1..argc). False on an unknown option, a missing value or a stray argument (see Error).
    bool Parse(int argc, char** argv);

    bool HelpRequested() const { return m_help; }
    const std::string& Error() const { return m_error; }
    std::string Get(const std::string& name, const std::string& fallback) const;
    void PrintHelp(FILE* out) const;

    // A byte count with an optional K, M or G suffix (powers of 1024). False on junk, zero or overflow.
    static bool ParseSize(const std::string& text, uint64_t& bytes);

private:
    struct Option {
        std::string name;
        std::string valueName;
        std::string help;
    };

    std::string m_usage;
    std::string m_summary;
    std::vector<Option> m_options;
    std::map<std::string, std::string> m_values;
    std::string m_error;
    bool m_help = false;
};

#endif  // KELIPC_TOOL_ARG_PARSER_H
