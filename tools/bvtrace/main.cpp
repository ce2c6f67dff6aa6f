// bvtrace: reads and changes the trace levels of a running process that has
// loaded the library, through that process's trace table in shared memory.
// The next line the process writes obeys the change.
#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "cli.h"
#include "trace/table.h"

namespace {

using namespace bv::trace;

// A process without a table, a name it does not have, nobody announcing
// itself: the tool's refusals.
constexpr int kNoTable = bv::cli::kRefused;
constexpr int kNotFound = bv::cli::kRefused;

const bv::cli::Help kHelp{
    "bvtrace",
    {"COMMAND [ARGUMENTS]", "help [COMMAND] | --help | --version"},
    "Reads and changes the trace levels of running processes that have loaded the library.",
    "Each process that loads the library keeps its trace settings in a table in shared memory\n"
    "(/dev/shm); the next line the process writes obeys a change made here.  See\n"
    "docs/configuration.md of the installed documentation for the settings files.",
    {{"Commands",
      {{"list [PID]", "The modules and categories of a process, with levels and status (every process that\n"
                      "has a table, without PID)."},
       {"set PID MODULE|CATEGORY LEVEL STATUS",
        "LEVEL 0-4; STATUS 0 inherit, 1 enabled, 2 disabled (or the words).  A module name ignores\n"
        "case; a category name is exact and changes every category of that name."},
       {"flags PID N", "The process flags: bit 0 category names, bit 1 file and line."},
       {"process PID LEVEL on|off", "The process level, and whether it counts."},
       {"wait [SECONDS]", "Waits (30 seconds unless told) until a process registers or loads its settings,\n"
                          "then prints \"announced\"."}}},
     bv::cli::exit_status("the process has no trace table, or no such module or category, or nobody\n"
                          "announced itself in time")}};

// Wrong arguments for `command`: its usage line.
int usage(const std::string& command) {
  for (const bv::cli::Entry& entry : kHelp.sections[0].entries)
    if (entry.term.compare(0, command.size(), command) == 0)
      return bv::cli::usage_error("bvtrace", "usage: bvtrace " + entry.term);
  return bv::cli::usage_error("bvtrace", "no command " + command);
}

const char* status_name(uint32_t status) {
  switch (status) {
    case kStatusInherit:
      return "inherit";
    case kStatusEnabled:
      return "enabled";
    default:
      return "disabled";
  }
}

bool parse_number(const char* text, unsigned long max, unsigned long& out) {
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || value > max) return false;
  out = value;
  return true;
}

bool parse_status(const char* text, uint32_t& status) {
  unsigned long number = 0;
  if (parse_number(text, 2, number)) {
    status = static_cast<uint32_t>(number);
    return true;
  }
  for (uint32_t s : {kStatusInherit, kStatusEnabled, kStatusDisabled})
    if (strcasecmp(text, status_name(s)) == 0) {
      status = s;
      return true;
    }
  return false;
}

// 0 when the table of the process is open, else the exit code.
int open_table_of(const char* pid_text, pid_t& pid) {
  unsigned long number = 0;
  if (!parse_number(pid_text, 0x7fffffff, number) || number == 0)
    return bv::cli::usage_error("bvtrace", std::string("not a process id: ") + pid_text);
  pid = static_cast<pid_t>(number);
  if (!open_process_table(pid)) {
    std::fprintf(stderr, "bvtrace: process %lu has no trace table (%s)\n", number, table_name(pid).c_str());
    return kNoTable;
  }
  return bv::cli::kDone;
}

void print_table(pid_t pid) {
  const ProcessSettings process = read_process();
  std::printf("process %d: level %u, %s, flags %u (category names %s, file and line %s)\n", static_cast<int>(pid),
              process.level, process.enabled ? "on" : "off",
              (process.func_and_category_names ? 1u : 0u) | (process.file_name_and_line_no ? 2u : 0u),
              process.func_and_category_names ? "on" : "off", process.file_name_and_line_no ? "on" : "off");
  for (int m = 0; m < module_count(); ++m) {
    ModuleRecord module{};
    if (!read_module(m, module)) continue;
    std::printf("  module %s: level %u, status %u %s  (%s)\n", module.name, module.level, module.status,
                status_name(module.status), module.path);
    for_each_category(m, [](int, const CategoryRecord& category) {
      std::printf("    category %s: level %u, status %u %s\n", category.name, category.level, category.status,
                  status_name(category.status));
    });
  }
}

int list_all() {
  DIR* dir = opendir("/dev/shm");
  if (dir == nullptr) return kNoTable;
  const std::string prefix = table_name(0).substr(1, table_name(0).size() - 2);
  int found = 0;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    const pid_t pid = static_cast<pid_t>(std::strtoul(name.c_str() + prefix.size(), nullptr, 16));
    if (pid > 0 && open_process_table(pid)) {
      print_table(pid);
      ++found;
    }
  }
  closedir(dir);
  return found > 0 ? 0 : kNoTable;
}

int set_levels(pid_t pid, const char* name, const char* level_text, const char* status_text) {
  unsigned long level = 0;
  uint32_t status = 0;
  if (!parse_number(level_text, 0xffffffffUL, level) || !parse_status(status_text, status)) return usage("set");
  const int module = find_module(name, true);
  if (module != kNoId) {
    set_module(module, static_cast<uint32_t>(level), status);
    return 0;
  }
  int changed = 0;
  for (int m = 0; m < module_count(); ++m)
    for_each_category(m, [&](int id, const CategoryRecord& category) {
      if (std::strcmp(category.name, name) == 0 && set_category(id, static_cast<uint32_t>(level), status)) ++changed;
    });
  if (changed == 0) {
    std::fprintf(stderr, "bvtrace: process %d has no module or category %s\n", static_cast<int>(pid), name);
    return kNotFound;
  }
  return 0;
}

int wait_for_announce(const char* seconds_text) {
  unsigned long seconds = 30;
  if (seconds_text != nullptr && !parse_number(seconds_text, 86400, seconds)) return usage("wait");
  // A fresh semaphore: one left behind would hold the posts of every load
  // since, and the wait would end at once.
  sem_unlink(kAnnounceSemaphore);
  sem_t* event = sem_open(kAnnounceSemaphore, O_CREAT | O_EXCL, 0600, 0);
  if (event == SEM_FAILED) {
    std::perror("bvtrace: sem_open");
    return kNoTable;
  }
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(seconds);
  int rc;
  while ((rc = sem_timedwait(event, &deadline)) != 0 && errno == EINTR) {
  }
  sem_close(event);
  sem_unlink(kAnnounceSemaphore);
  if (rc != 0) {
    std::fputs("bvtrace: no process announced itself\n", stderr);
    return kNotFound;
  }
  std::puts("announced");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (const auto handled = bv::cli::common_arguments(kHelp, argc, argv)) return *handled;
  if (argc < 2) {
    bv::cli::print_help(kHelp, stderr);
    return bv::cli::kUsageOrFile;
  }
  const std::string command = argv[1];
  pid_t pid = 0;
  if (command == "list") {
    if (argc == 2) return list_all();
    if (argc != 3) return usage(command);
    if (const int code = open_table_of(argv[2], pid)) return code;
    print_table(pid);
    return 0;
  }
  if (command == "set") {
    if (argc != 6) return usage(command);
    if (const int code = open_table_of(argv[2], pid)) return code;
    return set_levels(pid, argv[3], argv[4], argv[5]);
  }
  if (command == "flags") {
    unsigned long flags = 0;
    if (argc != 4 || !parse_number(argv[3], 3, flags)) return usage(command);
    if (const int code = open_table_of(argv[2], pid)) return code;
    ProcessSettings process = read_process();
    process.func_and_category_names = (flags & 1) != 0;
    process.file_name_and_line_no = (flags & 2) != 0;
    write_process(process);
    return 0;
  }
  if (command == "process") {
    unsigned long level = 0;
    if (argc != 5 || !parse_number(argv[3], 0xffffffffUL, level) ||
        (std::strcmp(argv[4], "on") != 0 && std::strcmp(argv[4], "off") != 0))
      return usage(command);
    if (const int code = open_table_of(argv[2], pid)) return code;
    ProcessSettings process = read_process();
    process.level = static_cast<uint32_t>(level);
    process.enabled = std::strcmp(argv[4], "on") == 0;
    write_process(process);
    return 0;
  }
  if (command == "wait") {
    if (argc > 3) return usage(command);
    return wait_for_announce(argc == 3 ? argv[2] : nullptr);
  }
  return usage(command);
}
