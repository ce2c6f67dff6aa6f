#include "trace/trace.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "atl.h"
#include "kernel32/kernel32.h"
#include "trace/output.h"
#include "trace/table.h"

uint32_t BVTraceGeneral = static_cast<uint32_t>(bv::trace::kNoId);
uint32_t BVTraceSnapin = static_cast<uint32_t>(bv::trace::kNoId);

namespace {

constexpr int kTruncated = 80;  // STRUNCATE: the part was cut, the line goes on

// After each formatted part errno tells how formatting went; anything but
// success or truncation becomes the platform's exception.
void react_to_errno(int saved) {
  switch (errno) {
    case 0:
      errno = saved;
      return;
    case kTruncated:
      return;
    case ENOMEM:
      throw CAtlException(E_OUTOFMEMORY);
    case EINVAL:
    case ERANGE:
      throw CAtlException(E_INVALIDARG);
    default:
      throw CAtlException(E_FAIL);
  }
}

// Every call site formats the thread id, passing line or not; ask the kernel
// once per thread, and again after a fork, where the caller's copy of the
// cached id would name the parent's thread.
unsigned g_fork_generation = 1;
const int g_fork_hook = pthread_atfork(nullptr, nullptr, [] { ++g_fork_generation; });

int current_thread_id() {
  thread_local int id = 0;
  thread_local unsigned generation = 0;
  if (generation != g_fork_generation) {
    id = static_cast<int>(syscall(SYS_gettid));
    generation = g_fork_generation;
  }
  return id;
}

const char* after_last_backslash(const char* file) {
  const char* cut = std::strrchr(file, '\\');
  return cut != nullptr ? cut + 1 : file;
}

bool line_passes(uint32_t category, uint32_t level) {
  using namespace bv::trace;
  ModuleRecord module{};
  CategoryRecord cat{};
  if (!read_module(module_id(), module) || !read_category(static_cast<int>(category), cat)) return false;
  const ProcessSettings process = read_process();
  if (process.enabled && module.status == kStatusInherit && cat.status == kStatusInherit &&
      level <= process.level)
    return true;
  if (module.status == kStatusEnabled && cat.status == kStatusInherit && level <= module.level) return true;
  return cat.status == kStatusEnabled && level <= cat.level;
}

// Appends one formatted part; false when the line is full or formatting
// failed, which ends the composition.
class LineBuffer {
 public:
  static constexpr size_t kLimit = 1023;

  bool append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    const bool ok = append_v(format, args);
    va_end(args);
    return ok;
  }

  bool append_v(const char* format, va_list args) {
    const size_t room = kLimit - used_;
    if (room == 0) return false;
    const int saved = errno;
    errno = 0;
    const int written = std::vsnprintf(text_ + used_, room + 1, format, args);
    if (written >= 0 && static_cast<size_t>(written) > room) {
      errno = kTruncated;
      used_ = kLimit;
      react_to_errno(saved);
      return false;
    }
    react_to_errno(saved);
    if (written < 0) {
      text_[used_] = '\0';
      return false;
    }
    used_ += static_cast<size_t>(written);
    return true;
  }

  const char* text() const { return text_; }
  size_t size() const { return used_; }

 private:
  char text_[kLimit + 1] = {};
  size_t used_ = 0;
};

}  // namespace

TraceSite::TraceSite(const char* function, const char* file, int line_no) : TraceSite(function, file) {
  line = static_cast<DWORD>(line_no);
}

TraceSite::TraceSite(const char* function, const char* file) : text(buffer), line(0) {
  const int saved = errno;
  errno = 0;
  std::snprintf(buffer, sizeof buffer, "{%d} /%s/ %s", current_thread_id(), function,
                after_last_backslash(file));
  buffer[sizeof buffer - 1] = '\0';
  if (errno == 0) errno = saved;
}

void TracePrint(const TraceSite& site, uint32_t category, uint32_t level, const char* format, ...) {
  const DWORD last_error = GetLastError();
  struct RestoreLastError {
    DWORD value;
    ~RestoreLastError() { SetLastError(value); }
  } restore{last_error};

  if (!line_passes(category, level)) return;

  using namespace bv::trace;
  ModuleRecord module{};
  read_module(module_id(), module);
  const ProcessSettings process = read_process();
  CategoryRecord cat{};
  const bool category_known = read_category(static_cast<int>(category), cat);

  LineBuffer line;
  bool more = line.append("%s: ", module.name);
  if (more && process.file_name_and_line_no) more = line.append("%s(%d) : ", site.text, static_cast<int>(site.line));
  if (more && process.func_and_category_names && category_known) more = line.append("%s: ", cat.name);
  if (more) {
    va_list args;
    va_start(args, format);
    line.append_v(format, args);
    va_end(args);
  }
  write_line(line.text(), line.size());
}
