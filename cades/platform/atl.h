// The one exception type of the platform's template library: it carries an
// HRESULT and nothing else.
#pragma once

#include "wintypes.h"

class CAtlException {
 public:
  explicit CAtlException(HRESULT hr) noexcept : m_hr(hr) {}
  operator HRESULT() const noexcept { return m_hr; }
  HRESULT m_hr;
};

[[noreturn]] inline void AtlThrow(HRESULT hr) { throw CAtlException(hr); }
