#ifndef KELIPC_TOOL_ARGUMENTS_H
#define KELIPC_TOOL_ARGUMENTS_H

#include <CLI/CLI.hpp>

#include <cstdint>
#include <initializer_list>
#include <string>

// Checks for option values, so that every command refuses bad input before it starts work, each with a
// message that says what is accepted. Each one rewrites the text it accepts into the plain form the bound
// variable reads (a size "1.5M" becomes "1572864").
namespace Arguments {

constexpr uint64_t kMinBlock = 32 << 10;
constexpr uint64_t kMaxBlock = 1 << 30;

// Digits with an optional fraction and a K, M or G suffix (powers of 1024): 4096, 256K, 1.5M.
CLI::Validator Size(uint64_t min, uint64_t max);
CLI::Validator Count(uint64_t min, uint64_t max);
CLI::Validator Seconds(double min, double max);
CLI::Validator OneOf(std::initializer_list<const char*> choices);
// A socket name the library can derive its object names from.
CLI::Validator ChannelName();
// The name of a channel that may exist already: any bytes but '/', since any user can plant any name
// and the operator commands must be able to look at it and remove it.
CLI::Validator ExistingChannelName();
// A file that can be created or overwritten now, so that a long run does not find out at its end.
CLI::Validator WritableFile();

// Parses a size as Size does; false on anything else.
bool ParseSize(const std::string& text, uint64_t& bytes);
// "256K", "1.5M": the short form a message or a help text shows.
std::string SizeText(uint64_t bytes);

// --block, shared by every command that opens sockets: bytes per direction, kMinBlock to kMaxBlock.
CLI::Option* AddBlock(CLI::App& command, int& block, const std::string& extra = "");
// --name for the commands that pick their own socket names.
CLI::Option* AddName(CLI::App& command, std::string& name, const std::string& help);

}  // namespace Arguments

#endif  // KELIPC_TOOL_ARGUMENTS_H
