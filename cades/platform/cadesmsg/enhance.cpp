// Enhancement of a decoded signed message to CAdES-X Long Type 1.  Every
// signer's new attributes are made first and added only when all signers
// have all of theirs, so a failure leaves the message as it was.
#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "cadesmsg/cades_asn1.h"
#include "cadesmsg/cadesmsg.h"
#include "cadesmsg/timestamp.h"
#include "crypt32/msg_internal.h"
#include "crypt32/store.h"
#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"

namespace bv::cades {
namespace {

using bv::platform::revocation::Source;

using bv::ossl::fail;

// An attribute with one value given as its DER.
UniquePtr<X509_ATTRIBUTE> attribute_of(int nid, const std::string& value) {
  if (value.empty()) return nullptr;
  return UniquePtr<X509_ATTRIBUTE>(X509_ATTRIBUTE_create_by_NID(
      nullptr, nid, V_ASN1_SEQUENCE, reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size())));
}

// OtherHash in its otherHash form: the algorithm is always written out.
OtherHash* other_hash(const EVP_MD* md, std::string_view data) {
  const std::string hash = digest_of(md, data);
  UniquePtr<OtherHash> out(OtherHash_new());
  if (hash.empty() || !out) return nullptr;
  out->type = 1;
  out->d.otherHash = OtherHashAlgAndValue_new();
  if (out->d.otherHash == nullptr) return nullptr;
  X509_ALGOR_set_md(out->d.otherHash->hashAlgorithm, md);
  if (!ASN1_OCTET_STRING_set(out->d.otherHash->hashValue, reinterpret_cast<const unsigned char*>(hash.data()),
                             static_cast<int>(hash.size())))
    return nullptr;
  return out.release();
}

OtherCertID* other_cert_id(const EVP_MD* md, X509* cert) {
  UniquePtr<OtherCertID> id(OtherCertID_new());
  if (!id) return nullptr;
  OtherHash_free(id->otherCertHash);
  id->otherCertHash = other_hash(md, der_of(cert, i2d_X509));
  id->issuerSerial = IssuerSerial_new();
  if (id->otherCertHash == nullptr || id->issuerSerial == nullptr) return nullptr;
  GENERAL_NAME* name = GENERAL_NAME_new();
  if (name == nullptr) return nullptr;
  name->type = GEN_DIRNAME;
  name->d.directoryName = X509_NAME_dup(X509_get_issuer_name(cert));
  if (name->d.directoryName == nullptr || !sk_GENERAL_NAME_push(id->issuerSerial->issuer, name)) {
    GENERAL_NAME_free(name);
    return nullptr;
  }
  ASN1_INTEGER_free(id->issuerSerial->serialNumber);
  id->issuerSerial->serialNumber = ASN1_INTEGER_dup(X509_get0_serialNumber(cert));
  return id->issuerSerial->serialNumber != nullptr ? id.release() : nullptr;
}

// The ResponderID of a DER BasicOCSPResponse, which OpenSSL keeps opaque:
// BasicOCSPResponse { ResponseData { [0] version OPTIONAL, responderID, ...
UniquePtr<OCSP_RESPID> responder_id(const std::string& basic_der) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(basic_der.data());
  const unsigned char* end = cursor + basic_der.size();
  long length = 0;
  int tag = 0, tag_class = 0;
  for (int depth = 0; depth < 2; ++depth)  // into the response, then into its data
    if ((ASN1_get_object(&cursor, &length, &tag, &tag_class, end - cursor) & 0x80) != 0 || tag != V_ASN1_SEQUENCE)
      return nullptr;
  const unsigned char* element = cursor;
  if ((ASN1_get_object(&cursor, &length, &tag, &tag_class, end - cursor) & 0x80) != 0) return nullptr;
  if (tag_class == V_ASN1_CONTEXT_SPECIFIC && tag == 0) {  // the version
    element = cursor + length;
    cursor = element;
  }
  return UniquePtr<OCSP_RESPID>(d2i_OCSP_RESPID(nullptr, &element, end - element));
}

// One CrlOcspRef for the revocation data that proved one certificate.
CrlOcspRef* crl_ocsp_ref(const EVP_MD* md, const bv::platform::revocation::Result& proof) {
  UniquePtr<CrlOcspRef> ref(CrlOcspRef_new());
  if (!ref) return nullptr;
  const auto* cursor = reinterpret_cast<const unsigned char*>(proof.evidence.data());
  if (proof.source == Source::ocsp || proof.source == Source::cached_ocsp) {
    UniquePtr<OCSP_BASICRESP> basic(d2i_OCSP_BASICRESP(nullptr, &cursor, static_cast<long>(proof.evidence.size())));
    UniquePtr<OcspResponsesID> id(OcspResponsesID_new());
    ref->ocspids = OcspListID_new();
    if (!basic || !id || ref->ocspids == nullptr) return nullptr;
    OCSP_RESPID_free(id->ocspIdentifier->ocspResponderID);
    id->ocspIdentifier->ocspResponderID = responder_id(proof.evidence).release();
    ASN1_GENERALIZEDTIME_free(id->ocspIdentifier->producedAt);
    id->ocspIdentifier->producedAt = ASN1_STRING_dup(OCSP_resp_get0_produced_at(basic.get()));
    id->ocspRepHash = other_hash(md, proof.evidence);
    if (id->ocspIdentifier->ocspResponderID == nullptr || id->ocspIdentifier->producedAt == nullptr ||
        id->ocspRepHash == nullptr || !sk_OcspResponsesID_push(ref->ocspids->ocspResponses, id.get()))
      return nullptr;
    id.release();
  } else {
    UniquePtr<X509_CRL> crl(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(proof.evidence.size())));
    UniquePtr<CrlValidatedID> id(CrlValidatedID_new());
    ref->crlids = CRLListID_new();
    if (!crl || !id || ref->crlids == nullptr) return nullptr;
    OtherHash_free(id->crlHash);
    id->crlHash = other_hash(md, proof.evidence);
    id->crlIdentifier = CrlIdentifier_new();
    if (id->crlHash == nullptr || id->crlIdentifier == nullptr) return nullptr;
    X509_NAME_free(id->crlIdentifier->crlissuer);
    id->crlIdentifier->crlissuer = X509_NAME_dup(X509_CRL_get_issuer(crl.get()));
    struct tm issued {};
    if (ASN1_TIME_to_tm(X509_CRL_get0_lastUpdate(crl.get()), &issued) != 1 ||
        ASN1_UTCTIME_set(id->crlIdentifier->crlIssuedTime, timegm(&issued)) == nullptr)
      return nullptr;
    UniquePtr<ASN1_STRING> number(
        static_cast<ASN1_STRING*>(X509_CRL_get_ext_d2i(crl.get(), NID_crl_number, nullptr, nullptr)));
    if (number) id->crlIdentifier->crlNumber = ASN1_INTEGER_dup(number.get());
    if (id->crlIdentifier->crlissuer == nullptr || !sk_CrlValidatedID_push(ref->crlids->crls, id.get()))
      return nullptr;
    id.release();
  }
  return ref.release();
}

// An ANY holding one DER value as it stands.
bool push_any(STACK_OF(ASN1_TYPE) * values, const std::string& der) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(der.data());
  ASN1_TYPE* value = d2i_ASN1_TYPE(nullptr, &cursor, static_cast<long>(der.size()));
  if (value == nullptr) return false;
  if (!sk_ASN1_TYPE_push(values, value)) {
    ASN1_TYPE_free(value);
    return false;
  }
  return true;
}

void add_unique(std::vector<std::string>& list, std::string value) {
  if (!value.empty() && std::find(list.begin(), list.end(), value) == list.end()) list.push_back(std::move(value));
}

// Everything one signer gets, made before any of it is added.
struct SignerWork {
  CMS_SignerInfo* signer = nullptr;
  std::vector<UniquePtr<X509_ATTRIBUTE>> additions;
};

class Enhancer {
 public:
  Enhancer(bv::platform::DecodedSigned& message, std::string service)
      : message_(message), cms_(message.cms()), service_(std::move(service)) {}

  // Every signer of the message, or only `only`.
  bool run(CMS_SignerInfo* only = nullptr) {
    load_trust_material(trust_);
    message_certs_.reset(CMS_get1_certs(cms_));
    if (message_certs_)
      for (int i = 0; i < sk_X509_num(message_certs_.get()); ++i) extra_.push_back(sk_X509_value(message_certs_.get(), i));
    for (auto& cert : trust_.intermediates) extra_.push_back(cert.get());

    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms_);
    std::vector<SignerWork> work;
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
      CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, i);
      if (only != nullptr && signer != only) continue;
      work.push_back(SignerWork{signer, {}});
      if (!enhance(work.back())) return false;
    }
    for (SignerWork& one : work) {
      if (one.additions.empty()) continue;
      message_.mark_changed(one.signer);
      for (auto& attribute : one.additions)
        if (!CMS_unsigned_add1_attr(one.signer, attribute.get())) return fail(static_cast<DWORD>(E_OUTOFMEMORY));
    }
    return true;
  }

 private:
  // The attribute of that type the signer has, or the one made for it.
  const X509_ATTRIBUTE* find(const SignerWork& work, int nid) const {
    const int index = CMS_unsigned_get_attr_by_NID(work.signer, nid, -1);
    if (index >= 0) return CMS_unsigned_get_attr(work.signer, index);
    for (const auto& attribute : work.additions)
      if (OBJ_obj2nid(X509_ATTRIBUTE_get0_object(attribute.get())) == nid) return attribute.get();
    return nullptr;
  }

  bool add(SignerWork& work, int nid, const std::string& value) {
    if (CMS_unsigned_get_attr_by_NID(work.signer, nid, -1) >= 0) return true;  // a part it has stays
    UniquePtr<X509_ATTRIBUTE> attribute = attribute_of(nid, value);
    if (!attribute) return fail(CRYPT_E_ASN1_ERROR);
    work.additions.push_back(std::move(attribute));
    return true;
  }

  // A time stamp and the proof of its authority, gathered for the values.
  bool stamp(const EVP_MD* md, std::string_view data, std::string& token) {
    TimeStamp stamp;
    if (!request_time_stamp(service_, md, data, [this](TimeStamp& s) { return prove_authority(s); }, stamp))
      return false;
    token = stamp.token;
    return true;
  }

  bool prove_authority(TimeStamp& stamp) {
    // Both stamps of a signer usually come from one authority: proved once.
    for (const ProvenPath& proven : authority_paths_)
      if (X509_cmp(proven.certificates.front().get(), stamp.authority.get()) == 0) return true;
    std::vector<X509*> extra = extra_;
    for (auto& cert : stamp.certificates) extra.push_back(cert.get());
    ProvenPath path;
    if (!prove_path(stamp.authority.get(), extra, trust_, path)) return false;
    authority_paths_.push_back(std::move(path));
    return true;
  }

  bool enhance(SignerWork& work) {
    authority_paths_.clear();
    X509_ALGOR* digest_algorithm = nullptr;
    CMS_SignerInfo_get0_algs(work.signer, nullptr, nullptr, &digest_algorithm, nullptr);
    const EVP_MD* md = digest_algorithm != nullptr ? bv::ossl::digest_by_nid(OBJ_obj2nid(digest_algorithm->algorithm)) : nullptr;
    if (md == nullptr) return fail(CRYPT_E_UNKNOWN_ALGO);
    UniquePtr<X509> cert = find_signer_certificate(work.signer, extra_);
    if (!cert) return fail(CRYPT_E_SIGNER_NOT_FOUND);
    ProvenPath path;
    if (!prove_path(cert.get(), extra_, trust_, path)) return false;
    const std::string_view signature = bytes_of(CMS_SignerInfo_get0_signature(work.signer));

    // The signature time stamp, or the authorities of those it has.
    if (CMS_unsigned_get_attr_by_NID(work.signer, kSignatureTimeStamp, -1) < 0) {
      std::string token;
      if (!stamp(md, signature, token) || !add(work, kSignatureTimeStamp, token)) return false;
    } else {
      for (int i = -1; (i = CMS_unsigned_get_attr_by_NID(work.signer, kSignatureTimeStamp, i)) >= 0;) {
        ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(work.signer, i), 0);
        if (value == nullptr || value->type != V_ASN1_SEQUENCE) return fail(TRUST_E_TIME_STAMP);
        TimeStamp existing;
        existing.token.assign(bytes_of(value->value.sequence));
        if (!token_authority(existing.token, existing) || !prove_authority(existing)) return false;
      }
    }

    // References: every certificate of the path but the signer's own, and
    // the revocation data of each, the signer's first; the anchor's is empty.
    UniquePtr<CompleteCertificateRefs> certificate_refs(sk_OtherCertID_new_null());
    UniquePtr<CompleteRevocationRefs> revocation_refs(sk_CrlOcspRef_new_null());
    if (!certificate_refs || !revocation_refs) return fail(static_cast<DWORD>(E_OUTOFMEMORY));
    for (size_t i = 0; i < path.certificates.size(); ++i) {
      if (i > 0) {
        OtherCertID* id = other_cert_id(md, path.certificates[i].get());
        if (id == nullptr || !sk_OtherCertID_push(certificate_refs.get(), id)) {
          OtherCertID_free(id);
          return fail(CRYPT_E_ASN1_ERROR);
        }
      }
      CrlOcspRef* ref = i < path.revocations.size() ? crl_ocsp_ref(md, path.revocations[i]) : CrlOcspRef_new();
      if (ref == nullptr || !sk_CrlOcspRef_push(revocation_refs.get(), ref)) {
        CrlOcspRef_free(ref);
        return fail(CRYPT_E_ASN1_ERROR);
      }
    }
    if (!add(work, kCertificateRefs, der_of(certificate_refs.get(), i2d_CompleteCertificateRefs)) ||
        !add(work, kRevocationRefs, der_of(revocation_refs.get(), i2d_CompleteRevocationRefs)))
      return false;

    // The Type 1 time stamp over the signature value, the signature time
    // stamps and both references.
    if (CMS_unsigned_get_attr_by_NID(work.signer, kEscTimeStamp, -1) < 0) {
      std::vector<const X509_ATTRIBUTE*> time_stamps;
      for (int i = -1; (i = CMS_unsigned_get_attr_by_NID(work.signer, kSignatureTimeStamp, i)) >= 0;)
        time_stamps.push_back(CMS_unsigned_get_attr(work.signer, i));
      for (const auto& attribute : work.additions)
        if (OBJ_obj2nid(X509_ATTRIBUTE_get0_object(attribute.get())) == kSignatureTimeStamp)
          time_stamps.push_back(attribute.get());
      std::string input;
      if (!type1_input(signature, time_stamps, find(work, kCertificateRefs), find(work, kRevocationRefs), input))
        return fail(CRYPT_E_ASN1_ERROR);
      std::string token;
      if (!stamp(md, input, token) || !add(work, kEscTimeStamp, token)) return false;
    }

    // Values: the signer's certificate, the path, the authorities' paths,
    // and every CRL and OCSP response that proved them.
    std::vector<std::string> certificates, crls, responses;
    const auto gather = [&](const ProvenPath& proven) {
      for (const auto& c : proven.certificates) add_unique(certificates, der_of(c.get(), i2d_X509));
      for (const auto& proof : proven.revocations)
        add_unique(proof.source == Source::ocsp || proof.source == Source::cached_ocsp ? responses : crls,
                   proof.evidence);
    };
    gather(path);
    for (const ProvenPath& authority : authority_paths_) gather(authority);
    UniquePtr<CertificateValues> certificate_values(sk_ASN1_TYPE_new_null());
    UniquePtr<RevocationValues> revocation_values(RevocationValues_new());
    if (!certificate_values || !revocation_values) return fail(static_cast<DWORD>(E_OUTOFMEMORY));
    for (const std::string& der : certificates)
      if (!push_any(certificate_values.get(), der)) return fail(CRYPT_E_ASN1_ERROR);
    if (!crls.empty()) revocation_values->crlVals = sk_ASN1_TYPE_new_null();
    if (!responses.empty()) revocation_values->ocspVals = sk_ASN1_TYPE_new_null();
    for (const std::string& der : crls)
      if (!push_any(revocation_values->crlVals, der)) return fail(CRYPT_E_ASN1_ERROR);
    for (const std::string& der : responses)
      if (!push_any(revocation_values->ocspVals, der)) return fail(CRYPT_E_ASN1_ERROR);
    return add(work, kCertificateValues, der_of(certificate_values.get(), i2d_CertificateValues)) &&
           add(work, kRevocationValues, der_of(revocation_values.get(), i2d_RevocationValues));
  }

  bv::platform::DecodedSigned& message_;
  CMS_ContentInfo* cms_;
  std::string service_;
  TrustMaterial trust_;
  UniquePtr<STACK_OF(X509)> message_certs_;
  std::vector<X509*> extra_;  // borrowed: the message's certificates, then the CA stores'
  std::vector<ProvenPath> authority_paths_;
};

}  // namespace
}  // namespace bv::cades

namespace {
// The request's form and service, checked; empty with the last error set
// when the request can't be served.
bool read_sign_para(const CadesSignPara* para, std::string& service) {
  if (para == nullptr || para->dwSize < sizeof(CadesSignPara)) return bv::ossl::fail(static_cast<DWORD>(E_INVALIDARG));
  if (para->dwCadesType != CADES_X_LONG_TYPE_1) return bv::ossl::fail(ERROR_NOT_SUPPORTED);
  const CadesServiceConnectionPara* connection = para->pTspConnectionPara;
  service = connection != nullptr && connection->wszUri != nullptr ? bv::platform::utf8_of(connection->wszUri)
                                                                   : bv::cades::default_time_stamp_service();
  return true;
}
}  // namespace

BOOL CadesMsgEnhanceSignatureAll(HCRYPTMSG hCryptMsg, const CadesSignPara* pSignPara) {
  try {
    std::string service;
    if (!read_sign_para(pSignPara, service)) return FALSE;
    bv::platform::DecodedSigned* message = bv::platform::decoded_signed(hCryptMsg);
    if (message == nullptr) return FALSE;
    bv::ossl::gost_engine();
    return bv::cades::Enhancer(*message, std::move(service)).run() ? TRUE : FALSE;
  } catch (const std::bad_alloc&) {
    SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
    return FALSE;
  }
}

BOOL CadesMsgAddEnhancedSignature(HCRYPTMSG hCryptMsg, const CadesEnhancedSignerPara* pEnhancedSignerPara) {
  try {
    if (pEnhancedSignerPara == nullptr || pEnhancedSignerPara->dwSize < sizeof(CadesEnhancedSignerPara) ||
        pEnhancedSignerPara->pSignerEncodeInfo == nullptr) {
      SetLastError(static_cast<DWORD>(E_INVALIDARG));
      return FALSE;
    }
    std::string service;
    if (!read_sign_para(pEnhancedSignerPara->pCadesSignPara, service)) return FALSE;
    bv::platform::DecodedSigned* message = bv::platform::decoded_signed(hCryptMsg);
    if (message == nullptr) return FALSE;
    CMS_SignerInfo* signer =
        message->add_signed_signer(*pEnhancedSignerPara->pSignerEncodeInfo, bv::platform::SignedForm::cades_bes);
    if (signer == nullptr) return FALSE;
    // A signer that can't be raised goes again: the message stays as it was.
    if (!bv::cades::Enhancer(*message, std::move(service)).run(signer)) {
      const DWORD error = GetLastError();
      message->remove_added_signer(signer);
      SetLastError(error);
      return FALSE;
    }
    return TRUE;
  } catch (const std::bad_alloc&) {
    SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
    return FALSE;
  }
}
