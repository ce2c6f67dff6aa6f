#include "bvsapssf/bvsapssf.h"

#include "trace/trace.h"

Config::Config() = default;

void Config::print_Config() const {
  constexpr const char* trace_function = "Config::print_Config";
  constexpr const char* trace_file = "bvsapssf.h";
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: UserIdAsCertHash = %d\n", UserIdAsCertHash ? 1 : 0);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: VerifyCertFlags = %x\n", VerifyCertFlags);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: VerifyCertOnSign = %d\n", VerifyCertOnSign);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: AcceptableCertStatus = %x\n", AcceptableCertStatus);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: VerifyCertFlagsOnSelect = %x\n", VerifyCertFlagsOnSelect);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: globalAskPinWhenEmpty = %d\n", globalAskPinWhenEmpty ? 1 : 0);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: additionalTSP count = %d\n",
           static_cast<int>(additionalTSP.size()));
  for (const std::string& address : additionalTSP)
    BV_TRACE(TRACE_NORMAL, "#info#: bvsapssf parameters: additionalTSP  = %s\n", address.c_str());
}
