// Signed-data messages (CMSG_SIGNED) of the message service: each signer
// signs with the key its provider handle holds and the hash its record
// names; certificates and CRLs go in as given; the content stays out when
// the message is detached.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "advapi32/provider_handle.h"
#include "crypt32/cert.h"
#include "crypt32/der.h"
#include "crypt32/msg.h"
#include "crypt32/msg_internal.h"
#include "kernel32/kernel32.h"
#include "openssl/ossl.h"
#include "output_space.h"

namespace bv::platform {

namespace {

using bv::ossl::fail;
using bv::ossl::UniquePtr;

// CryptoAPI keeps integers little-endian; ASN.1 wants them big-endian.
UniquePtr<ASN1_STRING> serial_from_blob(const CRYPT_INTEGER_BLOB& blob) {
  std::vector<unsigned char> big_endian(blob.pbData, blob.pbData + blob.cbData);
  std::reverse(big_endian.begin(), big_endian.end());
  UniquePtr<BIGNUM> number(BN_bin2bn(big_endian.data(), static_cast<int>(big_endian.size()), nullptr));
  if (!number) return nullptr;
  // A set top bit of the last byte means a negative number in the blob.
  if (!big_endian.empty() && (big_endian[0] & 0x80) != 0) {
    std::vector<unsigned char> ones(big_endian.size(), 0);
    ones.insert(ones.begin(), 1);
    UniquePtr<BIGNUM> modulus(BN_bin2bn(ones.data(), static_cast<int>(ones.size()), nullptr));
    if (!modulus || !BN_sub(number.get(), number.get(), modulus.get())) return nullptr;
  }
  return UniquePtr<ASN1_STRING>(BN_to_ASN1_INTEGER(number.get(), nullptr));
}

// The signer identifier of CMS is the issuer and serial number of CERT_INFO;
// OpenSSL takes them from a certificate, so a stand-in carries them with the
// public half of the signing key, which is all CMS_add1_signer looks at.
UniquePtr<X509> signer_stand_in(const CERT_INFO& cert_info, EVP_PKEY* key) {
  UniquePtr<X509> stand_in(X509_new());
  const unsigned char* issuer_der = cert_info.Issuer.pbData;
  UniquePtr<X509_NAME> issuer(d2i_X509_NAME(nullptr, &issuer_der, static_cast<long>(cert_info.Issuer.cbData)));
  UniquePtr<ASN1_STRING> serial = serial_from_blob(cert_info.SerialNumber);
  if (!stand_in || !issuer || !serial) return nullptr;
  if (!X509_set_issuer_name(stand_in.get(), issuer.get()) ||
      !X509_set_serialNumber(stand_in.get(), serial.get()) || !X509_set_pubkey(stand_in.get(), key))
    return nullptr;
  return stand_in;
}

bool matches_cert_info(X509* cert, const CERT_INFO& cert_info) {
  const unsigned char* issuer_der = nullptr;
  size_t issuer_length = 0;
  UniquePtr<ASN1_STRING> serial = serial_from_blob(cert_info.SerialNumber);
  return serial && X509_NAME_get0_der(X509_get_issuer_name(cert), &issuer_der, &issuer_length) == 1 &&
         issuer_length == cert_info.Issuer.cbData && std::memcmp(issuer_der, cert_info.Issuer.pbData, issuer_length) == 0 &&
         ASN1_INTEGER_cmp(serial.get(), X509_get0_serialNumber(cert)) == 0;
}

// Each value of an attribute is one DER-encoded ASN.1 value.
bool add_attributes(CMS_SignerInfo* signer, DWORD count, const CRYPT_ATTRIBUTE* attributes, bool authenticated) {
  for (DWORD i = 0; i < count; ++i) {
    UniquePtr<ASN1_OBJECT> type(OBJ_txt2obj(attributes[i].pszObjId, 1));
    if (!type) return false;
    for (DWORD v = 0; v < attributes[i].cValue; ++v) {
      const unsigned char* der = attributes[i].rgValue[v].pbData;
      ASN1_TYPE* value = d2i_ASN1_TYPE(nullptr, &der, static_cast<long>(attributes[i].rgValue[v].cbData));
      if (value == nullptr) return false;
      const int added = authenticated
                            ? CMS_signed_add1_attr_by_OBJ(signer, type.get(), value->type, value->value.ptr, -1)
                            : CMS_unsigned_add1_attr_by_OBJ(signer, type.get(), value->type, value->value.ptr, -1);
      ASN1_TYPE_free(value);
      if (!added) return false;
    }
  }
  return true;
}


// Rewrites the elements of a SET OF in `wanted` order.  A DER encoder sorts
// them by their bytes; the platform's encoder keeps the order it was given,
// so that signer i of the list is SignerInfo i of the message.  Sorting only
// moves elements within the set, so the set keeps its place and size.
bool reorder_set(BYTE* encoded, const der::Element& set, const std::vector<std::string_view>& wanted) {
  std::string ordered;
  for (std::string_view element : wanted) ordered.append(element);
  if (ordered.size() != set.length) return false;
  std::memcpy(encoded + set.content(), ordered.data(), ordered.size());
  return true;
}

// SignedData's signerInfos in the order the signers were added, and its
// certificates in the order they were given.  `certificates` are the DER of
// the certificates as added.
bool keep_given_order(BYTE* encoded, size_t size, CMS_ContentInfo* cms, const std::vector<std::string>& certificates) {
  const std::string_view view(reinterpret_cast<const char*>(encoded), size);
  std::vector<der::Element> content_info, fields, elements;
  if (!der::signed_data_fields(view, &content_info, &fields)) return false;

  const der::Element signer_set = fields.back();
  if (!der::children(view, signer_set, &elements)) return false;
  if (elements.size() > 1) {
    std::vector<std::string_view> wanted;
    if (!signer_elements_in_order(view, elements, CMS_get0_SignerInfos(cms), &wanted) ||
        !reorder_set(encoded, signer_set, wanted))
      return false;
  }

  const auto certificate_set = std::find_if(fields.begin(), fields.end(), [](const der::Element& e) {
    return e.tag_class == V_ASN1_CONTEXT_SPECIFIC && e.tag == 0;
  });
  if (certificate_set != fields.end() && certificates.size() > 1) {
    std::vector<std::string_view> wanted(certificates.begin(), certificates.end());
    if (!reorder_set(encoded, *certificate_set, wanted)) return false;
  }
  return true;
}

class SignedEncoder final : public MessageKind {
 public:
  SignedEncoder(UniquePtr<CMS_ContentInfo> cms, unsigned flags, bool borrow, std::vector<std::string> certificates)
      : cms_(std::move(cms)), flags_(flags), content_(borrow), certificates_(std::move(certificates)) {}
  ~SignedEncoder() override {
    // The borrowed content is the caller's: OpenSSL must not free it (and
    // ASN1_STRING_set0 would free what it replaces).
    if (content_in_message_) {
      ASN1_OCTET_STRING* octets = *CMS_get0_content(cms_.get());
      octets->data = nullptr;
      octets->length = 0;
    }
  }

  DWORD type() const override { return CMSG_SIGNED; }

  // The signatures need the whole content, so it is gathered until the
  // final update and signed then.  Content the caller keeps is signed where
  // it lies and encoded into the caller's buffer from there; other content
  // is encoded at once and let go.
  bool update(const BYTE* data, DWORD size, bool final) override {
    if (final_) {
      SetLastError(CRYPT_E_MSG_ERROR);
      return false;
    }
    content_.add(data, size, final);
    if (!final) return true;
    const bool attached = (flags_ & CMS_DETACHED) == 0;
    // Signed as if detached, then pointed at: OpenSSL would copy it in.
    if (content_.borrowed() && attached && !CMS_set_detached(cms_.get(), 1)) return fail(CRYPT_E_ASN1_ERROR);
    UniquePtr<BIO> content(BIO_new_mem_buf(content_.size() != 0 ? static_cast<const void*>(content_.data()) : "",
                                           static_cast<int>(content_.size())));
    if (!content || !CMS_final(cms_.get(), content.get(), nullptr, flags_))
      return fail(NTE_BAD_SIGNATURE);
    final_ = true;
    if (content_.borrowed()) {
      if (attached) {
        if (!CMS_set_detached(cms_.get(), 0)) return fail(CRYPT_E_ASN1_ERROR);
        ASN1_OCTET_STRING* octets = *CMS_get0_content(cms_.get());
        ASN1_STRING_set0(octets, const_cast<BYTE*>(content_.data()), static_cast<int>(content_.size()));
        octets->flags &= ~ASN1_STRING_FLAG_CONT;
        content_in_message_ = true;
      }
      return true;
    }
    const int size_needed = i2d_CMS_ContentInfo(cms_.get(), nullptr);
    if (size_needed <= 0) return fail(CRYPT_E_ASN1_ERROR);
    encoded_.resize(static_cast<size_t>(size_needed));
    if (!encode_into(encoded_.data(), encoded_.size())) return false;
    content_.clear();
    return true;
  }

  bool get_param(DWORD param, DWORD, void* data, DWORD* size) override {
    switch (param) {
      case CMSG_TYPE_PARAM: {
        const DWORD type = CMSG_SIGNED;
        return copy_output(&type, sizeof type, data, size);
      }
      case CMSG_CONTENT_PARAM: {
        if (!final_) {
          SetLastError(CRYPT_E_MSG_ERROR);
          return false;
        }
        if (!content_.borrowed()) return copy_output(encoded_.data(), static_cast<DWORD>(encoded_.size()), data, size);
        const int needed = i2d_CMS_ContentInfo(cms_.get(), nullptr);
        if (needed <= 0) return fail(CRYPT_E_ASN1_ERROR);
        if (!prepare_output_space(data, size, static_cast<DWORD>(needed))) return data == nullptr && size != nullptr;
        return encode_into(static_cast<BYTE*>(data), static_cast<size_t>(needed));
      }
      default:
        SetLastError(CRYPT_E_INVALID_MSG_TYPE);
        return false;
    }
  }

 private:
  bool encode_into(BYTE* out, size_t size) {
    BYTE* cursor = out;
    if (i2d_CMS_ContentInfo(cms_.get(), &cursor) != static_cast<int>(size) ||
        !keep_given_order(out, size, cms_.get(), certificates_))
      return fail(CRYPT_E_ASN1_ERROR);
    return true;
  }

  UniquePtr<CMS_ContentInfo> cms_;
  unsigned flags_;
  EncoderContent content_;
  bool content_in_message_ = false;
  std::vector<std::string> certificates_;  // DER, in the order given
  std::vector<BYTE> encoded_;
  bool final_ = false;
};

}  // namespace

bool signer_elements_in_order(std::string_view encoded, const std::vector<der::Element>& elements,
                              STACK_OF(CMS_SignerInfo) * signers, std::vector<std::string_view>* out) {
  out->clear();
  if (static_cast<size_t>(sk_CMS_SignerInfo_num(signers)) != elements.size()) return false;
  // A SignerInfo is known by its signature value, unique to it.
  std::vector<bool> taken(elements.size(), false);
  for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
    const ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(sk_CMS_SignerInfo_value(signers, i));
    const std::string_view value(reinterpret_cast<const char*>(ASN1_STRING_get0_data(signature)),
                                 static_cast<size_t>(ASN1_STRING_length(signature)));
    size_t match = elements.size();
    for (size_t e = 0; e < elements.size() && match == elements.size(); ++e)
      if (!taken[e] && elements[e].in(encoded).find(value) != std::string_view::npos) match = e;
    if (match == elements.size()) return false;
    taken[match] = true;
    out->push_back(elements[match].in(encoded));
  }
  return true;
}

CMS_SignerInfo* add_signer(CMS_ContentInfo* cms, const CMSG_SIGNER_ENCODE_INFO& signer, SignedForm form) {
  const auto refuse = [](DWORD error) -> CMS_SignerInfo* {
    fail(error);
    return nullptr;
  };
  if (signer.cbSize < sizeof(CMSG_SIGNER_ENCODE_INFO) || signer.pCertInfo == nullptr)
    return refuse(static_cast<DWORD>(E_INVALIDARG));
  CryptProvider* provider = provider_from_handle(signer.hCryptProv);
  if (provider == nullptr) return nullptr;
  if (!provider->key) return refuse(NTE_NO_KEY);

  UniquePtr<ASN1_OBJECT> hash_oid(
      signer.HashAlgorithm.pszObjId != nullptr ? OBJ_txt2obj(signer.HashAlgorithm.pszObjId, 1) : nullptr);
  const EVP_MD* digest = hash_oid ? bv::ossl::digest_by_nid(OBJ_obj2nid(hash_oid.get())) : nullptr;
  if (digest == nullptr) return refuse(CRYPT_E_UNKNOWN_ALGO);

  // CAdES names the signer's whole certificate by its hash, so it needs the
  // certificate the key was acquired for; plain CMS only its issuer and
  // serial number, so the certificate the key was acquired for serves when
  // it is the one named, and a stand-in otherwise.
  UniquePtr<X509> stand_in;
  if (provider->certificate && matches_cert_info(provider->certificate.get(), *signer.pCertInfo)) {
    X509_up_ref(provider->certificate.get());
    stand_in.reset(provider->certificate.get());
  } else if (form == SignedForm::cades_bes) {
    return refuse(CRYPT_E_SIGNER_NOT_FOUND);
  } else {
    stand_in = signer_stand_in(*signer.pCertInfo, provider->key.get());
  }
  if (!stand_in) return refuse(CRYPT_E_ASN1_ERROR);

  // Without authenticated attributes the signature covers the content
  // itself, as the platform's encoder does for cAuthAttr 0.
  const unsigned signer_flags =
      form == SignedForm::cades_bes
          ? CMS_NOCERTS | CMS_PARTIAL | CMS_NOSMIMECAP | CMS_CADES
          : CMS_NOCERTS | CMS_PARTIAL | CMS_NOSMIMECAP | (signer.cAuthAttr == 0 ? CMS_NOATTR : 0u);
  CMS_SignerInfo* signer_info = CMS_add1_signer(cms, stand_in.get(), provider->key.get(), digest, signer_flags);
  if (signer_info == nullptr) return refuse(NTE_BAD_KEY);
  if (!add_attributes(signer_info, signer.cAuthAttr, signer.rgAuthAttr, true) ||
      !add_attributes(signer_info, signer.cUnauthAttr, signer.rgUnauthAttr, false))
    return refuse(CRYPT_E_ASN1_ERROR);
  return signer_info;
}

// The signers, certificates and CRLs are taken over at the open, so the
// caller's encode information need not outlive it.
std::unique_ptr<MessageKind> open_signed_encoder(DWORD flags, const CMSG_SIGNED_ENCODE_INFO& info,
                                                 LPCSTR inner_content_type, SignedForm form) {
  const auto refuse = [](DWORD error) {
    fail(error);
    return std::unique_ptr<MessageKind>();
  };
  if (info.cbSize < sizeof(CMSG_SIGNED_ENCODE_INFO) || (info.cSigners != 0 && info.rgSigners == nullptr))
    return refuse(static_cast<DWORD>(E_INVALIDARG));
  if (bv::ossl::gost_engine() == nullptr) return refuse(NTE_PROV_TYPE_NOT_DEF);

  const unsigned message_flags =
      CMS_BINARY | CMS_PARTIAL | ((flags & CMSG_DETACHED_FLAG) != 0 ? CMS_DETACHED : 0u);
  UniquePtr<CMS_ContentInfo> cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, message_flags));
  if (!cms) return refuse(NTE_NO_MEMORY);
  if (inner_content_type != nullptr) {
    UniquePtr<ASN1_OBJECT> content_type(OBJ_txt2obj(inner_content_type, 1));
    if (!content_type) return refuse(CRYPT_E_OID_FORMAT);
    if (!CMS_set1_eContentType(cms.get(), content_type.get())) return refuse(CRYPT_E_ASN1_ERROR);
  }

  for (DWORD i = 0; i < info.cSigners; ++i)
    if (add_signer(cms.get(), info.rgSigners[i], form) == nullptr) return nullptr;

  // A certificate given twice (two signers with one certificate) goes in
  // once, where it was first given.
  std::vector<std::string> certificates;
  for (DWORD i = 0; i < info.cCertEncoded; ++i) {
    const unsigned char* der = info.rgCertEncoded[i].pbData;
    UniquePtr<X509> cert(d2i_X509(nullptr, &der, static_cast<long>(info.rgCertEncoded[i].cbData)));
    if (!cert) return refuse(CRYPT_E_ASN1_ERROR);
    std::string encoded(reinterpret_cast<const char*>(info.rgCertEncoded[i].pbData),
                        static_cast<size_t>(der - info.rgCertEncoded[i].pbData));
    if (std::find(certificates.begin(), certificates.end(), encoded) != certificates.end()) continue;
    if (!CMS_add1_cert(cms.get(), cert.get())) return refuse(CRYPT_E_ASN1_ERROR);
    certificates.push_back(std::move(encoded));
  }
  for (DWORD i = 0; i < info.cCrlEncoded; ++i) {
    const unsigned char* der = info.rgCrlEncoded[i].pbData;
    UniquePtr<X509_CRL> crl(d2i_X509_CRL(nullptr, &der, static_cast<long>(info.rgCrlEncoded[i].cbData)));
    if (!crl || !CMS_add1_crl(cms.get(), crl.get())) return refuse(CRYPT_E_ASN1_ERROR);
  }
  return std::make_unique<SignedEncoder>(std::move(cms), message_flags, (flags & CMSG_BV_BORROW_CONTENT_FLAG) != 0,
                                         std::move(certificates));
}

}  // namespace bv::platform
