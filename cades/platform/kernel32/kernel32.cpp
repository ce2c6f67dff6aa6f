#include "kernel32/kernel32.h"

#include <iconv.h>
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "kernel32/message_texts.h"

namespace {
thread_local DWORD t_last_error = 0;

// Marks the one module handle this platform hands out besides null.
char g_wininet_module_tag;

// Made at the first use and freed when the library goes.
struct AnsiLocale {
  locale_t locale = nullptr;
  AnsiLocale() {
    for (const char* name : {"ru_RU.CP1251", "ru_RU.cp1251", "be_BY.CP1251", "bg_BG.CP1251", "uk_UA.CP1251"})
      if ((locale = newlocale(LC_ALL_MASK, name, nullptr)) != nullptr) return;
    // None on this system: the classic rules, as a process that never switched has.
    locale = newlocale(LC_ALL_MASK, "C", nullptr);
  }
  ~AnsiLocale() {
    if (locale != nullptr) freelocale(locale);
  }
};
}  // namespace

locale_t bv::platform::ansi_locale() {
  static const AnsiLocale owned;
  return owned.locale;
}

DWORD GetLastError() { return t_last_error; }
void SetLastError(DWORD error) { t_last_error = error; }

HLOCAL LocalAlloc(UINT /*flags*/, size_t bytes) { return std::calloc(1, bytes ? bytes : 1); }

HLOCAL LocalFree(HLOCAL memory) {
  std::free(memory);
  return nullptr;
}

HMODULE GetModuleHandleA(LPCSTR moduleName) {
  if (moduleName != nullptr && strcasecmp_l(moduleName, "wininet.dll", bv::platform::ansi_locale()) == 0)
    return &g_wininet_module_tag;
  SetLastError(ERROR_MOD_NOT_FOUND);
  return nullptr;
}

DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD /*languageId*/, LPSTR buffer,
                     DWORD size, va_list* /*arguments*/) {
  const char* text = nullptr;
  if ((flags & FORMAT_MESSAGE_FROM_HMODULE) != 0 && source == &g_wininet_module_tag) {
    text = bv::platform::wininet_message_text(messageId);
  } else if ((flags & FORMAT_MESSAGE_FROM_SYSTEM) != 0) {
    text = bv::platform::system_message_text(messageId);
  }
  if (text == nullptr) {
    SetLastError(317);  // ERROR_MR_MID_NOT_FOUND
    return 0;
  }
  const size_t length = std::strlen(text);
  if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
    auto* block = static_cast<char*>(LocalAlloc(0, length + 1));
    if (block == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    std::memcpy(block, text, length + 1);
    *reinterpret_cast<char**>(buffer) = block;
    return static_cast<DWORD>(length);
  }
  if (buffer == nullptr || size <= length) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(buffer, text, length + 1);
  return static_cast<DWORD>(length);
}

namespace {
SYSTEMTIME system_time_of(const tm& parts, WORD milliseconds) {
  SYSTEMTIME out{};
  out.wYear = static_cast<WORD>(parts.tm_year + 1900);
  out.wMonth = static_cast<WORD>(parts.tm_mon + 1);
  out.wDayOfWeek = static_cast<WORD>(parts.tm_wday);
  out.wDay = static_cast<WORD>(parts.tm_mday);
  out.wHour = static_cast<WORD>(parts.tm_hour);
  out.wMinute = static_cast<WORD>(parts.tm_min);
  out.wSecond = static_cast<WORD>(parts.tm_sec);
  out.wMilliseconds = milliseconds;
  return out;
}
}  // namespace

void SecureZeroMemory(void* destination, size_t length) {
  if (destination != nullptr && length != 0) explicit_bzero(destination, length);
}

void GetLocalTime(SYSTEMTIME* time) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  *time = system_time_of(local, static_cast<WORD>(now.tv_nsec / 1000000));
}

namespace {
// 100-ns intervals between 1601-01-01 and 1970-01-01.
constexpr uint64_t kEpochDifference = 116444736000000000ULL;

uint64_t to_u64(const FILETIME& t) { return (uint64_t{t.dwHighDateTime} << 32) | t.dwLowDateTime; }
FILETIME from_u64(uint64_t v) { return FILETIME{static_cast<DWORD>(v), static_cast<DWORD>(v >> 32)}; }

// Whole seconds since 1970 and the 100-ns rest of a FILETIME below 2^63,
// rounded down so that times before 1970 keep a positive rest.
struct UnixTime {
  time_t seconds;
  int64_t rest;
};
UnixTime unix_time_of(uint64_t ticks) {
  const int64_t since_epoch = static_cast<int64_t>(ticks) - static_cast<int64_t>(kEpochDifference);
  UnixTime t{static_cast<time_t>(since_epoch / 10000000), since_epoch % 10000000};
  if (t.rest < 0) {
    t.rest += 10000000;
    --t.seconds;
  }
  return t;
}

// FILETIME counts are signed on the platform: the top bit set is no time.
bool convertible(const FILETIME* time) { return time != nullptr && (time->dwHighDateTime & 0x80000000u) == 0; }
}  // namespace

// The zone's offset at that instant, as the C library knows it; TZ is only
// read.  A shift that leaves the FILETIME range fails.
BOOL FileTimeToLocalFileTime(const FILETIME* utc, FILETIME* local) {
  tm local_tm{};
  int64_t shifted = 0;
  if (!convertible(utc) || local == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const uint64_t ticks = to_u64(*utc);
  const time_t seconds = unix_time_of(ticks).seconds;
  if (localtime_r(&seconds, &local_tm) == nullptr ||
      __builtin_add_overflow(static_cast<int64_t>(ticks), static_cast<int64_t>(local_tm.tm_gmtoff) * 10000000, &shifted) ||
      shifted < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *local = from_u64(static_cast<uint64_t>(shifted));
  return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* time, SYSTEMTIME* system) {
  if (!convertible(time) || system == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const UnixTime t = unix_time_of(to_u64(*time));
  tm utc{};
  gmtime_r(&t.seconds, &utc);
  *system = system_time_of(utc, static_cast<WORD>(t.rest / 10000));
  return TRUE;
}

namespace {
const char* iconv_name(UINT codePage) {
  switch (codePage) {
    case CP_ACP:
    case CP_THREAD_ACP:
    case 1251:
      return "CP1251";
    case CP_UTF8:
      return "UTF-8";
    default:
      return nullptr;
  }
}

class Iconv {
 public:
  Iconv(const char* to, const char* from) : handle_(iconv_open(to, from)) {}
  ~Iconv() {
    if (ok()) iconv_close(handle_);
  }
  Iconv(const Iconv&) = delete;
  Iconv& operator=(const Iconv&) = delete;
  bool ok() const { return handle_ != reinterpret_cast<iconv_t>(-1); }
  // Converts all of `in`; unconvertible input becomes '?'-like replacement by
  // skipping, as the platform does with its default character.
  bool convert(const char* in, size_t in_bytes, std::string& out) {
    out.clear();
    char chunk[256];
    char* src = const_cast<char*>(in);
    while (in_bytes > 0) {
      char* dst = chunk;
      size_t room = sizeof chunk;
      const size_t rc = iconv(handle_, &src, &in_bytes, &dst, &room);
      out.append(chunk, sizeof chunk - room);
      if (rc == static_cast<size_t>(-1) && errno != E2BIG) return false;
    }
    return true;
  }

 private:
  iconv_t handle_;
};
}  // namespace

int MultiByteToWideChar(UINT codePage, DWORD /*flags*/, LPCSTR text, int textLength, LPWSTR wide,
                        int wideLength) {
  const char* from = iconv_name(codePage);
  if (from == nullptr || text == nullptr || wideLength < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const size_t bytes = textLength < 0 ? std::strlen(text) + 1 : static_cast<size_t>(textLength);
  const bv::platform::ScopedAnsiLocale code_page_rules;
  Iconv cd("UTF-16LE", from);
  std::string converted;
  if (!cd.ok() || !cd.convert(text, bytes, converted)) {
    SetLastError(1113);  // ERROR_NO_UNICODE_TRANSLATION
    return 0;
  }
  const int units = static_cast<int>(converted.size() / 2);
  if (wideLength == 0) return units;
  if (units > wideLength) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(wide, converted.data(), converted.size());
  return units;
}

int WideCharToMultiByte(UINT codePage, DWORD /*flags*/, LPCWSTR wide, int wideLength, LPSTR text,
                        int textLength, LPCSTR /*defaultChar*/, BOOL* usedDefaultChar) {
  const char* to = iconv_name(codePage);
  if (to == nullptr || wide == nullptr || textLength < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  size_t units = 0;
  if (wideLength < 0) {
    while (wide[units] != 0) ++units;
    ++units;
  } else {
    units = static_cast<size_t>(wideLength);
  }
  // Transliteration follows the thread's locale: the library's own here.
  const bv::platform::ScopedAnsiLocale code_page_rules;
  std::string target = std::string(to) + "//TRANSLIT";
  Iconv cd(target.c_str(), "UTF-16LE");
  std::string converted;
  if (!cd.ok() || !cd.convert(reinterpret_cast<const char*>(wide), units * 2, converted)) {
    SetLastError(1113);
    return 0;
  }
  if (usedDefaultChar != nullptr) *usedDefaultChar = FALSE;
  const int bytes = static_cast<int>(converted.size());
  if (textLength == 0) return bytes;
  if (bytes > textLength) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(text, converted.data(), converted.size());
  return bytes;
}
