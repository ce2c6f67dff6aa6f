// Verification of one signer of a decoded signed message, CAdES or plain,
// and the queries on its attributes.  The checks run in a fixed order and
// the first that fails gives the status (docs/cades.md).
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <vector>

#include "cadesmsg/cades_asn1.h"
#include "cadesmsg/cadesmsg.h"
#include "cadesmsg/evidence.h"
#include "cadesmsg/timestamp.h"
#include "crypt32/chain.h"
#include "crypt32/msg_internal.h"
#include "crypt32/store.h"
#include "kernel32/kernel32.h"

namespace bv::cades {
namespace {

using bv::ossl::fail;
using bv::platform::revocation::Verdict;

// The DER of the first value of an unsigned attribute, empty without one.
std::string unsigned_value(CMS_SignerInfo* signer, int nid) {
  const int index = CMS_unsigned_get_attr_by_NID(signer, nid, -1);
  if (index < 0) return {};
  ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(signer, index), 0);
  return value != nullptr ? der_of(value, i2d_ASN1_TYPE) : std::string();
}

template <typename T, typename Decode>
UniquePtr<T> decode(const std::string& der, Decode d2i) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
  return UniquePtr<T>(der.empty() ? nullptr : d2i(nullptr, &cursor, static_cast<long>(der.size())));
}

bool to_filetime(time_t time, FILETIME& out) {  // for the verification info
  UniquePtr<ASN1_STRING> asn1(ASN1_TIME_set(nullptr, time));
  return asn1 && bv::platform::filetime_from_asn1(asn1.get(), out);
}

// The hash of `data` with the algorithm of an OtherHash equals it.
bool hash_matches(const OtherHash* hash, std::string_view data) {
  if (hash == nullptr) return false;
  if (hash->type == 0)
    return digest_of(EVP_sha1(), data) == bytes_of(hash->d.sha1Hash);
  const EVP_MD* md = bv::ossl::digest_by_nid(OBJ_obj2nid(hash->d.otherHash->hashAlgorithm->algorithm));
  return md != nullptr && digest_of(md, data) == bytes_of(hash->d.otherHash->hashValue);
}

UniquePtr<CertificateValues> decode_certificate_values(CMS_SignerInfo* signer) {
  return decode<CertificateValues>(unsigned_value(signer, kCertificateValues), d2i_CertificateValues);
}

class SignerCheck {
 public:
  SignerCheck(bv::platform::DecodedSigned& message, CMS_SignerInfo* signer) : message_(message), signer_(signer) {}

  // The status; the last error says why when it is not 0.
  DWORD run(CadesVerificationInfo& info) {
    CMS_ContentInfo* cms = message_.cms();
    message_certs_.reset(CMS_get1_certs(cms));
    if (message_certs_)
      for (int i = 0; i < sk_X509_num(message_certs_.get()); ++i) candidates_.push_back(sk_X509_value(message_certs_.get(), i));
    read_certificate_values();
    ERR_clear_error();

    // 2. The signer's certificate, named by signing-certificate-v2.
    cert_ = find_signer_certificate(signer_, candidates_);
    if (!cert_ || !signing_certificate_matches()) return failed(CADES_VERIFY_SIGNER_NOT_FOUND, CRYPT_E_SIGNER_NOT_FOUND);
    const std::string cert_der = der_of(cert_.get(), i2d_X509);
    info.pSignerCert = CertCreateCertificateContext(X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(cert_der.data()),
                                                    static_cast<DWORD>(cert_der.size()));
    signing_time(info);

    // 10. content-type against eContentType (OpenSSL does not compare them).
    const bool has_attributes = CMS_signed_get_attr_count(signer_) > 0;
    if (has_attributes) {
      const int index = CMS_signed_get_attr_by_NID(signer_, NID_pkcs9_contentType, -1);
      ASN1_TYPE* value = index >= 0 ? X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer_, index), 0) : nullptr;
      if (value == nullptr || value->type != V_ASN1_OBJECT ||
          OBJ_cmp(value->value.object, CMS_get0_eContentType(cms)) != 0)
        return failed(CADES_VERIFY_INVALID_CONTENT_TYPE, CRYPT_E_ATTRIBUTES_MISSING);
    }

    // 8. Signature and message digest.
    if (!bv::platform::verify_signer(message_, signer_, cert_.get()))
      return failed(CADES_VERIFY_INVALID_SIGNATURE, GetLastError());

    // 3. The signature time stamps; the first one's time is the validation time.
    const std::string_view signature = bytes_of(CMS_SignerInfo_get0_signature(signer_));
    const bool long_form = CMS_unsigned_get_attr_by_NID(signer_, kCertificateRefs, -1) >= 0 ||
                           CMS_unsigned_get_attr_by_NID(signer_, kRevocationRefs, -1) >= 0 ||
                           CMS_unsigned_get_attr_by_NID(signer_, kCertificateValues, -1) >= 0 ||
                           CMS_unsigned_get_attr_by_NID(signer_, kRevocationValues, -1) >= 0 ||
                           CMS_unsigned_get_attr_by_NID(signer_, kEscTimeStamp, -1) >= 0;
    time_t validation_time = std::time(nullptr);
    std::vector<const X509_ATTRIBUTE*> time_stamps;
    for (int i = -1; (i = CMS_unsigned_get_attr_by_NID(signer_, kSignatureTimeStamp, i)) >= 0;) {
      const X509_ATTRIBUTE* attribute = CMS_unsigned_get_attr(signer_, i);
      ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(const_cast<X509_ATTRIBUTE*>(attribute), 0);
      time_t stamped = 0;
      if (value == nullptr || value->type != V_ASN1_SEQUENCE ||
          !token_valid(std::string(bytes_of(value->value.sequence)), signature, stamped))
        return failed(CADES_VERIFY_INVALID_SIGNATURE_TIMESTAMP, TRUST_E_TIME_STAMP);
      if (time_stamps.empty()) {
        validation_time = stamped;
        signature_time_stamp_ = stamped;
      }
      time_stamps.push_back(attribute);
    }
    if (long_form && time_stamps.empty())
      return failed(CADES_VERIFY_INVALID_SIGNATURE_TIMESTAMP, TRUST_E_TIME_STAMP);
    if (signature_time_stamp_ != 0) {
      info.pSignatureTimeStampTime = new FILETIME{};
      if (!to_filetime(signature_time_stamp_, *info.pSignatureTimeStampTime)) {
        delete info.pSignatureTimeStampTime;
        info.pSignatureTimeStampTime = nullptr;
      }
    }

    // 1, 4. References and values: all there, well formed, and each
    // reference matching a value by its hash.
    if (long_form) {
      const DWORD refs = references_match_values();
      if (refs != 0) return failed(refs, CRYPT_E_ATTRIBUTES_MISSING);
      // 9. The Type 1 time stamp over what it covers.
      std::string input;
      const std::string esc = unsigned_value(signer_, kEscTimeStamp);
      auto esc_type = decode<ASN1_TYPE>(esc, d2i_ASN1_TYPE);
      time_t stamped = 0;
      if (!esc_type || esc_type->type != V_ASN1_SEQUENCE ||
          !type1_input(signature, time_stamps, attribute(kCertificateRefs), attribute(kRevocationRefs), input) ||
          !token_valid(std::string(bytes_of(esc_type->value.sequence)), input, stamped))
        return failed(CADES_VERIFY_INVALID_CADES_C_TIMESTAMP, TRUST_E_TIME_STAMP);
    }

    // 5. The signer's path to a Root anchor at the validation time.
    std::vector<UniquePtr<X509>> path;
    if (!build_path(cert_.get(), candidates_, validation_time, path))
      return failed(CADES_VERIFY_NO_CHAIN, CERT_E_CHAINING);

    // 6, 7. Not revoked: by the values the message carries, else online.
    bv::platform::revocation::Options options;
    options.at = validation_time;
    options.timeout = bv::platform::revocation::default_timeout();
    TrustMaterial trust;
    if (has_values_) {
      options.network = false;
      options.judge_at = true;
      for (const auto& crl : value_crls_) options.store_crls.push_back(crl.get());
      for (const auto& response : value_responses_) options.given_responses.push_back(response.get());
    } else {
      load_trust_material(trust);
      for (const auto& crl : trust.crls) options.store_crls.push_back(crl.get());
    }
    for (size_t i = 0; i + 1 < path.size(); ++i) {
      const auto result = bv::platform::revocation::check(path[i].get(), path[i + 1].get(), options);
      if (result.verdict != Verdict::good)
        return failed(i == 0 ? CADES_VERIFY_END_CERT_REVOCATION : CADES_VERIFY_CHAIN_CERT_REVOCATION,
                      result.error != 0 ? result.error : CRYPT_E_NO_REVOCATION_CHECK);
    }
    SetLastError(0);
    return CADES_VERIFY_SUCCESS;
  }

  // The values, if the signer has them; a malformed one counts as none here
  // and is judged with the references.
  void read_certificate_values() {
    if (auto values = decode_certificate_values(signer_)) {
      for (int i = 0; i < sk_ASN1_TYPE_num(values.get()); ++i) {
        auto cert = decode<X509>(der_of(sk_ASN1_TYPE_value(values.get(), i), i2d_ASN1_TYPE), d2i_X509);
        if (!cert) continue;
        value_certs_.push_back(std::move(cert));
        candidates_.push_back(value_certs_.back().get());
      }
    }
    const std::string revocation = unsigned_value(signer_, kRevocationValues);
    if (auto values = decode<RevocationValues>(revocation, d2i_RevocationValues)) {
      has_values_ = true;
      for (int i = 0; values->crlVals != nullptr && i < sk_ASN1_TYPE_num(values->crlVals); ++i) {
        value_crl_ders_.push_back(der_of(sk_ASN1_TYPE_value(values->crlVals, i), i2d_ASN1_TYPE));
        if (auto crl = decode<X509_CRL>(value_crl_ders_.back(), d2i_X509_CRL)) value_crls_.push_back(std::move(crl));
      }
      for (int i = 0; values->ocspVals != nullptr && i < sk_ASN1_TYPE_num(values->ocspVals); ++i) {
        value_response_ders_.push_back(der_of(sk_ASN1_TYPE_value(values->ocspVals, i), i2d_ASN1_TYPE));
        if (auto basic = decode<OCSP_BASICRESP>(value_response_ders_.back(), d2i_OCSP_BASICRESP))
          value_responses_.push_back(std::move(basic));
      }
    }
  }

  time_t signature_time_stamp_ = 0;

 private:
  DWORD failed(DWORD status, DWORD error) {
    fail(error);
    return status;
  }

  const X509_ATTRIBUTE* attribute(int nid) const {
    const int index = CMS_unsigned_get_attr_by_NID(signer_, nid, -1);
    return index >= 0 ? CMS_unsigned_get_attr(signer_, index) : nullptr;
  }

  bool signing_certificate_matches() {
    const int index = CMS_signed_get_attr_by_NID(signer_, NID_id_smime_aa_signingCertificateV2, -1);
    if (index < 0) return true;
    ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer_, index), 0);
    if (value == nullptr || value->type != V_ASN1_SEQUENCE) return false;
    auto v2 = decode<ESS_SIGNING_CERT_V2>(std::string(bytes_of(value->value.sequence)), d2i_ESS_SIGNING_CERT_V2);
    UniquePtr<STACK_OF(X509)> chain(sk_X509_new_null());
    if (!v2 || !chain || !sk_X509_push(chain.get(), cert_.get())) return false;
    X509_up_ref(cert_.get());
    return OSSL_ESS_check_signing_certs(nullptr, v2.get(), chain.get(), 1) > 0;
  }

  void signing_time(CadesVerificationInfo& info) {
    const int index = CMS_signed_get_attr_by_NID(signer_, NID_pkcs9_signingTime, -1);
    ASN1_TYPE* value = index >= 0 ? X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer_, index), 0) : nullptr;
    if (value == nullptr || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME)) return;
    auto* time = new FILETIME{};
    if (bv::platform::filetime_from_asn1(value->value.asn1_string, *time)) info.pSigningTime = time;
    else delete time;
  }

  // A time stamp token over `covered`: signed by an authority with the
  // critical time stamping usage that chains to a Root anchor, imprint over
  // `covered` with the token's own hash algorithm.
  bool token_valid(const std::string& token_der, std::string_view covered, time_t& stamped) {
    auto token = decode<PKCS7>(token_der, d2i_PKCS7);
    if (!token) return false;
    UniquePtr<TS_TST_INFO> tst(PKCS7_to_TS_TST_INFO(token.get()));
    TimeStamp stamp;
    stamp.token = token_der;
    if (!tst || !token_authority(token_der, stamp)) return false;
    const X509_ALGOR* algorithm = TS_MSG_IMPRINT_get_algo(TS_TST_INFO_get_msg_imprint(tst.get()));
    const EVP_MD* md = bv::ossl::digest_by_nid(OBJ_obj2nid(algorithm->algorithm));
    const std::string imprint = digest_of(md, covered);
    if (imprint.empty() || imprint != bytes_of(TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(tst.get()))))
      return false;
    struct tm parts {};
    if (ASN1_TIME_to_tm(TS_TST_INFO_get_time(tst.get()), &parts) != 1) return false;
    stamped = timegm(&parts);
    std::vector<X509*> extra = candidates_;
    for (auto& cert : stamp.certificates) extra.push_back(cert.get());
    std::vector<UniquePtr<X509>> path;
    const int usage = X509_get_ext_by_NID(stamp.authority.get(), NID_ext_key_usage, -1);
    if (usage < 0 || X509_EXTENSION_get_critical(X509_get_ext(stamp.authority.get(), usage)) != 1 ||
        (X509_get_extended_key_usage(stamp.authority.get()) & XKU_TIMESTAMP) == 0 ||
        !build_path(stamp.authority.get(), extra, stamped, path))
      return false;
    UniquePtr<TS_VERIFY_CTX> verify(TS_VERIFY_CTX_new());
    UniquePtr<X509_STORE> authority(X509_STORE_new());
    if (!verify || !authority || !X509_STORE_add_cert(authority.get(), stamp.authority.get())) return false;
    X509_STORE_set_flags(authority.get(), X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_NO_CHECK_TIME);
    TS_VERIFY_CTX_set_store(verify.get(), authority.release());
    TS_VERIFY_CTX_set_flags(verify.get(), TS_VFY_VERSION | TS_VFY_SIGNATURE);
    const bool valid = TS_RESP_verify_token(verify.get(), token.get()) == 1;
    ERR_clear_error();
    return valid;
  }

  DWORD references_match_values() {
    const std::string certificate_refs = unsigned_value(signer_, kCertificateRefs);
    const std::string revocation_refs = unsigned_value(signer_, kRevocationRefs);
    auto certificates = decode<CompleteCertificateRefs>(certificate_refs, d2i_CompleteCertificateRefs);
    auto revocations = decode<CompleteRevocationRefs>(revocation_refs, d2i_CompleteRevocationRefs);
    if (!certificates || !revocations || !has_values_ || value_certs_.empty())
      return CADES_VERIFY_INVALID_REFS_AND_VALUES;
    std::vector<std::string> cert_ders;
    for (const auto& cert : value_certs_) cert_ders.push_back(der_of(cert.get(), i2d_X509));
    const auto any_matches = [](const OtherHash* hash, const std::vector<std::string>& values) {
      for (const std::string& value : values)
        if (hash_matches(hash, value)) return true;
      return false;
    };
    for (int i = 0; i < sk_OtherCertID_num(certificates.get()); ++i)
      if (!any_matches(sk_OtherCertID_value(certificates.get(), i)->otherCertHash, cert_ders))
        return CADES_VERIFY_REFS_AND_VALUES_NO_MATCH;
    for (int i = 0; i < sk_CrlOcspRef_num(revocations.get()); ++i) {
      const CrlOcspRef* ref = sk_CrlOcspRef_value(revocations.get(), i);
      for (int c = 0; ref->crlids != nullptr && c < sk_CrlValidatedID_num(ref->crlids->crls); ++c)
        if (!any_matches(sk_CrlValidatedID_value(ref->crlids->crls, c)->crlHash, value_crl_ders_))
          return CADES_VERIFY_REFS_AND_VALUES_NO_MATCH;
      for (int o = 0; ref->ocspids != nullptr && o < sk_OcspResponsesID_num(ref->ocspids->ocspResponses); ++o)
        if (!any_matches(sk_OcspResponsesID_value(ref->ocspids->ocspResponses, o)->ocspRepHash, value_response_ders_))
          return CADES_VERIFY_REFS_AND_VALUES_NO_MATCH;
    }
    return 0;
  }

  bv::platform::DecodedSigned& message_;
  CMS_SignerInfo* signer_;
  UniquePtr<STACK_OF(X509)> message_certs_;
  std::vector<UniquePtr<X509>> value_certs_;
  std::vector<X509*> candidates_;  // borrowed: the message's certificates, then the values'
  UniquePtr<X509> cert_;
  bool has_values_ = false;
  std::vector<std::string> value_crl_ders_, value_response_ders_;
  std::vector<UniquePtr<X509_CRL>> value_crls_;
  std::vector<UniquePtr<OCSP_BASICRESP>> value_responses_;
};

CMS_SignerInfo* signer_at(HCRYPTMSG message, DWORD index, bv::platform::DecodedSigned** decoded) {
  *decoded = bv::platform::decoded_signed(message);
  if (*decoded == nullptr) return nullptr;
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos((*decoded)->cms());
  if (index >= static_cast<DWORD>(sk_CMS_SignerInfo_num(signers))) {
    SetLastError(CRYPT_E_INVALID_INDEX);
    return nullptr;
  }
  return sk_CMS_SignerInfo_value(signers, static_cast<int>(index));
}

}  // namespace
}  // namespace bv::cades

BOOL CadesMsgVerifySignature(HCRYPTMSG hCryptMsg, DWORD dwSignerIndex, void*,
                             CadesVerificationInfo** ppVerificationInfo) {
  if (ppVerificationInfo == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return FALSE;
  }
  *ppVerificationInfo = nullptr;
  try {
    auto info = std::make_unique<CadesVerificationInfo>();
    info->dwSize = sizeof(CadesVerificationInfo);
    info->dwStatus = CADES_VERIFY_INVALID_SIGNATURE;
    bv::platform::DecodedSigned* message = nullptr;
    CMS_SignerInfo* signer = bv::cades::signer_at(hCryptMsg, dwSignerIndex, &message);
    bv::ossl::gost_engine();
    if (signer != nullptr) info->dwStatus = bv::cades::SignerCheck(*message, signer).run(*info);
    const DWORD error = GetLastError();
    *ppVerificationInfo = info.release();
    SetLastError(error);
    return (*ppVerificationInfo)->dwStatus == CADES_VERIFY_SUCCESS ? TRUE : FALSE;
  } catch (const std::bad_alloc&) {
    SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
    return FALSE;
  }
}

BOOL CadesFreeVerificationInfo(CadesVerificationInfo* pVerificationInfo) {
  if (pVerificationInfo == nullptr) return TRUE;
  if (pVerificationInfo->pSignerCert != nullptr) CertFreeCertificateContext(pVerificationInfo->pSignerCert);
  delete pVerificationInfo->pSigningTime;
  delete pVerificationInfo->pSignatureTimeStampTime;
  delete pVerificationInfo;
  return TRUE;
}

BOOL CadesMsgIsType(HCRYPTMSG hCryptMsg, DWORD dwSignerIndex, DWORD dwCadesType, BOOL* pbResult) {
  if (pbResult == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return FALSE;
  }
  bv::platform::DecodedSigned* message = nullptr;
  CMS_SignerInfo* signer = bv::cades::signer_at(hCryptMsg, dwSignerIndex, &message);
  if (signer == nullptr) return FALSE;
  std::vector<int> signed_nids, unsigned_nids;
  switch (dwCadesType) {
    case CADES_X_LONG_TYPE_1:
      unsigned_nids = {bv::cades::kCertificateRefs, bv::cades::kRevocationRefs, bv::cades::kEscTimeStamp,
                       bv::cades::kCertificateValues, bv::cades::kRevocationValues};
      [[fallthrough]];
    case CADES_T:
      unsigned_nids.push_back(bv::cades::kSignatureTimeStamp);
      [[fallthrough]];
    case CADES_BES:
      signed_nids = {NID_pkcs9_contentType, NID_pkcs9_messageDigest, NID_id_smime_aa_signingCertificateV2};
      break;
    default:
      SetLastError(static_cast<DWORD>(E_INVALIDARG));
      return FALSE;
  }
  bool all = true;
  for (int nid : signed_nids) all = all && CMS_signed_get_attr_by_NID(signer, nid, -1) >= 0;
  for (int nid : unsigned_nids) all = all && CMS_unsigned_get_attr_by_NID(signer, nid, -1) >= 0;
  *pbResult = all ? TRUE : FALSE;
  return TRUE;
}

BOOL CadesMsgGetCertificateValues(HCRYPTMSG hCryptMsg, DWORD dwSignerIndex, CadesBlobArray** ppCertificateValues) {
  if (ppCertificateValues == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return FALSE;
  }
  *ppCertificateValues = nullptr;
  bv::platform::DecodedSigned* message = nullptr;
  CMS_SignerInfo* signer = bv::cades::signer_at(hCryptMsg, dwSignerIndex, &message);
  if (signer == nullptr) return FALSE;
  auto values = bv::cades::decode_certificate_values(signer);
  if (!values) {
    SetLastError(CRYPT_E_NOT_FOUND);
    return FALSE;
  }
  // One block: the record, the blobs, then their bytes.
  std::vector<std::string> ders;
  size_t bytes = 0;
  for (int i = 0; i < sk_ASN1_TYPE_num(values.get()); ++i) {
    ders.push_back(bv::cades::der_of(sk_ASN1_TYPE_value(values.get(), i), i2d_ASN1_TYPE));
    bytes += ders.back().size();
  }
  const size_t header = sizeof(CadesBlobArray) + ders.size() * sizeof(CRYPT_DATA_BLOB);
  auto* block = static_cast<unsigned char*>(std::malloc(header + bytes));
  if (block == nullptr) {
    SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
    return FALSE;
  }
  auto* array = reinterpret_cast<CadesBlobArray*>(block);
  array->cBlob = static_cast<DWORD>(ders.size());
  array->rgBlob = reinterpret_cast<CRYPT_DATA_BLOB*>(block + sizeof(CadesBlobArray));
  unsigned char* data = block + header;
  for (size_t i = 0; i < ders.size(); ++i) {
    std::memcpy(data, ders[i].data(), ders[i].size());
    array->rgBlob[i].cbData = static_cast<DWORD>(ders[i].size());
    array->rgBlob[i].pbData = data;
    data += ders[i].size();
  }
  *ppCertificateValues = array;
  return TRUE;
}

BOOL CadesFreeBlobArray(CadesBlobArray* pBlobArray) {
  std::free(pBlobArray);
  return TRUE;
}
