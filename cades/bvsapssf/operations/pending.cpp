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

SSF_RC SsfSign(const char*, int32_t, const char*, int32_t, SSF_BOOL, SSF_BOOL, const unsigned char*, int32_t,
               SsfInfoNode*, unsigned char** ostrSignedData, uint32_t* ostrSignedDataL) {
  *ostrSignedData = nullptr;
  *ostrSignedDataL = 0;
  return not_yet("SsfSign");
}

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

SSF_RC SsfDigest(const char*, int32_t, SSF_BOOL, const unsigned char*, int32_t, const char*, int32_t,
                 unsigned char**, uint32_t*) {
  return not_yet("SsfDigest");
}

}  // extern "C"

extern "C" {
SSF_RC SsfEncode(const char*, int32_t, const unsigned char*, int32_t, unsigned char**, uint32_t*) {
  return not_yet("SsfEncode");
}
SSF_RC SsfDecode(const char*, int32_t, const unsigned char*, int32_t, unsigned char**, uint32_t*) {
  return not_yet("SsfDecode");
}
SSF_RC SsfNEWSigRcpSsfInfo(const char*, int32_t, const char*, int32_t, const char*, int32_t, const char*, int32_t,
                           int32_t, SsfInfo** newInfo) {
  *newInfo = nullptr;
  return SSF_REC_NOMEMORY;
}
SSF_RC SsfDELSigRcpSsfInfo(SsfInfo**) { return SSF_REC_NULL_INFO; }
SSF_RC SsfINSSigRcpSsfInfo(SsfInfo*, SsfInfoNode**) { return SSF_REC_NULL_INFO; }
SSF_RC SsfDELSigRcpSsfInfoList(SsfInfoNode**) { return SSF_REC_NULL_LIST; }
SSF_RC SsfPRISigRcpSsfInfo(SsfInfo*, char**, uint32_t*) { return SSF_REC_NULL_INFO; }
SSF_RC SsfPRISigRcpSsfInfoList(SsfInfoNode*, char**, uint32_t*) { return SSF_REC_NULL_LIST; }
}
