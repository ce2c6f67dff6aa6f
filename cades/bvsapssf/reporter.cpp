#include "reporter.h"

#include <cstdlib>
#include <cstring>

#include "kernel32/kernel32.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";

// Stays clear: nothing selects the localised name, so every line says
// "PrintString".
bool g_print_string_localized = false;

constexpr int32_t kUnknownErrorCode = 149;
constexpr int32_t kBelowRangeCode = 0x20000070;
constexpr int32_t kNoMemoryCode = 0x20000064;

bool is_wininet_error(DWORD error) { return error >= 12000 && error <= 12174; }
}  // namespace

void PrintString(const char* text) {
  const char* trace_function = g_print_string_localized ? "PrintStringLocalized" : "PrintString";
  BV_TRACE(TRACE_NORMAL, text, "");
}

void print_last_error_text(DWORD error) {
  if (error == 0) return;
  HMODULE module = nullptr;
  DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM;
  if (is_wininet_error(error)) {
    module = GetModuleHandleA("wininet.dll");
    flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE;
  }
  char* text = nullptr;
  const DWORD count = FormatMessageA(flags, module, error, 1024, reinterpret_cast<LPSTR>(&text), 0, nullptr);
  if (count != 0 || text != nullptr) {
    PrintString(text);
    LocalFree(text);
  } else {
    const int row = bv::catalogue::row_of(kUnknownErrorCode);
    PrintString(bv::catalogue::kRowsTable[row].russian);
  }
}

int32_t ReportError(const char* /*file*/, int /*line*/, int32_t code) {
  if (code == 0) return 0;
  if (code == -1) {
    const DWORD error = GetLastError();
    if (error == 0) return 0;
    print_last_error_text(error);
    return static_cast<int32_t>(error);
  }
  for (;;) {
    // Below 100 (negative values included, the sign survives the clearing of
    // the marker) and past the last page, the code falls back to a row that
    // exists, so the loop ends.
    const int32_t value = code & ~bv::catalogue::kMarker;
    const int row = value < 100 ? -1 : bv::catalogue::row_of(value);
    if (row < 0) {
      code = kBelowRangeCode;
      continue;
    }
    // Both texts are copied; only the Russian one is printed, whatever the
    // locale.
    char* russian = static_cast<char*>(std::malloc(200));
    char* english = static_cast<char*>(std::malloc(200));
    if (russian == nullptr || english == nullptr) {
      std::free(russian);
      std::free(english);
      code = kNoMemoryCode;
      continue;
    }
    std::memset(russian, 0, 200);
    std::memset(english, 0, 200);
    std::strcpy(russian, bv::catalogue::kRowsTable[row].russian);
    std::strcpy(english, bv::catalogue::kRowsTable[row].english);
    PrintString(russian);
    std::free(russian);
    std::free(english);
    return code;
  }
}
