#include "trace/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kernel32/kernel32.h"

namespace bv::trace {
namespace {
int g_log_fd = -1;  // opened at load, then only read
int g_module_id = -1;
}  // namespace

bool open_log_file(const char* path) {
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  ::lseek(fd, 0, SEEK_END);
  if (g_log_fd >= 0) ::close(g_log_fd);
  g_log_fd = fd;
  return true;
}

void close_log_file() {
  if (g_log_fd >= 0) ::close(g_log_fd);
  g_log_fd = -1;
}

bool log_file_open() { return g_log_fd >= 0; }

void write_line(const char* text, size_t length) {
  if (g_log_fd < 0) {
    // The debug output: one write, so that lines of two threads stay whole.
    ssize_t ignored = ::write(STDERR_FILENO, text, length);
    (void)ignored;
    return;
  }
  SYSTEMTIME now{};
  GetLocalTime(&now);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d/%02d/%02d %02d:%02d:%02d : ", now.wYear, now.wMonth, now.wDay,
                now.wHour, now.wMinute, now.wSecond);
  std::string line(stamp);
  line.reserve(line.size() + length + 16);
  for (size_t i = 0; i < length; ++i) {
    if (text[i] == '\n') line.push_back('\r');
    line.push_back(text[i]);
  }
  ::lseek(g_log_fd, 0, SEEK_END);
  ssize_t ignored = ::write(g_log_fd, line.data(), line.size());
  (void)ignored;
}

void set_module_identity(int module_id) { g_module_id = module_id; }
int module_id() { return g_module_id; }

}  // namespace bv::trace
