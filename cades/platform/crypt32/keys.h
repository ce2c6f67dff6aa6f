// The key link between a certificate and its private key: a PKCS #8 file
// <certificate file stem>.key beside the certificate, encrypted under the
// PIN or plain.  Shared by the stores (which note the link of each file),
// CryptAcquireCertificatePrivateKey and bvstore; it needs nothing of them.
#pragma once

#include <string>
#include <vector>

#include "kernel32/wide_text.h"  // utf8_of, utf16_of for paths and names
#include "openssl/ossl.h"
#include "wincrypt_types.h"

namespace bv::platform {

// Provider type for a public key algorithm OID: 75, 80, 81 for the GOST
// keys, 0 for any other.
DWORD provider_type_for_key(const std::string& key_oid);

// CRYPT_KEY_PROV_INFO held by value.
struct KeyProvInfo {
  struct Param {
    DWORD dwParam = 0;
    DWORD dwFlags = 0;
    bool has_data = false;
    std::vector<BYTE> data;
  };
  std::u16string container;  // the key file's path
  std::u16string provider;
  bool has_provider = false;
  DWORD dwProvType = 0;
  DWORD dwFlags = 0;
  DWORD dwKeySpec = 0;
  std::vector<Param> params;
};

// The key file that links to the certificate file `certificate_file` (a
// path or a bare file name): the same stem with ".key".
std::string key_file_for(const std::string& certificate_file);

// The key provider information that `key_file`, the key link of a
// certificate with the public key algorithm `key_oid`, stands for; false
// when there is none (`key_file` empty).
bool key_file_prov_info(const std::string& key_file, const std::string& key_oid, KeyProvInfo& out);

// Overwrites the parameter data (PINs) of a held record.
void wipe_key_prov_info(KeyProvInfo& info);

enum class KeyFileResult { kOpened, kNeedsPin, kWrongPin, kUnreadable };

// Reads a key file: a plain PKCS #8 key opens without `pin`; an encrypted
// one needs it (null = none given).  PEM or DER.
KeyFileResult read_key_file(const std::string& path, const std::string* pin, bv::ossl::UniquePtr<EVP_PKEY>& key);

// The key a PKCS #8 PrivateKeyInfo holds, converted without OpenSSL's
// decoders; null for none.
EVP_PKEY* key_of(const PKCS8_PRIV_KEY_INFO* info);

// The elliptic-curve parts of a key (the GOST keys): its private scalar,
// big-endian, and its public point, uncompressed.  Each returns the length
// written into `out`, 0 for another kind of key or too small a buffer.
size_t private_scalar(EVP_PKEY* key, unsigned char* out, size_t capacity);
size_t public_point(EVP_PKEY* key, unsigned char* out, size_t capacity);

// The key made of `scalar` and the group and public point of `public_key`
// (a certificate's), without computing the point from the scalar again:
// the GOST engine's own conversion does, and that is most of the cost of
// turning a kept key back into one.  The caller has proven the two belong
// together.  Null when `public_key` is not an elliptic-curve key.
EVP_PKEY* key_from_scalar(EVP_PKEY* public_key, const unsigned char* scalar, size_t length);

// Writes `key` as PKCS #8 PEM to `path` (mode 0600, atomically), encrypted
// with `pin` when it is not empty.
bool write_key_file(const std::string& path, EVP_PKEY* key, const std::string& pin);

// Whether `key` is the private half of the certificate's public key.
bool key_matches_certificate(EVP_PKEY* key, X509* certificate);

}  // namespace bv::platform
