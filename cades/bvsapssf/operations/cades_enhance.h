// One attempt to raise every signature of an encoded CAdES message to
// CAdES-X Long Type 1 with one time stamp service.
#pragma once

#include <cstdint>
#include <vector>

#include "cadesmsg/cadesmsg.h"
#include "wintypes.h"

// A time stamp service's address as the CAdES requests take it: a wide
// text, converted with the calling thread's ANSI code page.
class TspConnection {
 public:
  // Points `para` at the address `tsp`; null leaves it at the default.
  void point(CadesSignPara& para, const char* tsp);

 private:
  std::vector<WCHAR> address_;
  CadesServiceConnectionPara connection_{};
};

// `data`/`dataLen`: the message; on success they hold a new malloc block
// (the old one is released) and its length.  `tsp` null: the CAdES library's
// default service.  Returns 0, or the last error of the failure; traces
// nothing.  A failure leaves `data` and `dataLen` as they were.
DWORD cades_enhance_message(unsigned char** data, uint32_t* dataLen, const char* tsp);
