#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "bvssf.h"

namespace bvssf {
namespace {

std::map<std::string, Command>& commands() {
  static std::map<std::string, Command> table;
  return table;
}

std::string library_path() {
  if (const char* path = std::getenv("BVSSF_LIBRARY")) return path;
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir.resize(dir.rfind('/') + 1);
    return dir + "libbvsapssf.so";
  }
  return "libbvsapssf.so";
}

[[noreturn]] void die(const std::string& message) {
  std::fprintf(stderr, "bvssf: %s\n", message.c_str());
  std::exit(2);
}

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
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) die("cannot read " + path + ": " + std::strerror(errno));
  struct stat info {};
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
    void* mapping = mmap(nullptr, static_cast<size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapping != MAP_FAILED) {
      mapping_ = mapping;
      data_ = static_cast<const char*>(mapping);
      size_ = static_cast<size_t>(info.st_size);
      close(fd);
      return;
    }
  }
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) die("cannot read " + path + ": " + std::strerror(errno));
    if (got == 0) break;
    read_.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  data_ = read_.data();
  size_ = read_.size();
}

InputFile::~InputFile() {
  if (mapping_ != nullptr) munmap(mapping_, size_);
}

void write_file(const std::string& path, const unsigned char* data, uint32_t length) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) die("cannot write " + path);
  out.write(reinterpret_cast<const char*>(data), length);
  if (!out) die("cannot write " + path);
}

int report(SSF_RC rc) {
  std::printf("%s (%u)\n", rc_name(rc).c_str(), rc);
  return rc == SSF_OK ? 0 : 1;
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

}  // namespace bvssf

namespace {
int usage() {
  std::fprintf(stderr, "usage: bvssf COMMAND [ARGUMENTS]\n\ncommands:\n");
  for (const auto& [name, command] : bvssf::commands())
    std::fprintf(stderr, "  %s %s\n      %s\n", name.c_str(), command.usage, command.help);
  std::fprintf(stderr, "\nThe library is $BVSSF_LIBRARY, else libbvsapssf.so beside bvssf.\n");
  return 2;
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const auto found = bvssf::commands().find(argv[1]);
  if (found == bvssf::commands().end()) return usage();
  return found->second.run(std::vector<std::string>(argv + 2, argv + argc));
}
