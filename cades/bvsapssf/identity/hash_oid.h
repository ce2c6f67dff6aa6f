// From a certificate's public key OID to the hash that signs with it.
#pragma once

#include <string>

#include "crypt32/oidinfo.h"

// The platform's hash record for a signature key OID, or null.  The record
// belongs to the platform's table; the caller reads pszOID and keeps it.
PCCRYPT_OID_INFO find_hash_oid_info(const char* keyOid);

// The hash ALG_ID of a GOST signature key OID, 0 for any other OID.
ALG_ID hash_algid_for_key_oid(const char* keyOid);

// One enumeration's test of a record: true to go on, false to stop.
class OidInfoMatcher {
 public:
  virtual bool match(PCCRYPT_OID_INFO info) = 0;
  virtual ~OidInfoMatcher() = default;
};

// Finds the public key record of an OID whose ALG_ID is of the signature
// class.
class PubKeyOidMatcher : public OidInfoMatcher {
 public:
  explicit PubKeyOidMatcher(const char* wanted) : oid(wanted) {}
  bool match(PCCRYPT_OID_INFO info) override;

  std::string oid;
  ALG_ID algId = 0;
  DWORD classMask = 0x2000;  // ALG_CLASS_SIGNATURE
  PCCRYPT_OID_INFO info = nullptr;
};

// Finds the signature record whose public key ALG_ID (first DWORD of
// ExtraInfo) is the wanted one.
class SignAlgMatcher : public OidInfoMatcher {
 public:
  explicit SignAlgMatcher(ALG_ID wanted) : algId(wanted) {}
  bool match(PCCRYPT_OID_INFO info) override;

  ALG_ID algId;
  PCCRYPT_OID_INFO info = nullptr;
};

// The CryptEnumOIDInfo callback: `matcher` is an OidInfoMatcher.
BOOL oid_enum_callback(PCCRYPT_OID_INFO info, void* matcher);
