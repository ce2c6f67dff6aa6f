// The time stamp authority of bvtsa: its certificate and key, the accepted
// hashes and policy, and the serial number file, over OpenSSL's TS API.
#pragma once

#include <string>

#include "openssl/ossl.h"

namespace bvtsa {

struct AuthoritySettings {
  std::string certificate_file;  // PEM or DER
  std::string key_file;          // PKCS #8, PEM or DER, encrypted under the PIN or plain
  const std::string* pin = nullptr;
  std::string chain_file;        // PEM; sent with the signer when a request asks for certificates
  std::string policy;            // OID of the policy every token names
  std::string serial_file;
};

// A reply and what the log line says of it.
struct Reply {
  std::string der;     // TimeStampResp
  std::string status;  // "granted", or e.g. "rejection:badAlg"
  std::string serial;  // the token's serial number in hexadecimal, "-" without a token
};

class TimeStampAuthority {
 public:
  // Throws std::runtime_error saying what is wrong with the files.
  explicit TimeStampAuthority(const AuthoritySettings& settings);
  TimeStampAuthority(const TimeStampAuthority&) = delete;
  TimeStampAuthority& operator=(const TimeStampAuthority&) = delete;

  // The reply to a DER TimeStampReq, a rejection when the request asks for
  // what this authority does not give; false only when no reply could be
  // made at all.
  bool reply(const std::string& request_der, Reply& out);

 private:
  static ASN1_INTEGER* next_serial(TS_RESP_CTX* context, void* authority);

  std::string serial_file_;
  bv::ossl::UniquePtr<X509> certificate_;
  bv::ossl::UniquePtr<EVP_PKEY> key_;
  bv::ossl::UniquePtr<STACK_OF(X509)> chain_;
  bv::ossl::UniquePtr<TS_RESP_CTX> context_;
};

// The last serial number issued, from `path` (hexadecimal digits on one
// line; a missing file is 0).  False when the file is there but unreadable.
bool read_serial_file(const std::string& path, bv::ossl::UniquePtr<BIGNUM>& serial);

}  // namespace bvtsa
