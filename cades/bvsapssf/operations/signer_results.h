// What verification leaves for each signer: its result record (identifier,
// signing time texts, certificate, result) in the caller's list, the signing
// time of a plain signer, and the search for a plain signer's certificate.
#pragma once

#include <cstdint>

#include "bvsapssf_api.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"

// The signing-time attribute of signer `signerIndex`, into `time`; `time`
// when it was read, else null (with an error line unless the signer simply
// has no signed attributes or an empty value).
FILETIME* getSigningTime(HCRYPTMSG message, DWORD signerIndex, FILETIME* time);

// Adds one record to the end of `list`.  `kind` 0: `signer` is a certificate
// context or null; otherwise a terminated name or null.  The record, owned
// by the list, or null when it could not be made or linked.
SsfInfo* addToSignerResultList(SsfInfoNode** list, const void* signer, int32_t kind, const FILETIME* signingTime,
                               const FILETIME* timestampTime, int32_t result);

// The certificate of the signer `signerId` names: among the message's
// certificates, in the store `strPab` names ("Addressbook" of the current
// user by default), then among the certificate values of its signers.  A
// context the caller frees, or null.
PCCERT_CONTEXT CryptGetSignerCertificateCallback(DWORD reserved, const CERT_INFO* signerId, HCRYPTMSG message,
                                                 const char* strPab, int32_t strPabL);
