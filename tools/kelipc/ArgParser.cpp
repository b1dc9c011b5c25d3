#include "ArgParser.h"

#include <cctype>
#include <utility>

#include "Commands.h"

ArgParser::ArgParser(std::string usage, std::string summary)
    : m_usage(std::move(usage)), m_summary(std::move(summary)) {}

void ArgParser::AddOption(std::string name, std::string valueName, std::string help) {
    m_options.push_back({std::move(name), std::move(valueName), std::move(help)});
}

bool ArgParser::Parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            m_help = true;
            continue;
        }
        if (m_acceptPlain && !arg.empty() && arg[0] != '-') {
            m_plain.push_back(arg);
            continue;
        }
        if (arg.compare(0, 2, "--") != 0) {
            m_error = "unexpected argument '" + arg + "'";
            return false;
        }
        std::string name = arg.substr(2);
        std::string value;
        const size_t equals = name.find('=');
        if (equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        const Option* option = nullptr;
        for (const Option& candidate : m_options) {
            if (candidate.name == name) option = &candidate;
        }
        if (option == nullptr) {
            m_error = "unknown option '--" + name + "'";
            return false;
        }
        if (option->valueName.empty()) {
            if (equals != std::string::npos) {
                m_error = "option '--" + name + "' takes no value";
                return false;
            }
        } else if (equals == std::string::npos) {
            if (i + 1 >= argc) {
                m_error = "option '--" + name + "' needs a value";
                return false;
            }
            value = argv[++i];
        }
        m_values[name] = value;
    }
    return true;
}

std::string ArgParser::Get(const std::string& name, const std::string& fallback) const {
    const auto found = m_values.find(name);
    return found == m_values.end() ? fallback : found->second;
}

void ArgParser::PrintHelp(FILE* out) const {
    std::fprintf(out, "usage: %s\n\n%s\n\noptions:\n", m_usage.c_str(), m_summary.c_str());
    for (const Option& option : m_options) {
        const std::string left = "--" + option.name + " " + option.valueName;
        std::fprintf(out, "  %-22s %s\n", left.c_str(), option.help.c_str());
    }
    std::fprintf(out, "  %-22s %s\n\nexit codes: 0 success, 1 failure, 2 usage error\n", "--help",
                 "this text");
}

int ArgParser::UsageError(const std::string& message) const {
    const size_t first = m_usage.find(' ');
    const size_t second = first == std::string::npos ? first : m_usage.find(' ', first + 1);
    std::fprintf(stderr, "%s: %s\n\n", m_usage.substr(0, second).c_str(), message.c_str());
    PrintHelp(stderr);
    return kExitUsage;
}

bool ArgParser::ParseSize(const std::string& text, uint64_t& bytes) {
    size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
    if (digits == 0 || digits > 19 || text.size() - digits > 1) return false;
    const uint64_t value = std::stoull(text.substr(0, digits));
    unsigned shift = 0;
    if (digits < text.size()) {
        switch (std::toupper(static_cast<unsigned char>(text[digits]))) {
            case 'K':
                shift = 10;
                break;
            case 'M':
                shift = 20;
                break;
            case 'G':
                shift = 30;
                break;
            default:
                return false;
        }
    }
    if (value == 0 || value > (UINT64_MAX >> shift)) return false;
    bytes = value << shift;
    return true;
}
