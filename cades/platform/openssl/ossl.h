// Owning handles for OpenSSL objects, the library's GOST engine, and the one
// place where OpenSSL's error queue becomes the thread's last error.
#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/engine.h>
#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/pkcs12.h>
#include <openssl/ts.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "wintypes.h"

namespace bv::ossl {

template <typename T>
struct Deleter;

#define BV_OSSL_DELETER(type, free_fn)                   \
  template <>                                            \
  struct Deleter<type> {                                 \
    void operator()(type* p) const noexcept { free_fn(p); } \
  }

BV_OSSL_DELETER(BIO, BIO_free_all);
BV_OSSL_DELETER(EVP_PKEY, EVP_PKEY_free);
BV_OSSL_DELETER(EVP_PKEY_CTX, EVP_PKEY_CTX_free);
BV_OSSL_DELETER(EVP_MD_CTX, EVP_MD_CTX_free);
BV_OSSL_DELETER(EVP_CIPHER_CTX, EVP_CIPHER_CTX_free);
BV_OSSL_DELETER(X509, X509_free);
BV_OSSL_DELETER(X509_CRL, X509_CRL_free);
BV_OSSL_DELETER(X509_STORE, X509_STORE_free);
BV_OSSL_DELETER(X509_STORE_CTX, X509_STORE_CTX_free);
BV_OSSL_DELETER(X509_NAME, X509_NAME_free);
BV_OSSL_DELETER(X509_PUBKEY, X509_PUBKEY_free);
BV_OSSL_DELETER(BUF_MEM, BUF_MEM_free);
BV_OSSL_DELETER(X509_ALGOR, X509_ALGOR_free);
BV_OSSL_DELETER(CMS_ContentInfo, CMS_ContentInfo_free);
BV_OSSL_DELETER(ASN1_OBJECT, ASN1_OBJECT_free);
BV_OSSL_DELETER(ASN1_STRING, ASN1_STRING_free);  // also ASN1_INTEGER, ASN1_OCTET_STRING, ASN1_TIME
BV_OSSL_DELETER(ASN1_TYPE, ASN1_TYPE_free);
BV_OSSL_DELETER(BIGNUM, BN_free);
BV_OSSL_DELETER(PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free);
BV_OSSL_DELETER(X509_SIG, X509_SIG_free);
BV_OSSL_DELETER(OCSP_REQUEST, OCSP_REQUEST_free);
BV_OSSL_DELETER(OCSP_RESPONSE, OCSP_RESPONSE_free);
BV_OSSL_DELETER(OCSP_BASICRESP, OCSP_BASICRESP_free);
BV_OSSL_DELETER(OCSP_CERTID, OCSP_CERTID_free);
BV_OSSL_DELETER(PKCS7, PKCS7_free);
BV_OSSL_DELETER(TS_REQ, TS_REQ_free);
BV_OSSL_DELETER(TS_RESP, TS_RESP_free);
BV_OSSL_DELETER(TS_TST_INFO, TS_TST_INFO_free);
BV_OSSL_DELETER(TS_MSG_IMPRINT, TS_MSG_IMPRINT_free);
BV_OSSL_DELETER(TS_VERIFY_CTX, TS_VERIFY_CTX_free);
BV_OSSL_DELETER(TS_RESP_CTX, TS_RESP_CTX_free);
BV_OSSL_DELETER(PKCS12, PKCS12_free);
BV_OSSL_DELETER(NAME_CONSTRAINTS, NAME_CONSTRAINTS_free);
BV_OSSL_DELETER(X509_EXTENSION, X509_EXTENSION_free);
BV_OSSL_DELETER(EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free);  // a STACK_OF(ASN1_OBJECT)
BV_OSSL_DELETER(ENGINE, ENGINE_free);
#undef BV_OSSL_DELETER

template <>
struct Deleter<STACK_OF(X509)> {
  void operator()(STACK_OF(X509) * p) const noexcept { sk_X509_pop_free(p, X509_free); }
};
template <>
struct Deleter<STACK_OF(X509_CRL)> {
  void operator()(STACK_OF(X509_CRL) * p) const noexcept { sk_X509_CRL_pop_free(p, X509_CRL_free); }
};
template <>
struct Deleter<STACK_OF(DIST_POINT)> {
  void operator()(STACK_OF(DIST_POINT) * p) const noexcept { sk_DIST_POINT_pop_free(p, DIST_POINT_free); }
};
template <>
struct Deleter<STACK_OF(OPENSSL_STRING)> {  // as X509_get1_ocsp gives it
  void operator()(STACK_OF(OPENSSL_STRING) * p) const noexcept { X509_email_free(p); }
};

template <typename T>
using UniquePtr = std::unique_ptr<T, Deleter<T>>;

// The GOST engine, loaded once by the library itself (no openssl.cnf needed)
// and registered for its key and algorithm methods.  Null if the engine is
// not installed; callers then fail with NTE_BAD_ALGID-like errors of their own.
ENGINE* gost_engine();

// Looks up a digest by OpenSSL name or NID, the GOST ones through the engine.
const EVP_MD* digest_by_nid(int nid);
const EVP_CIPHER* cipher_by_nid(int nid);

// The text of the first error on OpenSSL's queue (for trace lines), emptying
// the queue.  Empty if the queue was empty.
std::string take_error_text();

// The octets of an OCTET STRING (or any string), borrowed.
inline std::string_view bytes_of(const ASN1_STRING* value) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)), static_cast<size_t>(ASN1_STRING_length(value))};
}

// DER of an OpenSSL object through its i2d function, empty on failure.
template <typename Object, typename Encode>
std::string der_of(const Object* object, Encode encode) {
  unsigned char* der = nullptr;
  const int length = encode(object, &der);
  std::string out;
  if (length > 0) out.assign(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return out;
}

// Sets the thread's last error to `win_error` and empties OpenSSL's queue.
// Returns false so call sites can write `return fail(NTE_BAD_SIGNATURE);`.
bool fail(DWORD win_error);

// Seconds since 1970 of an ASN.1 time; 0 for none or one that can't be read.
time_t unix_time_of(const ASN1_TIME* time);

// SHA-1 of the encoding, as raw bytes; empty if it could not be had.
std::string sha1_of(X509* cert);
std::string sha1_of(X509_CRL* crl);

// Signature checks that succeeded in this process, keyed by the SHA-1 of the
// signed object and of its signer: building the same chains or reading the
// same CRLs again then costs no public key operation.  Failures are not
// kept.  Thread-safe; forgets everything once `limit` keys are held.
class VerifiedSignatures {
 public:
  explicit VerifiedSignatures(size_t limit) : limit_(limit) {}
  // Whether `verify` succeeded for this pair before, or does now.
  template <typename Object, typename Verify>
  bool check(Object* object, X509* signer, Verify&& verify) {
    const std::string key = sha1_of(object) + sha1_of(signer);
    if (known(key)) return true;
    const bool good = verify();
    ERR_clear_error();
    if (good) remember(key);
    return good;
  }
  void clear();

 private:
  bool known(const std::string& key);
  void remember(const std::string& key);

  size_t limit_;
  std::mutex mutex_;
  std::set<std::string> good_;
};

}  // namespace bv::ossl
