#ifndef KELIPC_TOOL_ARG_PARSER_H
#define KELIPC_TOOL_ARG_PARSER_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

// Options of one subcommand, each "--name VALUE" or "--name=VALUE", switches "--name", plus --help / -h
// and, where accepted, plain arguments.
class ArgParser {
public:
    // usage begins with the command, e.g. "kelipc demo [options]"; its first two words name it in errors.
    ArgParser(std::string usage, std::string summary);

    // An empty valueName makes the option a switch that takes no value.
    void AddOption(std::string name, std::string valueName, std::string help);
    // Lets Parse collect arguments that do not start with '-' instead of refusing them.
    void AcceptPlainArguments() { m_acceptPlain = true; }
    // Parses argv[1..argc). False on an unknown option, a missing or unwanted value or a stray argument
    // (see Error).
    bool Parse(int argc, char** argv);

    bool HelpRequested() const { return m_help; }
    const std::string& Error() const { return m_error; }
    std::string Get(const std::string& name, const std::string& fallback) const;
    bool Has(const std::string& name) const { return m_values.count(name) != 0; }
    const std::vector<std::string>& PlainArguments() const { return m_plain; }
    void PrintHelp(FILE* out) const;
    // Prints "<command>: message" and the help on stderr; returns the usage exit code.
    int UsageError(const std::string& message) const;

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
    std::vector<std::string> m_plain;
    std::string m_error;
    bool m_help = false;
    bool m_acceptPlain = false;
};

#endif  // KELIPC_TOOL_ARG_PARSER_H
