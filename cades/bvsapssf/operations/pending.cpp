// The operation whose body has not landed yet: it answers with its banners
// and SSF_ERR_INTERNAL, after refusing a null place for its answer as the
// finished operations do.
#include "bvsapssf_api.h"
#include "frame.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";

SSF_RC not_yet(const char* trace_function, bool answer_has_a_place) {
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    BV_TRACE_START();
    if (!answer_has_a_place) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    BV_TRACE_FAILURE();
    return SSF_ERR_INTERNAL;
  });
}

// Cleared before the start banner, where the host gave a place.
bool clear_output(unsigned char** data, uint32_t* length) {
  if (data != nullptr) *data = nullptr;
  if (length != nullptr) *length = 0;
  return data != nullptr && length != nullptr;
}
}  // namespace

extern "C" {

SSF_RC SsfAddSign(const char*, int32_t, const char*, int32_t, SSF_BOOL, const unsigned char*, int32_t,
                  const unsigned char*, int32_t, SsfInfo*, unsigned char** ostrSignedDataOut,
                  uint32_t* ostrSignedDataOutL) {
  return not_yet("SsfAddSign", clear_output(ostrSignedDataOut, ostrSignedDataOutL));
}

}  // extern "C"
