// The one way the library writes a line: a call-site record built on the
// caller's stack, then TracePrint with a category and a level.
#pragma once

#include <cstdint>

#include "wintypes.h"

enum TraceLevel : uint32_t {
  TRACE_ALWAYS = 1,  // the failure banner
  TRACE_NORMAL = 2,  // banners, errors, warnings, reporter texts
  TRACE_INFO = 3,    // progress
  TRACE_DETAIL = 4,  // "#trace#" detail
};

struct TraceSite {
  // "{thread} /function/ file", with `file` cut after its last backslash.
  TraceSite(const char* function, const char* file, int line);
  TraceSite(const char* function, const char* file);

  const char* text;
  DWORD line;
  char buffer[260];
};

// Category ids, registered at load under this library's module.
extern uint32_t BVTraceGeneral;
extern uint32_t BVTraceSnapin;

// Keeps GetLastError() intact.  Raises CAtlException only when formatting a
// part of the line fails (see trace.cpp).
void TracePrint(const TraceSite& site, uint32_t category, uint32_t level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Call-site shorthand.  Each function that traces declares
//   constexpr const char* trace_function = "SsfSign";
//   constexpr const char* trace_file = "ssfxxmain";
// and then writes BV_TRACE(TRACE_NORMAL, "#info#: ...\n", ...).
#define BV_TRACE(level, ...)                                           \
  do {                                                                 \
    const TraceSite bv_trace_site_(trace_function, trace_file, __LINE__); \
    TracePrint(bv_trace_site_, BVTraceGeneral, (level), __VA_ARGS__);  \
  } while (0)

// The banners every operation writes.
#define BV_TRACE_START() BV_TRACE(TRACE_NORMAL, "****************#start#****************\n")
#define BV_TRACE_SUCCESS() BV_TRACE(TRACE_NORMAL, "++++++++++++++++#success#++++++++++++++++\n")
#define BV_TRACE_FAILURE() BV_TRACE(TRACE_ALWAYS, "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n")
