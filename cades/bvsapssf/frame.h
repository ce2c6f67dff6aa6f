// What every export shares: the guard around its whole body; and what every
// message operation shares: the guarded block with its three exception
// clauses, and the report of a failed platform call.
#pragma once

#include <stdexcept>
#include <string>

#include "atl.h"
#include "bvsapssf_api.h"
#include "kernel32/kernel32.h"
#include "reporter.h"
#include "trace/trace.h"

namespace bv::frame {

// The length a field of a host's record is read with.  A record may be
// built by hand: a null pointer is an absent field, as length 0 makes it,
// whatever length stands beside it; a negative length keeps its meaning.
inline int32_t field_length(const char* field, int32_t length) {
  return field == nullptr && length > 0 ? 0 : length;
}

// Runs the whole body of an export.  An exception that no clause of the
// operation catches (one raised before its guarded block by a banner whose
// formatting fails or a string that can't be had, or one raised inside a
// clause) ends the export here with `silent_answer` and no further line:
// the trace may be what failed, and an exception must never reach the host.
template <typename Answer, typename Body>
Answer whole_export(Answer silent_answer, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return silent_answer;
  }
}

// "#error#: %08x" with the last error, then its text.  The caller writes the
// failure banner after releasing what it holds.
#define BV_TRACE_LAST_ERROR()                                 \
  do {                                                        \
    BV_TRACE(TRACE_NORMAL, "#error#: %08x\n", GetLastError()); \
    ReportError(trace_file, __LINE__, -1);                    \
  } while (0)

// "#info# SSFformat name ('...')." for a format name the host gave (a null
// name has none to show), as the signed-message operations open.
inline void trace_format_name(const char* trace_function, const char* strFormat, int32_t strFormatL) {
  constexpr const char* trace_file = "ssfxxmain";
  if (strFormatL <= 0 || strFormat == nullptr) return;
  const std::string format_name(strFormat, static_cast<size_t>(strFormatL));
  BV_TRACE(TRACE_NORMAL, "#info# SSFformat name ('%s').\n", format_name.c_str());
}

// The tail the CAtlException clause and the last clause share: the
// operation's exception line if it has one, the last error, the failure
// banner; 13.
inline SSF_RC shared_tail(const char* trace_function, const char* exception_line) {
  constexpr const char* trace_file = "ssfxxmain";
  if (exception_line != nullptr) BV_TRACE(TRACE_ALWAYS, "%s", exception_line);
  BV_TRACE_LAST_ERROR();
  BV_TRACE_FAILURE();
  return SSF_ERR_INTERNAL;
}

// Runs `body` inside the clauses every operation has: CAtlException and any
// other exception end in 13, std::runtime_error in 4.  `exception_line`, if
// not null, opens the shared tail (SsfVerify and SsfAddSign have one).
template <typename Body>
SSF_RC guarded(const char* trace_function, const char* exception_line, Body&& body) {
  constexpr const char* trace_file = "ssfxxmain";
  try {
    return body();
  } catch (const CAtlException& e) {
    SetLastError(static_cast<DWORD>(e.m_hr));
  } catch (const std::runtime_error&) {
    BV_TRACE_LAST_ERROR();
    BV_TRACE_FAILURE();
    return SSF_ERR_NOMEMORY;
  } catch (...) {
    SetLastError(static_cast<DWORD>(E_UNEXPECTED));
  }
  return shared_tail(trace_function, exception_line);
}

}  // namespace bv::frame
