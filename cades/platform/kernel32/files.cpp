#include "kernel32/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace bv::platform {

std::string read_whole_file(const std::string& path) {
  std::string bytes;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return bytes;
  char buffer[16384];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    bytes.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return bytes;
}

int replace_file(const std::string& path, std::string_view bytes, mode_t mode) {
  const std::string temporary = path + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return errno;
  int error = 0;
  for (size_t written = 0; written < bytes.size() && error == 0;) {
    const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) error = n < 0 ? errno : EIO;
    else written += static_cast<size_t>(n);
  }
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(temporary.c_str());
  return error;
}

int make_directories(const std::string& path, mode_t mode) {
  if (path.empty()) return ENOENT;
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string step = path.substr(0, slash);
    if (mkdir(step.c_str(), mode) != 0 && errno != EEXIST) return errno;
    if (slash == std::string::npos) break;
  }
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return errno;
  return S_ISDIR(info.st_mode) ? 0 : ENOTDIR;
}

}  // namespace bv::platform
