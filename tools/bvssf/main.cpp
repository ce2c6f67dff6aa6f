#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "bvssf.h"
#include "cli.h"

namespace bvssf {
namespace {

std::map<std::string, Command>& commands() {
  static std::map<std::string, Command> table;
  return table;
}

// $BVSSF_LIBRARY, else the library beside this program (the build
// folder), else where an installation puts it relative to this program.
std::string library_path() {
  if (const char* path = std::getenv("BVSSF_LIBRARY"); path != nullptr && *path != '\0') return path;
  const std::string dir = bvssf::program_folder();
  if (dir.empty()) return "libbvsapssf.so";
  if (access((dir + "libbvsapssf.so").c_str(), F_OK) == 0) return dir + "libbvsapssf.so";
  return dir + BVSSF_LIBRARY_FROM_BINDIR "/libbvsapssf.so";
}

}  // namespace

std::string program_folder() {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return {};
  std::string dir(self, static_cast<size_t>(n));
  dir.resize(dir.rfind('/') + 1);
  return dir;
}

namespace {

[[noreturn]] void die(const std::string& message) {
  std::fprintf(stderr, "bvssf: %s\n", message.c_str());
  std::exit(bv::cli::kUsageOrFile);
}

FILE* g_info = stdout;
bool g_standard_input_taken = false;

}  // namespace

const Library& library() {
  static const Library lib = [] {
    const std::string path = library_path();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) die(std::string("cannot load ") + path + ": " + dlerror());
    auto resolve = [handle](const char* name) {
      void* symbol = dlsym(handle, name);
      if (symbol == nullptr) die(std::string("the library does not export ") + name);
      return symbol;
    };
    Library l{};
#define BVSSF_RESOLVE(name) l.name = reinterpret_cast<decltype(l.name)>(resolve(#name));
    BVSSF_EXPORTS(BVSSF_RESOLVE)
#undef BVSSF_RESOLVE
    return l;
  }();
  return lib;
}

std::string rc_name(SSF_RC rc) {
  switch (rc) {
    case SSF_OK: return "SSF_OK";
    case SSF_ERR_FORMAT: return "SSF_ERR_FORMAT";
    case SSF_ERR_INPUT: return "SSF_ERR_INPUT";
    case SSF_ERR_NOMEMORY: return "SSF_ERR_NOMEMORY";
    case SSF_ERR_SIGNER: return "SSF_ERR_SIGNER";
    case SSF_ERR_SIGNERINFO: return "SSF_ERR_SIGNERINFO";
    case SSF_ERR_PAB: return "SSF_ERR_PAB";
    case SSF_ERR_RECIPIENT: return "SSF_ERR_RECIPIENT";
    case SSF_ERR_HASHALG: return "SSF_ERR_HASHALG";
    case SSF_ERR_ENCODE: return "SSF_ERR_ENCODE";
    case SSF_ERR_DECODE: return "SSF_ERR_DECODE";
    case SSF_ERR_INTERNAL: return "SSF_ERR_INTERNAL";
    case SSF_ERR_ENCRALG: return "SSF_ERR_ENCRALG";
    case SSF_REC_NOMEMORY: return "SSF_REC_NOMEMORY";
    case SSF_REC_INVALID_LENGTH: return "SSF_REC_INVALID_LENGTH";
    case SSF_REC_NULL_INFO: return "SSF_REC_NULL_INFO";
    case SSF_REC_NULL_LIST: return "SSF_REC_NULL_LIST";
    default: return std::to_string(rc);
  }
}

InputFile::InputFile(const std::string& path) {
  if (path.empty()) return;
  const bool standard = bv::cli::is_standard_stream(path);
  if (standard && std::exchange(g_standard_input_taken, true)) die("only one input can be standard input");
  const int fd = standard ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) die(bv::cli::file_error("read", path));
  // Standard input redirected from a file is mapped from where it stands.
  const off_t start = standard ? lseek(fd, 0, SEEK_CUR) : 0;
  struct stat info {};
  if (start >= 0 && start % sysconf(_SC_PAGESIZE) == 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
      info.st_size > start) {
    const size_t length = static_cast<size_t>(info.st_size - start);
    void* mapping = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, start);
    if (mapping != MAP_FAILED) {
      mapping_ = mapping;
      data_ = static_cast<const char*>(mapping);
      size_ = length;
      if (!standard) close(fd);
      return;
    }
  }
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) die(bv::cli::file_error("read", path));
    if (got == 0) break;
    read_.append(buffer, static_cast<size_t>(got));
  }
  if (!standard) close(fd);
  data_ = read_.data();
  size_ = read_.size();
}

InputFile::~InputFile() {
  if (mapping_ != nullptr) munmap(mapping_, size_);
}

void prepare_output(const std::string& path, const std::vector<std::string>& inputs) {
  if (const auto refusal = bv::cli::same_file_refusal(path, inputs)) die(*refusal);
  if (bv::cli::is_standard_stream(path)) g_info = stderr;
}

FILE* info() { return g_info; }

void write_file(const std::string& path, const unsigned char* data, uint32_t length) {
  const bool standard = bv::cli::is_standard_stream(path);
  const int fd = standard ? STDOUT_FILENO : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) die(bv::cli::file_error("write", path));
  for (uint32_t done = 0; done < length;) {
    const ssize_t wrote = write(fd, data + done, length - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) die(bv::cli::file_error("write", path));
    done += static_cast<uint32_t>(wrote);
  }
  if (!standard && close(fd) != 0) die(bv::cli::file_error("write", path));
}

void note_written(const std::string& path, uint32_t length, const char* what) {
  std::fprintf(info(), "%s%u bytes written to %s\n", what, length, bv::cli::display_name(path, true).c_str());
}

int report(SSF_RC rc) {
  std::fprintf(info(), "%s (%u)\n", rc_name(rc).c_str(), rc);
  return rc == SSF_OK ? bv::cli::kDone : bv::cli::kRefused;
}

void point_to_check(const RecordArgument& signer) {
  std::fprintf(info(), "  why: bvstore check '%s:%s:PIN'\n", signer.id.c_str(), signer.profile.c_str());
}

SSF_RC add_record(const RecordArgument& argument, SsfInfoNode** list, SsfInfo** record) {
  const auto& lib = library();
  SsfInfo* info = nullptr;
  SSF_RC rc = lib.SsfNEWSigRcpSsfInfo(argument.id.data(), static_cast<int32_t>(argument.id.size()), nullptr, 0,
                                      argument.profile.data(), static_cast<int32_t>(argument.profile.size()),
                                      argument.pin.data(), static_cast<int32_t>(argument.pin.size()),
                                      SSF_RES_UNDEFINED, &info);
  if (rc != SSF_OK) return rc;
  rc = lib.SsfINSSigRcpSsfInfo(info, list);
  if (rc != SSF_OK) {
    lib.SsfDELSigRcpSsfInfo(&info);
    return rc;
  }
  if (record != nullptr) *record = info;
  return SSF_OK;
}

const char* result_name(int32_t result) {
  switch (result) {
    case 0: return "OK";
    case 21: return "INVALID_NAMESPACE";
    case 22: return "UNKNOWN";
    case 23: return "UNKNOWN_PROFILE";
    case 24: return "INVALID_PROFILE";
    case 25: return "INVALID_PASSWORD";
    case 26: return "NOCERTIFICATE";
    case 27: return "NOT_OK";
    case 28: return "UNDEFINED";
    default: return "?";
  }
}

bool add_command(const Command& command) {
  commands()[command.name] = command;
  return true;
}

int usage_of(const char* name) {
  const Command& command = commands().at(name);
  return bv::cli::usage_error("bvssf", std::string("usage: bvssf ") + name + " " + command.usage);
}

}  // namespace bvssf

namespace {

bv::cli::Help help() {
  bv::cli::Help help{"bvssf",
                     {"COMMAND [ARGUMENTS]", "help [COMMAND] | --help | --version"},
                     "Runs the SSF library's exports from the command line, one per command, as SAP calls them.",
                     "Each command loads the library with dlopen, calls its export with the arguments and files\n"
                     "given, prints what the call returned and the return code by name (SSF_OK (0),\n"
                     "SSF_ERR_FORMAT (2), ...), and writes the output block to OUT.",
                     {}};
  bv::cli::Section commands{"Commands", {}};
  for (const auto& [name, command] : bvssf::commands()) {
    std::string text = command.help;
    if (command.details != nullptr) text += std::string("\n") + command.details;
    commands.entries.push_back({name + (*command.usage != '\0' ? " " + std::string(command.usage) : ""), text});
  }
  help.sections.push_back(std::move(commands));
  help.sections.push_back(
      {"Files",
       {{"-", "as IN, MSG or a --content FILE: standard input (one of them at most); as OUT or an --out\n"
              "FILE: standard output, and then the informational lines go to standard error"},
        {"OUT", "written only when the call succeeded, and never when it is one of the inputs\n"
                "(the same file, however named)"}}});
  help.sections.push_back(
      {"Environment",
       {{"BVSSF_LIBRARY", "the library to load; else libbvsapssf.so beside bvssf, else the installed one"},
        {"BV_SSF_*, BV_CADES_*, BV_PLATFORM_*",
         "the library's own settings (docs/configuration.md of the installed documentation)"}}});
  help.sections.push_back(bv::cli::exit_status("the library refused: the return code is not SSF_OK"));
  return help;
}

}  // namespace

int main(int argc, char** argv) {
  const bv::cli::Help tool_help = help();
  if (const auto handled = bv::cli::common_arguments(tool_help, argc, argv)) return *handled;
  if (argc < 2) {
    bv::cli::print_help(tool_help, stderr);
    return bv::cli::kUsageOrFile;
  }
  const auto found = bvssf::commands().find(argv[1]);
  if (found == bvssf::commands().end()) return bv::cli::usage_error("bvssf", std::string("no command ") + argv[1]);
  return found->second.run(std::vector<std::string>(argv + 2, argv + argc));
}
