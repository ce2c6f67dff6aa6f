// Hashed messages: CMS DigestedData (RFC 5652, section 7).
//
//   ContentInfo ::= SEQUENCE {
//     contentType ContentType,                  -- id-digestedData
//     content [0] EXPLICIT ANY DEFINED BY contentType }
//
//   DigestedData ::= SEQUENCE {
//     version CMSVersion,                       -- 0 for id-data, else 2
//     digestAlgorithm DigestAlgorithmIdentifier,
//     encapContentInfo EncapsulatedContentInfo,
//     digest Digest }                           -- OCTET STRING
//
//   EncapsulatedContentInfo ::= SEQUENCE {
//     eContentType ContentType,
//     eContent [0] EXPLICIT OCTET STRING OPTIONAL }  -- absent when detached
//
// The DER is written by hand straight into the caller's buffer, so the
// content is copied once on the way out and never re-encoded.
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstring>
#include <vector>

#include "advapi32/provider_internal.h"
#include "crypt32/der.h"
#include "crypt32/msg.h"
#include "crypt32/msg_internal.h"
#include "crypt32/oidinfo.h"
#include "kernel32/kernel32.h"
#include "openssl/ossl.h"
#include "output_space.h"

namespace bv::platform {
namespace {

constexpr char kIdData[] = "1.2.840.113549.1.7.1";
// 06 09 2A 86 48 86 F7 0D 01 07 05: the OID id-digestedData, encoded.
constexpr BYTE kIdDigestedData[] = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x05};

using der::kTagExplicit0;
using der::kTagInteger;
using der::kTagOctetString;
using der::kTagSequence;
using der::put_bytes;
using der::put_header;
using der::tlv_size;

std::vector<BYTE> encode_object(const ASN1_OBJECT* object) {
  std::vector<BYTE> der(static_cast<size_t>(i2d_ASN1_OBJECT(object, nullptr)));
  BYTE* out = der.data();
  i2d_ASN1_OBJECT(object, &out);
  return der;
}

// The AlgorithmIdentifier of the digest.  Parameters given by the caller
// are taken as they are; otherwise NULL or absent, as OpenSSL writes them
// for that digest (absent for SHA-1, NULL for the others).
bool encode_digest_algorithm(const CRYPT_ALGORITHM_IDENTIFIER& given, const EVP_MD* md, std::vector<BYTE>& der) {
  bv::ossl::UniquePtr<ASN1_OBJECT> oid(OBJ_txt2obj(given.pszObjId, 1));
  if (oid == nullptr) return bv::ossl::fail(CRYPT_E_OID_FORMAT);
  const std::vector<BYTE> oid_der = encode_object(oid.get());
  if (given.Parameters.cbData != 0) {
    const size_t body = oid_der.size() + given.Parameters.cbData;
    der.resize(tlv_size(body));
    BYTE* out = put_header(der.data(), kTagSequence, body);
    out = put_bytes(out, oid_der.data(), oid_der.size());
    put_bytes(out, given.Parameters.pbData, given.Parameters.cbData);
    return true;
  }
  const bool absent = (EVP_MD_get_flags(md) & EVP_MD_FLAG_DIGALGID_ABSENT) != 0;
  const size_t body = oid_der.size() + (absent ? 0 : 2);
  der.resize(tlv_size(body));
  BYTE* out = put_header(der.data(), kTagSequence, body);
  out = put_bytes(out, oid_der.data(), oid_der.size());
  if (!absent) {
    *out++ = 0x05;  // NULL
    *out++ = 0x00;
  }
  return true;
}

class HashedEncoder final : public MessageKind {
 public:
  HashedEncoder(HCRYPTHASH hash, bool detached, bool bare, bool borrow, std::vector<BYTE> algorithm,
                std::vector<BYTE> content_type, bool inner_is_data)
      : hash_(hash),
        detached_(detached),
        bare_(bare),
        algorithm_(std::move(algorithm)),
        content_type_(std::move(content_type)),
        version_(inner_is_data ? 0 : 2),
        content_(borrow) {}
  ~HashedEncoder() override { CryptDestroyHash(hash_); }

  DWORD type() const override { return CMSG_HASHED; }

  bool update(const BYTE* data, DWORD size, bool final) override {
    if (final_) {
      SetLastError(CRYPT_E_MSG_ERROR);
      return false;
    }
    if (!CryptHashData(hash_, data, size, 0)) return false;
    if (!detached_) content_.add(data, size, final);
    if (final) {
      const std::vector<BYTE>* value = finish_hash(*hash_from_handle(hash_));
      if (value == nullptr) return false;
      digest_ = *value;
      final_ = true;
    }
    return true;
  }

  bool get_param(DWORD param, DWORD index, void* data, DWORD* size) override {
    switch (param) {
      case CMSG_TYPE_PARAM: {
        const DWORD type = CMSG_HASHED;
        return copy_output(&type, sizeof type, data, size);
      }
      case CMSG_CONTENT_PARAM:
      case CMSG_BARE_CONTENT_PARAM:
        return get_encoded(param == CMSG_CONTENT_PARAM && !bare_, data, size);
      case CMSG_COMPUTED_HASH_PARAM:
        if (!ready()) return false;
        return copy_output(digest_.data(), static_cast<DWORD>(digest_.size()), data, size);
      default:
        SetLastError(CRYPT_E_INVALID_MSG_TYPE);
        return false;
    }
  }

 private:
  bool ready() const {
    if (!final_) SetLastError(CRYPT_E_MSG_ERROR);
    return final_;
  }

  size_t encapsulated_body() const {
    return content_type_.size() + (detached_ ? 0 : tlv_size(tlv_size(content_.size())));
  }
  size_t digested_data_body() const {
    return 3 + algorithm_.size() + tlv_size(encapsulated_body()) + tlv_size(digest_.size());
  }
  size_t content_info_body() const { return sizeof kIdDigestedData + tlv_size(tlv_size(digested_data_body())); }

  BYTE* put_digested_data(BYTE* out) const {
    out = put_header(out, kTagSequence, digested_data_body());
    *out++ = kTagInteger;
    *out++ = 1;
    *out++ = static_cast<BYTE>(version_);
    out = put_bytes(out, algorithm_.data(), algorithm_.size());
    out = put_header(out, kTagSequence, encapsulated_body());
    out = put_bytes(out, content_type_.data(), content_type_.size());
    if (!detached_) {
      out = put_header(out, kTagExplicit0, tlv_size(content_.size()));
      out = put_header(out, kTagOctetString, content_.size());
      if (content_.size() != 0) out = put_bytes(out, content_.data(), content_.size());
    }
    out = put_header(out, kTagOctetString, digest_.size());
    return put_bytes(out, digest_.data(), digest_.size());
  }

  bool get_encoded(bool content_info, void* data, DWORD* size) const {
    if (!ready()) return false;
    const size_t total = content_info ? tlv_size(content_info_body()) : tlv_size(digested_data_body());
    if (total > 0xFFFFFFFFu) {
      SetLastError(CRYPT_E_BAD_LEN);
      return false;
    }
    if (!prepare_output_space(data, size, static_cast<DWORD>(total))) return data == nullptr;
    BYTE* out = static_cast<BYTE*>(data);
    if (content_info) {
      out = put_header(out, kTagSequence, content_info_body());
      out = put_bytes(out, kIdDigestedData, sizeof kIdDigestedData);
      out = put_header(out, kTagExplicit0, tlv_size(digested_data_body()));
    }
    put_digested_data(out);
    return true;
  }

  HCRYPTHASH hash_;
  bool detached_;
  bool bare_;
  std::vector<BYTE> algorithm_;
  std::vector<BYTE> content_type_;
  int version_;
  EncoderContent content_;
  std::vector<BYTE> digest_;
  bool final_ = false;
};

}  // namespace

std::unique_ptr<MessageKind> open_hashed_encoder(DWORD flags, const CMSG_HASHED_ENCODE_INFO& info,
                                                 LPCSTR inner_content_type) {
  if (info.cbSize < sizeof(CMSG_HASHED_ENCODE_INFO) || info.HashAlgorithm.pszObjId == nullptr) {
    SetLastError(static_cast<DWORD>(E_INVALIDARG));
    return nullptr;
  }
  PCCRYPT_OID_INFO oid_info = CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, info.HashAlgorithm.pszObjId,
                                               CRYPT_HASH_ALG_OID_GROUP_ID);
  if (oid_info == nullptr) {
    SetLastError(CRYPT_E_UNKNOWN_ALGO);
    return nullptr;
  }

  // Without a provider the message hashes in a verify-only context of its
  // own; the hash keeps the provider alive either way.
  HCRYPTPROV provider = info.hCryptProv;
  const bool own_provider = provider == 0;
  HashObject hash;
  {
    ProviderContext own;
    if (own_provider) {
      if (!CryptAcquireContextA(own.receive(), nullptr, nullptr, PROV_GOST_2001_DH, CRYPT_VERIFYCONTEXT)) return nullptr;
      provider = own.get();
    }
    if (!CryptCreateHash(provider, oid_info->Algid, 0, 0, hash.receive())) return nullptr;
  }

  std::vector<BYTE> algorithm;
  if (!encode_digest_algorithm(info.HashAlgorithm, EVP_MD_CTX_get0_md(hash_from_handle(hash.get())->context.get()),
                               algorithm))
    return nullptr;
  const char* inner = inner_content_type != nullptr ? inner_content_type : kIdData;
  bv::ossl::UniquePtr<ASN1_OBJECT> inner_oid(OBJ_txt2obj(inner, 1));
  if (inner_oid == nullptr) {
    bv::ossl::fail(CRYPT_E_OID_FORMAT);
    return nullptr;
  }
  auto encoder = std::make_unique<HashedEncoder>(hash.get(), (flags & CMSG_DETACHED_FLAG) != 0,
                                                 (flags & CMSG_BARE_CONTENT_FLAG) != 0,
                                                 (flags & CMSG_BV_BORROW_CONTENT_FLAG) != 0, std::move(algorithm),
                                                 encode_object(inner_oid.get()), std::strcmp(inner, kIdData) == 0);
  hash.release();  // the encoder owns it now
  // The caller handed its reference over; the hash holds its own.
  if ((flags & CMSG_CRYPT_RELEASE_CONTEXT_FLAG) != 0 && !own_provider) CryptReleaseContext(provider, 0);
  return encoder;
}

}  // namespace bv::platform
