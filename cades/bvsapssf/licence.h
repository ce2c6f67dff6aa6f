// The seam behind the licence gate.  The shipped library never installs a
// check (its symbols are hidden); tests linking the core install one that
// throws, to reach the refusal path of every operation.
#pragma once

namespace bv {
using LicenceCheck = void (*)();
void set_licence_check_for_tests(LicenceCheck check);
}  // namespace bv
