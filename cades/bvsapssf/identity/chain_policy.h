// The chain policy of the signing side and of verification: the chain
// service's error status for one certificate, and the one acceptance test
// every caller applies to it.
#pragma once

#include <cstdint>

#include "crypt32/cert.h"

// 0 when the chain service answered, whatever the chain's status (written to
// *status); otherwise what the reporter makes of the service's error, with
// *status 0x40 (revocation unknown).
int32_t VerifyCertificate(PCCERT_CONTEXT cert, DWORD flags, DWORD* status);

// A certificate passes when the chain was built and its status is clean or
// shares at least one bit with Config's AcceptableCertStatus.  One common
// bit is enough, whatever else is set: that looseness is the setting's
// documented meaning.
bool certificate_status_acceptable(int32_t verify_result, DWORD status);
