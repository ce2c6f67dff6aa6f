// What every command-line tool here does alike: its help on standard output
// (the man pages are made from it), --version, the exit codes, "-" for the
// standard streams, and file errors that carry the system's reason.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace bv::cli {

// The exit codes of every tool.
enum Exit : int {
  kDone = 0,
  kRefused = 1,      // the library (or the store, the key, the authority) said no
  kUsageOrFile = 2,  // wrong arguments, or a file that cannot be read or written
};

// A command, option or variable with its description, whose lines are
// separated by '\n'.
struct Entry {
  std::string term;
  std::string text;
};

struct Section {
  std::string title;
  std::vector<Entry> entries;
};

// A tool's help, printed by --help and turned into its man page at build
// time: the layout print_help gives it is what cmake/man_page.cmake reads.
struct Help {
  std::string tool;
  std::vector<std::string> synopsis;  // each line after the tool's name
  std::string summary;                // one line, the man page's NAME
  std::string description;            // lines, a blank one between paragraphs
  std::vector<Section> sections;
};

// The exit status section, with what 1 means for this tool.
Section exit_status(const std::string& refused);

void print_help(const Help& help, FILE* out);

// Handles what every tool takes in place of its own arguments: --help, -h,
// help [TOPIC], --version, and --help or -h after a command (that command's
// help).  The exit code when it handled them.
std::optional<int> common_arguments(const Help& help, int argc, char** argv);

// "TOOL: MESSAGE" and where to find the usage, on standard error; returns
// kUsageOrFile.
int usage_error(const std::string& tool, const std::string& message);

// "cannot VERB PATH: REASON", the reason from strerror.
std::string file_error(const std::string& verb, const std::string& path, int error = errno);

// Thrown for a file that cannot be read or written (exit code 2), with the
// text of file_error.
struct FileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// Throws FileError when `path` cannot be opened for reading.
void require_readable(const std::string& path);

// "-" names standard input or output.
inline bool is_standard_stream(const std::string& path) { return path == "-"; }
inline std::string display_name(const std::string& path, bool output) {
  return is_standard_stream(path) ? (output ? "standard output" : "standard input") : path;
}

// Why `output` may not be written: it is the same regular file as one of
// `inputs` (device and inode, so links and other spellings count; "-" is
// the standard stream).  Nothing when it may.
std::optional<std::string> same_file_refusal(const std::string& output, const std::vector<std::string>& inputs);

// A record as the tools take it: ID[:PROFILE[:PIN]].  The PIN is the rest
// after the second colon, so it may hold colons itself.
struct RecordArgument {
  std::string id, profile, pin;
};
RecordArgument parse_record(const std::string& text);

}  // namespace bv::cli
