// How every program of the project reads its command line: numbers that are
// finite and within a range said in words, files that must exist, strict
// integers, --help and --version, and exit status 2 for any bad usage.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace orvargs {

constexpr int kExitUsage = 2;

// The longest run a duration may ask for (about 16 weeks); longer ones run
// until Ctrl-C.
constexpr double kLongestRunS = 1e7;

// The fastest paced replay: beyond it, pacing means nothing and --fast says it.
constexpr double kFastestReplay = 1000;

// A finite number from `lo` to `hi`, both included; `unit` names what it
// counts ("seconds"), so that a refusal reads "... a number of seconds from
// 0 to 3600".
CLI::Validator number(double lo, double hi, const std::string& unit);

// The same with `lo` itself excluded: "above 0, up to 1000".
CLI::Validator above(double lo, double hi, const std::string& unit);

// A file named on the command line: it must exist and be readable. A
// program's default file is left to the library's own rule.
CLI::Validator readableFile();

// Empty when `path` is a readable file, else why not ("No such file or
// directory", "it is a folder").
std::string unreadableReason(const std::string& path);

// "3600", "0.5", "1000000": a limit as a user writes it.
std::string numberText(double v);

// Sets --version to "NAME VERSION" and the shape of every refusal.
void standard(CLI::App& app, const std::string& name, const std::string& version);

// For a program with subcommands: their help in --help-all as paragraphs
// of their own (name and purpose, then their arguments), which help2man
// turns into a readable man page instead of running them together.
void expandedSubcommandHelp(CLI::App& app);

// Parses the command line: -1 to go on; otherwise the exit status after
// printing what was asked or what is wrong (0 for --help and --version,
// kExitUsage for anything else).
int parse(CLI::App& app, int argc, char** argv);

// A whole unsigned number, decimal or hexadecimal after one 0x, nothing
// before or after it (no sign, no space), at most `max`; false otherwise.
bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out);

}  // namespace orvargs
