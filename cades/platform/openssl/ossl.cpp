#include "openssl/ossl.h"

#include <openssl/err.h>

#include <mutex>

#include "kernel32/kernel32.h"

namespace bv::ossl {

ENGINE* gost_engine() {
  static ENGINE* engine = [] {
    ENGINE_load_builtin_engines();
    ENGINE* e = ENGINE_by_id("gost");
    if (e == nullptr) {
      ERR_clear_error();
      return static_cast<ENGINE*>(nullptr);
    }
    if (ENGINE_init(e) != 1) {
      ENGINE_free(e);
      ERR_clear_error();
      return static_cast<ENGINE*>(nullptr);
    }
    // Key formats (GOST public keys in certificates, PKCS #8 keys) are found
    // through the engine table, so the engine registers its methods there.
    ENGINE_register_pkey_asn1_meths(e);
    ENGINE_register_pkey_meths(e);
    ENGINE_register_digests(e);
    ENGINE_register_ciphers(e);
    ENGINE_free(e);  // ENGINE_init holds the functional reference we keep
    ERR_clear_error();
    return e;
  }();
  return engine;
}

const EVP_MD* digest_by_nid(int nid) {
  if (ENGINE* e = gost_engine()) {
    if (const EVP_MD* md = ENGINE_get_digest(e, nid)) return md;
  }
  const EVP_MD* md = EVP_get_digestbynid(nid);
  ERR_clear_error();
  return md;
}

const EVP_CIPHER* cipher_by_nid(int nid) {
  if (ENGINE* e = gost_engine()) {
    if (const EVP_CIPHER* c = ENGINE_get_cipher(e, nid)) return c;
  }
  const EVP_CIPHER* c = EVP_get_cipherbynid(nid);
  ERR_clear_error();
  return c;
}

std::string take_error_text() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return {};
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

bool fail(DWORD win_error) {
  ERR_clear_error();
  SetLastError(win_error);
  return false;
}

time_t unix_time_of(const ASN1_TIME* time) {
  tm parts{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return 0;
  return timegm(&parts);
}

std::string sha1_of(X509* cert) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(cert, EVP_sha1(), md, &length) != 1) return {};
  return std::string(reinterpret_cast<char*>(md), length);
}

std::string sha1_of(X509_CRL* crl) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_CRL_digest(crl, EVP_sha1(), md, &length) != 1) return {};
  return std::string(reinterpret_cast<char*>(md), length);
}

bool VerifiedSignatures::known(const std::string& key) {
  std::lock_guard lock(mutex_);
  return good_.count(key) != 0;
}

void VerifiedSignatures::remember(const std::string& key) {
  std::lock_guard lock(mutex_);
  if (good_.size() >= limit_) good_.clear();
  good_.insert(key);
}

void VerifiedSignatures::clear() {
  std::lock_guard lock(mutex_);
  good_.clear();
}

}  // namespace bv::ossl
