#include "certificate_factory.h"

#include <openssl/cms.h>
#include <openssl/pem.h>

#include <stdexcept>


namespace bv::pki {
namespace {

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + ": " + bv::ossl::take_error_text());
}

void add_extension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer != nullptr ? issuer : certificate, certificate, nullptr, nullptr, 0);
  UniquePtr<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  check(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "extension " + value);
}

template <class T>
std::string encoded(T* object, int (*i2d)(const T*, unsigned char**)) {
  unsigned char* der = nullptr;
  const int length = i2d(object, &der);
  check(length > 0, "encoding");
  std::string out(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return out;
}

template <class Write>
std::string pem_with(Write write) {
  UniquePtr<BIO> bio(BIO_new(BIO_s_mem()));
  check(bio && write(bio.get()) == 1, "PEM");
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

UniquePtr<ASN1_TIME> time_from_now(long seconds) { return UniquePtr<ASN1_TIME>(X509_gmtime_adj(nullptr, seconds)); }

}  // namespace

const EVP_MD* digest_for_key(EVP_PKEY* key) {
  switch (EVP_PKEY_get_base_id(key)) {
    case NID_id_GostR3410_2001:
      return bv::ossl::digest_by_nid(NID_id_GostR3411_94);
    case NID_id_GostR3410_2012_512:
      return bv::ossl::digest_by_nid(NID_id_GostR3411_2012_512);
    default:
      return bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256);
  }
}

UniquePtr<EVP_PKEY> generate_key(const std::string& kind) {
  ENGINE* engine = bv::ossl::gost_engine();
  check(engine != nullptr, "the GOST engine is not installed");
  const int nid = kind == "gost2001"       ? NID_id_GostR3410_2001
                  : kind == "gost2012_256" ? NID_id_GostR3410_2012_256
                  : kind == "gost2012_512" ? NID_id_GostR3410_2012_512
                                           : NID_undef;
  if (nid == NID_undef) throw std::runtime_error("unknown key kind " + kind);
  UniquePtr<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(nid, engine));
  EVP_PKEY* key = nullptr;
  check(context && EVP_PKEY_keygen_init(context.get()) == 1 &&
            EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", "A") > 0 && EVP_PKEY_keygen(context.get(), &key) == 1,
        "key generation");
  return UniquePtr<EVP_PKEY>(key);
}

UniquePtr<X509> issue_certificate(const CertificateRequest& request, EVP_PKEY* key, X509* issuer,
                                  EVP_PKEY* issuer_key) {
  UniquePtr<X509> certificate(X509_new());
  check(certificate != nullptr, "certificate");
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), request.serial);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  for (const auto& [field, value] : request.subject) {
    UniquePtr<ASN1_OBJECT> object(OBJ_txt2obj(field.c_str(), 0));
    check(object != nullptr, "attribute " + field);
    const int nid = OBJ_obj2nid(object.get());
    const int type = nid == NID_countryName              ? V_ASN1_PRINTABLESTRING
                     : field.rfind("1.2.643.", 0) == 0   ? V_ASN1_NUMERICSTRING
                     : nid == NID_pkcs9_emailAddress     ? V_ASN1_IA5STRING
                                                         : MBSTRING_UTF8;
    check(X509_NAME_add_entry_by_OBJ(subject, object.get(), type, reinterpret_cast<const unsigned char*>(value.data()),
                                     static_cast<int>(value.size()), -1, 0) == 1,
          "name attribute " + field);
  }
  check(X509_set_issuer_name(certificate.get(), issuer != nullptr ? X509_get_subject_name(issuer) : subject) == 1,
        "issuer name");
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), request.not_before);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), request.not_after);
  check(X509_set_pubkey(certificate.get(), key) == 1, "public key");

  add_extension(certificate.get(), issuer, NID_basic_constraints, request.ca ? "critical,CA:TRUE" : "CA:FALSE");
  using Service = CertificateRequest::Service;
  const std::string usage = !request.key_usage.empty()           ? request.key_usage
                            : request.ca                         ? "keyCertSign,cRLSign"
                            : request.service != Service::kNone ? "digitalSignature,nonRepudiation"
                                                                 : "digitalSignature,nonRepudiation,keyEncipherment";
  add_extension(certificate.get(), issuer, NID_key_usage, "critical," + usage);
  const std::string extended_usage = request.service == Service::kTimeStamping ? "critical,timeStamping"
                                     : request.service == Service::kOcspSigning ? "OCSPSigning"
                                                                                 : request.extended_key_usage;
  if (!extended_usage.empty()) add_extension(certificate.get(), issuer, NID_ext_key_usage, extended_usage);
  if (request.service == Service::kOcspSigning)
    add_extension(certificate.get(), issuer, NID_id_pkix_OCSP_noCheck, "ignored");
  add_extension(certificate.get(), issuer, NID_subject_key_identifier, "hash");
  if (issuer != nullptr) add_extension(certificate.get(), issuer, NID_authority_key_identifier, "keyid:always");
  if (!request.crl_url.empty())
    add_extension(certificate.get(), issuer, NID_crl_distribution_points, "URI:" + request.crl_url);
  if (!request.ocsp_url.empty())
    add_extension(certificate.get(), issuer, NID_info_access, "OCSP;URI:" + request.ocsp_url);

  EVP_PKEY* signing_key = issuer_key != nullptr ? issuer_key : key;
  check(X509_sign(certificate.get(), signing_key, digest_for_key(signing_key)) > 0, "signing the certificate");
  // Read back from its encoding, so no value cached before signing (the hash) outlives it.
  const std::string der = der_of(certificate.get());
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
  return UniquePtr<X509>(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
}

UniquePtr<X509_CRL> issue_crl(X509* issuer, EVP_PKEY* issuer_key, const std::vector<long>& revoked, long this_update,
                              long next_update) {
  UniquePtr<X509_CRL> crl(X509_CRL_new());
  check(crl != nullptr, "CRL");
  X509_CRL_set_version(crl.get(), 1);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer));
  const UniquePtr<ASN1_TIME> last = time_from_now(this_update), next = time_from_now(next_update);
  X509_CRL_set1_lastUpdate(crl.get(), last.get());
  X509_CRL_set1_nextUpdate(crl.get(), next.get());
  for (long serial : revoked) {
    X509_REVOKED* entry = X509_REVOKED_new();
    UniquePtr<ASN1_INTEGER> number(ASN1_INTEGER_new());
    ASN1_INTEGER_set(number.get(), serial);
    X509_REVOKED_set_serialNumber(entry, number.get());
    X509_REVOKED_set_revocationDate(entry, last.get());
    X509_CRL_add0_revoked(crl.get(), entry);
  }
  X509_CRL_sort(crl.get());
  check(X509_CRL_sign(crl.get(), issuer_key, digest_for_key(issuer_key)) > 0, "signing the CRL");
  return crl;
}

std::vector<UniquePtr<X509>> certificates_of(const std::string& bytes) {
  std::vector<UniquePtr<X509>> certificates;
  if (bytes.find("-----BEGIN") != std::string::npos) {
    UniquePtr<BIO> bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    while (UniquePtr<X509> certificate{PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)})
      certificates.push_back(std::move(certificate));
  } else {
    const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
    if (UniquePtr<X509> certificate{d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size()))})
      certificates.push_back(std::move(certificate));
  }
  ERR_clear_error();  // the end of the PEM text
  return certificates;
}

std::string der_of(X509* certificate) { return encoded<X509>(certificate, i2d_X509); }
std::string der_of(X509_CRL* crl) { return encoded<X509_CRL>(crl, i2d_X509_CRL); }
std::string der_of(CMS_ContentInfo* message) { return encoded<CMS_ContentInfo>(message, i2d_CMS_ContentInfo); }
std::string pem_of(X509* certificate) { return pem_with([&](BIO* b) { return PEM_write_bio_X509(b, certificate); }); }
std::string pem_of(X509_CRL* crl) { return pem_with([&](BIO* b) { return PEM_write_bio_X509_CRL(b, crl); }); }

std::string pem_of(EVP_PKEY* key, const std::string& pin) {
  return pem_with([&](BIO* b) {
    if (pin.empty()) return PEM_write_bio_PrivateKey(b, key, nullptr, nullptr, 0, nullptr, nullptr);
    return PEM_write_bio_PKCS8PrivateKey(b, key, EVP_aes_256_cbc(), pin.data(), static_cast<int>(pin.size()), nullptr,
                                         nullptr);
  });
}

std::string certificate_hash(X509* certificate, bv::platform::HexLetters letters) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  check(X509_digest(certificate, EVP_sha1(), digest, &length) == 1, "certificate hash");
  return bv::platform::hex_text(digest, length, letters);
}

}  // namespace bv::pki
