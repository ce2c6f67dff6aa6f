// The marker "$SELECT_CERTIFICATE$" as an identity: the user picks one of
// the store's usable certificates, and the record's identity becomes that
// certificate's hash text.
#pragma once

#include <cstdint>

#include "crypt32/cert.h"

// `strSigRcpId` must be a malloc block (it may be reallocated).  Any failure
// leaves the identity as it was, and the search then refuses the marker.
void select_certificate_from_list_if_needed(HCERTSTORE store, char** strSigRcpId, int32_t* strSigRcpIdL);
