#include "cli.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace bv::cli {
namespace {

void print_indented(const std::string& text, const char* indent, FILE* out) {
  size_t at = 0;
  while (at <= text.size()) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string line = text.substr(at, end - at);
    std::fprintf(out, "%s%s\n", line.empty() ? "" : indent, line.c_str());
    at = end + 1;
  }
}

std::string first_word(const std::string& term) { return term.substr(0, term.find(' ')); }

const Entry* find_topic(const Help& help, const std::string& topic) {
  for (const Section& section : help.sections)
    for (const Entry& entry : section.entries)
      if (first_word(entry.term) == topic) return &entry;
  return nullptr;
}

// The device and inode of a regular file; nothing for anything else (two
// names for one terminal or pipe do no harm).
struct FileId {
  dev_t device;
  ino_t inode;
  bool operator==(const FileId&) const = default;
};

std::optional<FileId> regular_file_id(const std::string& path, int standard_fd) {
  struct stat info {};
  const int rc = is_standard_stream(path) ? fstat(standard_fd, &info) : stat(path.c_str(), &info);
  if (rc != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return FileId{info.st_dev, info.st_ino};
}

}  // namespace

Section exit_status(const std::string& refused) {
  return {"Exit status",
          {{"0", "done"},
           {"1", refused},
           {"2", "wrong arguments, or a file that cannot be read or written (the system's reason is given)"}}};
}

void print_help(const Help& help, FILE* out) {
  for (size_t i = 0; i < help.synopsis.size(); ++i)
    std::fprintf(out, "%s%s %s\n", i == 0 ? "Usage: " : "       ", help.tool.c_str(), help.synopsis[i].c_str());
  std::fprintf(out, "\n%s\n", help.summary.c_str());
  if (!help.description.empty()) {
    std::fputc('\n', out);
    print_indented(help.description, "", out);
  }
  for (const Section& section : help.sections) {
    std::fprintf(out, "\n%s:\n", section.title.c_str());
    for (const Entry& entry : section.entries) {
      std::fprintf(out, "  %s\n", entry.term.c_str());
      print_indented(entry.text, "      ", out);
    }
  }
}

std::optional<int> common_arguments(const Help& help, int argc, char** argv) {
  if (argc < 2) return std::nullopt;
  const std::string first = argv[1];
  if (first == "--version") {
    std::printf("%s %s\n", help.tool.c_str(), BV_VERSION);
    return kDone;
  }
  std::string topic;
  if (first == "--help" || first == "-h") {
    if (argc > 2) return usage_error(help.tool, first + " takes nothing after it (try 'help TOPIC')");
  } else if (first == "help") {
    if (argc > 3) return usage_error(help.tool, "help takes one topic");
    if (argc == 3) topic = argv[2];
  } else {
    bool asked = false;
    for (int i = 2; i < argc; ++i) asked = asked || std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0;
    if (!asked) return std::nullopt;
    if (first[0] != '-') topic = first;
  }
  if (topic.empty()) {
    print_help(help, stdout);
    return kDone;
  }
  const Entry* entry = find_topic(help, topic);
  if (entry == nullptr) return usage_error(help.tool, "no command or option " + topic);
  std::printf("Usage: %s %s\n\n", help.tool.c_str(), entry->term.c_str());
  print_indented(entry->text, "", stdout);
  return kDone;
}

int usage_error(const std::string& tool, const std::string& message) {
  std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", tool.c_str(), message.c_str(), tool.c_str());
  return kUsageOrFile;
}

std::string file_error(const std::string& verb, const std::string& path, int error) {
  return "cannot " + verb + " " + display_name(path, verb == "write") + ": " + std::strerror(error);
}

void require_readable(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) throw FileError(file_error("read", path));
}

std::optional<std::string> same_file_refusal(const std::string& output, const std::vector<std::string>& inputs) {
  const auto written = regular_file_id(output, STDOUT_FILENO);
  if (!written) return std::nullopt;
  for (const std::string& input : inputs)
    if (!input.empty() && regular_file_id(input, STDIN_FILENO) == written)
      return display_name(output, true) + " is the same file as the input " + display_name(input, false) +
             ": write to another file";
  return std::nullopt;
}

RecordArgument parse_record(const std::string& text) {
  RecordArgument record;
  const size_t first = text.find(':');
  record.id = text.substr(0, first);
  if (first == std::string::npos) return record;
  const size_t second = text.find(':', first + 1);
  record.profile = text.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
  if (second != std::string::npos) record.pin = text.substr(second + 1);
  return record;
}

}  // namespace bv::cli
