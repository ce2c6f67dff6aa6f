// Operations whose bodies have not landed yet: each answers with its banners
// and SSF_ERR_INTERNAL.
#include "bvsapssf_api.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";

SSF_RC not_yet(const char* trace_function) {
  BV_TRACE_START();
  BV_TRACE_FAILURE();
  return SSF_ERR_INTERNAL;
}
}  // namespace

extern "C" {

SSF_RC SsfVerify(const char*, int32_t, SSF_BOOL, const unsigned char*, int32_t, const unsigned char*, int32_t,
                 const char*, int32_t, const char*, int32_t, SsfInfoNode**, unsigned char**, uint32_t*) {
  return not_yet("SsfVerify");
}

SSF_RC SsfEnvelope(const char*, int32_t, const char*, int32_t, const unsigned char*, int32_t, const char*, int32_t,
                   const char*, int32_t, SsfInfoNode*, unsigned char**, uint32_t*) {
  return not_yet("SsfEnvelope");
}

SSF_RC SsfDevelope(const char*, int32_t, const unsigned char*, int32_t, SsfInfo*, unsigned char** ostrOutputData,
                   uint32_t* ostrOutputDataL) {
  *ostrOutputData = nullptr;
  *ostrOutputDataL = 0;
  return not_yet("SsfDevelope");
}

SSF_RC SsfAddSign(const char*, int32_t, const char*, int32_t, SSF_BOOL, const unsigned char*, int32_t,
                  const unsigned char*, int32_t, SsfInfo*, unsigned char** ostrSignedDataOut,
                  uint32_t* ostrSignedDataOutL) {
  *ostrSignedDataOut = nullptr;
  *ostrSignedDataOutL = 0;
  return not_yet("SsfAddSign");
}

}  // extern "C"
