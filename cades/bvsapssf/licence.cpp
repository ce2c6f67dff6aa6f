#include "licence.h"

#include "bvsapssf.h"

namespace bv {
namespace {
LicenceCheck g_licence_check = nullptr;  // none installed: the licence is granted
}

void set_licence_check_for_tests(LicenceCheck check) { g_licence_check = check; }
}  // namespace bv

int SSFAPICheckLicense() {
  if (bv::g_licence_check != nullptr) bv::g_licence_check();
  return 0;
}
