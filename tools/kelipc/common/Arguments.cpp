#include "Arguments.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "SafeText.h"

namespace Arguments {

namespace {

constexpr size_t kMaxName = 200;
// Room for the longest object suffix in a file name of at most 255 bytes.
constexpr size_t kMaxExistingName = 240;

std::string Refuse(const std::string& value, const std::string& accepted) {
    return SafeText::ShellQuote(value) + " is not " + accepted;
}

bool ParseNumber(const std::string& text, double& value, size_t& used) {
    if (text.empty() || !(std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '.')) return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text.c_str(), &end);
    used = static_cast<size_t>(end - text.c_str());
    return errno == 0 && used > 0 && std::isfinite(value);
}

}  // namespace

bool ParseSize(const std::string& text, uint64_t& bytes) {
    double value = 0;
    size_t used = 0;
    if (!ParseNumber(text, value, used) || text.find_first_of("eExXpP") != std::string::npos) return false;
    double unit = 1;
    if (used + 1 == text.size()) {
        switch (std::toupper(static_cast<unsigned char>(text[used]))) {
            case 'K':
                unit = 1024.0;
                break;
            case 'M':
                unit = 1048576.0;
                break;
            case 'G':
                unit = 1073741824.0;
                break;
            default:
                return false;
        }
    } else if (used != text.size()) {
        return false;
    }
    const double scaled = value * unit;
    // A fraction must come out as whole bytes: 1.5K is 1536, 1.0001K is no byte count.
    if (scaled >= 18446744073709549568.0 || scaled != std::floor(scaled)) return false;
    bytes = static_cast<uint64_t>(scaled);
    return true;
}

std::string SizeText(uint64_t bytes) {
    const char* const suffixes[] = {"", "K", "M", "G"};
    int unit = 0;
    while (unit < 3 && bytes >= 1024 && bytes % 1024 == 0) {
        bytes /= 1024;
        ++unit;
    }
    return std::to_string(bytes) + suffixes[unit];
}

CLI::Validator Size(uint64_t min, uint64_t max) {
    const std::string accepted = "a size from " + SizeText(min) + " to " + SizeText(max) +
                                 " (bytes, or with a suffix K, M or G, e.g. 64K or 1.5M)";
    return CLI::Validator(
        [=](std::string& text) {
            uint64_t bytes = 0;
            if (!ParseSize(text, bytes) || bytes < min || bytes > max) return Refuse(text, accepted);
            text = std::to_string(bytes);
            return std::string();
        },
        "");
}

CLI::Validator Count(uint64_t min, uint64_t max) {
    const std::string accepted = "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
    return CLI::Validator(
        [=](std::string& text) {
            char* end = nullptr;
            errno = 0;
            const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
            if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end != '\0' ||
                errno != 0 || value < min || value > max)
                return Refuse(text, accepted);
            return std::string();
        },
        "");
}

CLI::Validator Seconds(double min, double max) {
    char accepted[96];
    std::snprintf(accepted, sizeof accepted, "a number of seconds from %g to %g", min, max);
    const std::string text = accepted;
    return CLI::Validator(
        [=](std::string& value) {
            double seconds = 0;
            size_t used = 0;
            if (!ParseNumber(value, seconds, used) || used != value.size() || seconds < min || seconds > max)
                return Refuse(value, text);
            return std::string();
        },
        "");
}

CLI::Validator OneOf(std::initializer_list<const char*> choices) {
    std::vector<std::string> list(choices.begin(), choices.end());
    std::string accepted = "one of";
    for (size_t i = 0; i < list.size(); ++i)
        accepted += (i == 0 ? " " : i + 1 == list.size() ? " or " : ", ") + list[i];
    return CLI::Validator(
        [=](std::string& value) {
            for (const std::string& choice : list)
                if (value == choice) return std::string();
            return Refuse(value, accepted);
        },
        "");
}

CLI::Validator ChannelName() {
    return CLI::Validator(
        [](std::string& name) {
            bool control = false;
            for (const char c : name) control = control || static_cast<unsigned char>(c) < 0x20;
            if (name.empty() || name.size() > kMaxName || control || name.find('/') != std::string::npos)
                return Refuse(name, "a socket name: 1 to 200 characters, no '/' and no control characters");
            return std::string();
        },
        "");
}

CLI::Validator ExistingChannelName() {
    return CLI::Validator(
        [](std::string& name) {
            if (name.empty() || name.size() > kMaxExistingName || name.find('/') != std::string::npos)
                return Refuse(name, "a socket name: 1 to 240 bytes without '/'");
            return std::string();
        },
        "");
}

CLI::Validator WritableFile() {
    return CLI::Validator(
        [](std::string& path) {
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) return "'" + path + "' cannot be written: " + std::strerror(errno);
            close(fd);
            return std::string();
        },
        "");
}

CLI::Option* AddBlock(CLI::App& command, int& block, const std::string& extra) {
    return command
        .add_option("--block", block,
                    "shared block per direction, " + SizeText(kMinBlock) + " to " + SizeText(kMaxBlock) +
                        " (default 256K)" + extra)
        ->type_name("BYTES")
        ->transform(Size(kMinBlock, kMaxBlock));
}

CLI::Option* AddName(CLI::App& command, std::string& name, const std::string& help) {
    return command.add_option("--name", name, help)->type_name("NAME")->check(ChannelName());
}

}  // namespace Arguments
