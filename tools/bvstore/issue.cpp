// Keys, certificates and CRLs made with OpenSSL and the GOST engine.
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "bvstore.h"

namespace bvstore {
namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw Failure{what + ": " + bv::ossl::take_error_text()};
}

void add_extension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer != nullptr ? issuer : certificate, certificate, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()), X509_EXTENSION_free);
  check(extension != nullptr, "extension " + value);
  check(X509_add_ext(certificate, extension.get(), -1) == 1, "adding extension");
}

}  // namespace

bv::ossl::UniquePtr<EVP_PKEY> generate_key(const std::string& kind) {
  ENGINE* engine = bv::ossl::gost_engine();
  check(engine != nullptr, "the GOST engine is not installed");
  int nid = NID_undef;
  if (kind == "gost2001") nid = NID_id_GostR3410_2001;
  if (kind == "gost2012_256") nid = NID_id_GostR3410_2012_256;
  if (kind == "gost2012_512") nid = NID_id_GostR3410_2012_512;
  if (nid == NID_undef) throw Failure{"unknown key kind " + kind};
  bv::ossl::UniquePtr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(nid, engine));
  check(context && EVP_PKEY_keygen_init(context.get()) == 1, "key generation");
  check(EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", "A") > 0, "parameter set A");
  EVP_PKEY* key = nullptr;
  check(EVP_PKEY_keygen(context.get(), &key) == 1, "key generation");
  return bv::ossl::UniquePtr<EVP_PKEY>(key);
}

const EVP_MD* digest_for_key(EVP_PKEY* key) {
  switch (EVP_PKEY_get_base_id(key)) {
    case NID_id_GostR3410_2001:
      return bv::ossl::digest_by_nid(NID_id_GostR3411_94);
    case NID_id_GostR3410_2012_256:
      return bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256);
    case NID_id_GostR3410_2012_512:
      return bv::ossl::digest_by_nid(NID_id_GostR3411_2012_512);
    default:
      return EVP_sha256();
  }
}

bv::ossl::UniquePtr<X509> issue_certificate(const CertificateRequest& request, EVP_PKEY* key, X509* issuer,
                                             EVP_PKEY* issuer_key) {
  bv::ossl::UniquePtr<X509> certificate(X509_new());
  check(certificate != nullptr, "certificate");
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), request.serial);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  for (const auto& [field, value] : request.subject) {
    // Country is a PrintableString, the Russian numbers NumericString, the rest UTF-8.
    int type = MBSTRING_UTF8;
    bv::ossl::UniquePtr<ASN1_OBJECT> object(OBJ_txt2obj(field.c_str(), 0));
    check(object != nullptr, "attribute " + field);
    const int nid = OBJ_obj2nid(object.get());
    if (nid == NID_countryName) {
      type = V_ASN1_PRINTABLESTRING;
    } else if (field.rfind("1.2.643.", 0) == 0) {
      type = V_ASN1_NUMERICSTRING;
    } else if (nid == NID_pkcs9_emailAddress) {
      type = V_ASN1_IA5STRING;
    }
    std::unique_ptr<X509_NAME_ENTRY, decltype(&X509_NAME_ENTRY_free)> entry(
        X509_NAME_ENTRY_create_by_OBJ(nullptr, object.get(), type, reinterpret_cast<const unsigned char*>(value.data()),
                                      static_cast<int>(value.size())),
        X509_NAME_ENTRY_free);
    check(entry && X509_NAME_add_entry(subject, entry.get(), -1, 0) == 1, "name attribute " + field);
  }
  check(X509_set_issuer_name(certificate.get(), issuer != nullptr ? X509_get_subject_name(issuer) : subject) == 1,
        "issuer name");
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), request.not_before_offset_days * 86400L);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), (request.not_before_offset_days + request.days) * 86400L);
  check(X509_set_pubkey(certificate.get(), key) == 1, "public key");

  add_extension(certificate.get(), issuer, NID_basic_constraints, request.ca ? "critical,CA:TRUE" : "CA:FALSE");
  if (!request.key_usage.empty()) add_extension(certificate.get(), issuer, NID_key_usage, "critical," + request.key_usage);
  if (!request.extended_key_usage.empty())
    add_extension(certificate.get(), issuer, NID_ext_key_usage, request.extended_key_usage);
  add_extension(certificate.get(), issuer, NID_subject_key_identifier, "hash");
  if (issuer != nullptr) add_extension(certificate.get(), issuer, NID_authority_key_identifier, "keyid:always");
  if (!request.crl_url.empty()) add_extension(certificate.get(), issuer, NID_crl_distribution_points, "URI:" + request.crl_url);
  if (!request.ocsp_url.empty())
    add_extension(certificate.get(), issuer, NID_info_access, "OCSP;URI:" + request.ocsp_url);

  EVP_PKEY* signing_key = issuer_key != nullptr ? issuer_key : key;
  check(X509_sign(certificate.get(), signing_key, digest_for_key(signing_key)) > 0, "signing the certificate");
  return certificate;
}

bv::ossl::UniquePtr<X509_CRL> issue_crl(X509* issuer, EVP_PKEY* issuer_key, const std::vector<long>& revoked,
                                        int days) {
  bv::ossl::UniquePtr<X509_CRL> crl(X509_CRL_new());
  check(crl != nullptr, "CRL");
  X509_CRL_set_version(crl.get(), 1);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer));
  bv::ossl::UniquePtr<ASN1_STRING> now(ASN1_TIME_adj(nullptr, time(nullptr), -1, 0));
  bv::ossl::UniquePtr<ASN1_STRING> next(ASN1_TIME_adj(nullptr, time(nullptr), days, 0));
  X509_CRL_set1_lastUpdate(crl.get(), now.get());
  X509_CRL_set1_nextUpdate(crl.get(), next.get());
  for (long serial : revoked) {
    X509_REVOKED* entry = X509_REVOKED_new();
    bv::ossl::UniquePtr<ASN1_STRING> number(ASN1_INTEGER_new());
    ASN1_INTEGER_set(number.get(), serial);
    X509_REVOKED_set_serialNumber(entry, number.get());
    X509_REVOKED_set_revocationDate(entry, now.get());
    X509_CRL_add0_revoked(crl.get(), entry);
  }
  X509_CRL_sort(crl.get());
  check(X509_CRL_sign(crl.get(), issuer_key, digest_for_key(issuer_key)) > 0, "signing the CRL");
  return crl;
}

void make_folders(const std::string& path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    const std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) throw Failure{"cannot create " + part};
    if (at == std::string::npos) break;
  }
}

// Written beside and renamed into place, so a reader of the store never
// sees half a certificate.
void write_der_certificate(const std::string& path, X509* certificate) {
  const std::string temporary = path + ".tmp";
  {
    bv::ossl::UniquePtr<BIO> out(BIO_new_file(temporary.c_str(), "wb"));
    check(out && i2d_X509_bio(out.get(), certificate) == 1 && BIO_flush(out.get()) == 1, "writing " + path);
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw Failure{"cannot write " + path};
  }
}

void write_der_crl(const std::string& path, X509_CRL* crl) {
  bv::ossl::UniquePtr<BIO> out(BIO_new_file(path.c_str(), "wb"));
  check(out && i2d_X509_CRL_bio(out.get(), crl) == 1, "writing " + path);
}

std::string certificate_hash(X509* certificate) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(certificate, &der);
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(der, static_cast<size_t>(length), digest);
  OPENSSL_free(der);
  std::string text;
  char pair[3];
  for (unsigned char byte : digest) {
    std::snprintf(pair, sizeof pair, "%02X", byte);
    text += pair;
  }
  return text;
}

}  // namespace bvstore
