// The link between a certificate and its private key: a PKCS #8 file
// <certificate file stem>.key beside the certificate, encrypted under the
// PIN or plain.  Shared by CryptAcquireCertificatePrivateKey, the key
// services of advapi32 and bvstore.
#pragma once

#include <string>

#include "crypt32/store.h"
#include "kernel32/wide_text.h"  // utf8_of, utf16_of for paths and names

namespace bv::platform {

// Provider type for a public key algorithm OID: 75, 80, 81 for the GOST
// keys, 0 for any other.
DWORD provider_type_for_key(const std::string& key_oid);

// The provider's name of a type (the names CryptAcquireContextA knows).
const char* key_provider_name(DWORD type);

// The key provider information that the key file beside a certificate file
// stands for; false when there is none.
bool key_file_prov_info(const ParsedCertificate& certificate, KeyProvInfo& out);

// Overwrites the parameter data (PINs) of a held record.
void wipe_key_prov_info(KeyProvInfo& info);

enum class KeyFileResult { kOpened, kNeedsPin, kWrongPin, kUnreadable };

// Reads a key file: a plain PKCS #8 key opens without `pin`; an encrypted
// one needs it (null = none given).  PEM or DER.
KeyFileResult read_key_file(const std::string& path, const std::string* pin, bv::ossl::UniquePtr<EVP_PKEY>& key);

// Writes `key` as PKCS #8 PEM to `path` (mode 0600, atomically), encrypted
// with `pin` when it is not empty.
bool write_key_file(const std::string& path, EVP_PKEY* key, const std::string& pin);

// Whether `key` is the private half of the certificate's public key.
bool key_matches_certificate(EVP_PKEY* key, X509* certificate);

}  // namespace bv::platform
