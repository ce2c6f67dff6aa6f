// Decoded signed-data messages: the parsed message answers the queries, takes
// new signers and certificates, and CMSG_ENCODED_MESSAGE encodes it again
// with whatever was added to it since (unsigned attributes of the CAdES
// layer, for one).  A signer nobody changed keeps the bytes it came with, and
// the certificates their order: OpenSSL would sort both sets, and re-encode
// what another producer wrote in its own way.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "crypt32/cert.h"
#include "crypt32/flat_record.h"
#include "crypt32/msg_internal.h"
#include "crypt32/store.h"
#include "kernel32/kernel32.h"
#include "output_space.h"

namespace bv::platform {
namespace {

using bv::ossl::fail;
using bv::ossl::UniquePtr;

std::string oid_text(const ASN1_OBJECT* oid) {
  char text[128];
  const int length = OBJ_obj2txt(text, sizeof text, oid, 1);
  return length > 0 && length < static_cast<int>(sizeof text) ? std::string(text) : std::string();
}

using bv::ossl::bytes_of;
using bv::ossl::der_of;

// A blob field of the record at `field` filled with `bytes`.
void put_blob(FlatRecord& record, size_t field, const std::string& bytes) {
  record.at<CRYPT_INTEGER_BLOB>(field).cbData = static_cast<DWORD>(bytes.size());
  record.point(field + offsetof(CRYPT_INTEGER_BLOB, pbData), record.add_bytes(bytes.data(), bytes.size()));
}

void put_algorithm(FlatRecord& record, size_t field, const X509_ALGOR* algorithm) {
  if (algorithm == nullptr) return;
  const ASN1_OBJECT* oid = nullptr;
  int parameter_type = V_ASN1_UNDEF;
  const void* parameter = nullptr;
  X509_ALGOR_get0(&oid, &parameter_type, &parameter, algorithm);
  record.point(field + offsetof(CRYPT_ALGORITHM_IDENTIFIER, pszObjId), record.add_text(oid_text(oid)));
  if (parameter_type != V_ASN1_UNDEF) {
    UniquePtr<ASN1_TYPE> value(ASN1_TYPE_new());
    if (value && ASN1_TYPE_set1(value.get(), parameter_type, parameter))
      put_blob(record, field + offsetof(CRYPT_ALGORITHM_IDENTIFIER, Parameters), der_of(value.get(), i2d_ASN1_TYPE));
  }
}

// CryptoAPI keeps serial numbers little-endian.
std::string little_endian_serial(const ASN1_INTEGER* serial) {
  std::string bytes = der_of(serial, i2d_ASN1_INTEGER);
  // Tag and length go: the content octets, big-endian with their sign byte.
  const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
  long length = 0;
  int tag = 0, tag_class = 0;
  if (bytes.empty() || (ASN1_get_object(&cursor, &length, &tag, &tag_class, static_cast<long>(bytes.size())) & 0x80) != 0)
    return {};
  std::string content(reinterpret_cast<const char*>(cursor), static_cast<size_t>(length));
  return std::string(content.rbegin(), content.rend());
}

void put_attributes(FlatRecord& record, size_t field, CMS_SignerInfo* signer, bool authenticated) {
  const int count = authenticated ? CMS_signed_get_attr_count(signer) : CMS_unsigned_get_attr_count(signer);
  if (count <= 0) return;
  record.at<CRYPT_ATTRIBUTES>(field).cAttr = static_cast<DWORD>(count);
  const size_t attributes = record.reserve<CRYPT_ATTRIBUTE>(static_cast<size_t>(count));
  record.point(field + offsetof(CRYPT_ATTRIBUTES, rgAttr), attributes);
  for (int i = 0; i < count; ++i) {
    X509_ATTRIBUTE* attribute = authenticated ? CMS_signed_get_attr(signer, i) : CMS_unsigned_get_attr(signer, i);
    const size_t at = attributes + static_cast<size_t>(i) * sizeof(CRYPT_ATTRIBUTE);
    record.point(at + offsetof(CRYPT_ATTRIBUTE, pszObjId), record.add_text(oid_text(X509_ATTRIBUTE_get0_object(attribute))));
    const int values = X509_ATTRIBUTE_count(attribute);
    record.at<CRYPT_ATTRIBUTE>(at).cValue = static_cast<DWORD>(values);
    const size_t blobs = record.reserve<CRYPT_ATTR_BLOB>(static_cast<size_t>(values));
    record.point(at + offsetof(CRYPT_ATTRIBUTE, rgValue), blobs);
    for (int v = 0; v < values; ++v)
      put_blob(record, blobs + static_cast<size_t>(v) * sizeof(CRYPT_ATTR_BLOB),
               der_of(X509_ATTRIBUTE_get0_type(attribute, v), i2d_ASN1_TYPE));
  }
}

// The signer's issuer (DER) and serial number (little-endian), as a
// signer identifier names them; false for one named by key identifier.
bool signer_issuer_serial(CMS_SignerInfo* signer, std::string& issuer, std::string& serial) {
  ASN1_OCTET_STRING* key_id = nullptr;
  X509_NAME* name = nullptr;
  ASN1_INTEGER* number = nullptr;
  if (CMS_SignerInfo_get0_signer_id(signer, &key_id, &name, &number) != 1 || name == nullptr || number == nullptr)
    return false;
  issuer = der_of(name, i2d_X509_NAME);
  serial = little_endian_serial(number);
  return true;
}

// The parts of a message as it came in that its encoding keeps.
struct OriginalParts {
  bool known = false;  // false for a BER message: everything is encoded anew
  std::vector<std::string> certificates, signers;
};

OriginalParts original_parts(std::string_view encoded, int signer_count) {
  OriginalParts parts;
  std::vector<der::Element> content_info, fields, elements;
  if (!der::signed_data_fields(encoded, &content_info, &fields)) return parts;
  for (const der::Element& field : fields)
    if (field.tag_class == V_ASN1_CONTEXT_SPECIFIC && field.tag == 0) {
      if (!der::children(encoded, field, &elements)) return parts;
      for (const der::Element& e : elements) parts.certificates.emplace_back(e.in(encoded));
    }
  if (!der::children(encoded, fields.back(), &elements) || static_cast<int>(elements.size()) != signer_count)
    return parts;
  for (const der::Element& e : elements) parts.signers.emplace_back(e.in(encoded));
  parts.known = true;
  return parts;
}

// The original elements still in `now`, in their order, then the new ones.
std::string merged_set(const std::vector<std::string>& original, std::string_view encoded,
                       const std::vector<der::Element>& now) {
  std::string out;
  for (const std::string& kept : original)
    for (const der::Element& e : now)
      if (e.in(encoded) == kept) {
        out += kept;
        break;
      }
  for (const der::Element& e : now)
    if (std::find(original.begin(), original.end(), e.in(encoded)) == original.end()) out.append(e.in(encoded));
  return out;
}

// The signature of a signer just added, over `content`: over its signed
// attributes with the content's digest among them, or over the content.
bool sign_added(CMS_ContentInfo* cms, CMS_SignerInfo* signer, std::string_view content) {
  EVP_PKEY* key = nullptr;
  X509_ALGOR* digest_algorithm = nullptr;
  CMS_SignerInfo_get0_algs(signer, &key, nullptr, &digest_algorithm, nullptr);
  const EVP_MD* md = digest_algorithm != nullptr ? bv::ossl::digest_by_nid(OBJ_obj2nid(digest_algorithm->algorithm)) : nullptr;
  if (key == nullptr || md == nullptr) return fail(CRYPT_E_UNKNOWN_ALGO);
  UniquePtr<EVP_MD_CTX> context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), md, nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), content.data(), content.size()) != 1)
    return fail(NTE_BAD_HASH);
  if (CMS_signed_get_attr_count(signer) >= 0) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digest_length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &digest_length) != 1 ||
        !CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, digest,
                                     static_cast<int>(digest_length)) ||
        !CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_contentType, V_ASN1_OBJECT,
                                     const_cast<ASN1_OBJECT*>(CMS_get0_eContentType(cms)), -1))
      return fail(CRYPT_E_ASN1_ERROR);
    return CMS_SignerInfo_sign(signer) == 1 || fail(NTE_BAD_SIGNATURE);
  }
  std::vector<unsigned char> signature(static_cast<size_t>(EVP_PKEY_get_size(key)));
  unsigned int signature_length = 0;
  if (EVP_SignFinal(context.get(), signature.data(), &signature_length, key) != 1 ||
      !ASN1_STRING_set(CMS_SignerInfo_get0_signature(signer), signature.data(), static_cast<int>(signature_length)))
    return fail(NTE_BAD_SIGNATURE);
  return true;
}

class SignedDecoder final : public MessageKind, public DecodedSigned {
 public:
  SignedDecoder(DWORD flags, DecodedContent content)
      : flags_(flags),
        content_(std::move(content)),
        original_(original_parts(content_.der, sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(content_.cms.get())))),
        changed_(original_.signers.size(), false) {
    content_.der = {};
  }

  void mark_changed(CMS_SignerInfo* signer) override {
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(content_.cms.get());
    const int index = sk_CMS_SignerInfo_find(signers, signer);
    if (index >= 0 && static_cast<size_t>(index) < changed_.size()) changed_[static_cast<size_t>(index)] = true;
    ++generation_;
  }

  CMS_SignerInfo* add_signed_signer(const CMSG_SIGNER_ENCODE_INFO& info, SignedForm form) override {
    bv::ossl::gost_engine();
    std::string_view content;
    ASN1_OCTET_STRING** attached = CMS_get0_content(content_.cms.get());
    if (attached != nullptr && *attached != nullptr) {
      content = bytes_of(*attached);
    } else if (detached_given_) {
      content = std::string_view(reinterpret_cast<const char*>(detached_content_.data()), detached_content_.size());
    } else {
      fail(CRYPT_E_STREAM_MSG_NOT_READY);  // a detached message without its content
      return nullptr;
    }
    CMS_SignerInfo* signer = add_signer(content_.cms.get(), info, form);
    if (signer == nullptr) return nullptr;
    if (!sign_added(content_.cms.get(), signer, content)) {
      const DWORD error = GetLastError();
      remove_added_signer(signer);
      fail(error);
      return nullptr;
    }
    ++generation_;
    return signer;
  }

  void remove_added_signer(CMS_SignerInfo* signer) override {
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(content_.cms.get());
    const int index = sk_CMS_SignerInfo_find(signers, signer);
    if (index < 0 || static_cast<size_t>(index) < changed_.size()) return;  // not one that was added
    sk_CMS_SignerInfo_delete(signers, index);
    // OpenSSL frees a SignerInfo only with a message that holds it.
    if (!removed_) removed_.reset(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_BINARY));
    if (removed_) sk_CMS_SignerInfo_push(CMS_get0_SignerInfos(removed_.get()), signer);
    ++generation_;
  }

  DWORD type() const override { return CMSG_SIGNED; }
  CMS_ContentInfo* cms() override { return content_.cms.get(); }
  const std::vector<BYTE>* detached_content() const override {
    return detached_given_ ? &detached_content_ : nullptr;
  }

  // After the message, a detached one takes its content in one more update.
  bool update(const BYTE* data, DWORD size, bool final) override {
    if ((flags_ & CMSG_DETACHED_FLAG) == 0 || detached_given_) {
      SetLastError(CRYPT_E_MSG_ERROR);
      return false;
    }
    if (size != 0) detached_content_.insert(detached_content_.end(), data, data + size);
    detached_given_ = final;
    return true;
  }

  bool get_param(DWORD param, DWORD index, void* data, DWORD* size) override {
    CMS_ContentInfo* cms = content_.cms.get();
    switch (param) {
      case CMSG_TYPE_PARAM: {
        const DWORD type = CMSG_SIGNED;
        return copy_output(&type, sizeof type, data, size);
      }
      case CMSG_CONTENT_PARAM: {
        if (detached_given_)
          return copy_output(detached_content_.data(), static_cast<DWORD>(detached_content_.size()), data, size);
        ASN1_OCTET_STRING** content = CMS_get0_content(cms);
        if (content == nullptr || *content == nullptr) return copy_output(nullptr, 0, data, size);
        return copy_output(ASN1_STRING_get0_data(*content), static_cast<DWORD>(ASN1_STRING_length(*content)), data,
                           size);
      }
      case CMSG_SIGNER_COUNT_PARAM: {
        const DWORD count = static_cast<DWORD>(sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms)));
        return copy_output(&count, sizeof count, data, size);
      }
      case CMSG_CERT_COUNT_PARAM: {
        bv::ossl::UniquePtr<STACK_OF(X509)> certificates(CMS_get1_certs(cms));
        const DWORD count = certificates ? static_cast<DWORD>(sk_X509_num(certificates.get())) : 0;
        return copy_output(&count, sizeof count, data, size);
      }
      case CMSG_CERT_PARAM: {
        bv::ossl::UniquePtr<STACK_OF(X509)> certificates(CMS_get1_certs(cms));
        if (!certificates || index >= static_cast<DWORD>(sk_X509_num(certificates.get()))) {
          SetLastError(CRYPT_E_INVALID_INDEX);
          return false;
        }
        return copy_der(sk_X509_value(certificates.get(), static_cast<int>(index)), i2d_X509, data, size);
      }
      case CMSG_ENCODED_MESSAGE:
        if (!encode()) return false;
        return copy_output(encoded_.data(), static_cast<DWORD>(encoded_.size()), data, size);
      case CMSG_SIGNER_INFO_PARAM:
      case CMSG_SIGNER_CERT_INFO_PARAM: {
        CMS_SignerInfo* signer = signer_at(index);
        std::string issuer, serial;
        if (signer == nullptr) return false;
        if (!signer_issuer_serial(signer, issuer, serial)) return fail(CRYPT_E_ISSUER_SERIALNUMBER);
        if (param == CMSG_SIGNER_CERT_INFO_PARAM) return copy_issuer_serial(issuer, serial, data, size);
        FlatRecord record(sizeof(CMSG_SIGNER_INFO));
        X509_ALGOR *digest = nullptr, *signature = nullptr;
        CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, &signature);
        record.at<CMSG_SIGNER_INFO>(0).dwVersion = 1;  // named by issuer and serial number
        put_blob(record, offsetof(CMSG_SIGNER_INFO, Issuer), issuer);
        put_blob(record, offsetof(CMSG_SIGNER_INFO, SerialNumber), serial);
        put_algorithm(record, offsetof(CMSG_SIGNER_INFO, HashAlgorithm), digest);
        put_algorithm(record, offsetof(CMSG_SIGNER_INFO, HashEncryptionAlgorithm), signature);
        const ASN1_OCTET_STRING* value = CMS_SignerInfo_get0_signature(signer);
        put_blob(record, offsetof(CMSG_SIGNER_INFO, EncryptedHash),
                 std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                             static_cast<size_t>(ASN1_STRING_length(value))));
        put_attributes(record, offsetof(CMSG_SIGNER_INFO, AuthAttrs), signer, true);
        put_attributes(record, offsetof(CMSG_SIGNER_INFO, UnauthAttrs), signer, false);
        return record.copy_out(data, size);
      }
      default:
        SetLastError(CRYPT_E_INVALID_MSG_TYPE);
        return false;
    }
  }

  // Signer `index` with the certificate a caller gives: the proof of its
  // signature as the platform's message service gives it.
  bool control(DWORD, DWORD control_type, const void* para) override {
    if (control_type == CMSG_CTRL_ADD_SIGNER) {
      if (para == nullptr) return fail(static_cast<DWORD>(E_INVALIDARG));
      return add_signed_signer(*static_cast<const CMSG_SIGNER_ENCODE_INFO*>(para), SignedForm::plain) != nullptr;
    }
    if (control_type == CMSG_CTRL_ADD_CERT) return add_certificate(static_cast<const CRYPT_DATA_BLOB*>(para));
    if (control_type != CMSG_CTRL_VERIFY_SIGNATURE_EX) return fail(CRYPT_E_CONTROL_TYPE);
    const auto* verify = static_cast<const CMSG_CTRL_VERIFY_SIGNATURE_EX_PARA*>(para);
    if (verify == nullptr || verify->cbSize < sizeof(CMSG_CTRL_VERIFY_SIGNATURE_EX_PARA) ||
        verify->dwSignerType != CMSG_VERIFY_SIGNER_CERT || verify->pvSigner == nullptr)
      return fail(static_cast<DWORD>(E_INVALIDARG));
    X509* cert = certificate_x509(static_cast<PCCERT_CONTEXT>(verify->pvSigner));
    CMS_SignerInfo* signer = signer_at(verify->dwSignerIndex);
    if (cert == nullptr || signer == nullptr) return false;
    return verify_signer(*this, signer, cert);
  }

 private:
  template <typename Object, typename Encode>
  static bool copy_der(Object* object, Encode encode, void* data, DWORD* size) {
    const int needed = encode(object, nullptr);
    if (needed <= 0) return fail(CRYPT_E_ASN1_ERROR);
    if (!prepare_output_space(data, size, static_cast<DWORD>(needed))) return data == nullptr && size != nullptr;
    auto* out = static_cast<unsigned char*>(data);
    return encode(object, &out) == needed || fail(CRYPT_E_ASN1_ERROR);
  }

 private:
  // A certificate the message has already is not added again.
  bool add_certificate(const CRYPT_DATA_BLOB* blob) {
    if (blob == nullptr || (blob->cbData != 0 && blob->pbData == nullptr)) return fail(static_cast<DWORD>(E_INVALIDARG));
    const unsigned char* cursor = blob->pbData;
    UniquePtr<X509> cert(d2i_X509(nullptr, &cursor, static_cast<long>(blob->cbData)));
    if (!cert) return fail(CRYPT_E_ASN1_ERROR);
    UniquePtr<STACK_OF(X509)> certificates(CMS_get1_certs(content_.cms.get()));
    for (int i = 0; certificates && i < sk_X509_num(certificates.get()); ++i)
      if (X509_cmp(sk_X509_value(certificates.get(), i), cert.get()) == 0) return true;
    if (!CMS_add1_cert(content_.cms.get(), cert.get())) return fail(CRYPT_E_ASN1_ERROR);
    ++generation_;
    return true;
  }

  // The message as it stands, once per change: OpenSSL's encoding with the
  // certificates in their first order and the unchanged signers' own bytes
  // put back, written into one buffer.
  bool encode() {
    if (encoded_generation_ == generation_ && !encoded_.empty()) return true;
    const int fresh_size = i2d_CMS_ContentInfo(content_.cms.get(), nullptr);
    if (fresh_size <= 0) return fail(CRYPT_E_ASN1_ERROR);
    std::string fresh(static_cast<size_t>(fresh_size), '\0');
    auto* out = reinterpret_cast<unsigned char*>(fresh.data());
    if (i2d_CMS_ContentInfo(content_.cms.get(), &out) != fresh_size) return fail(CRYPT_E_ASN1_ERROR);
    if (!original_.known) {
      encoded_ = std::move(fresh);
      encoded_generation_ = generation_;
      return true;
    }
    std::vector<der::Element> content_info, fields, elements;
    if (!der::signed_data_fields(fresh, &content_info, &fields) || !der::children(fresh, fields.back(), &elements))
      return fail(CRYPT_E_ASN1_ERROR);
    std::vector<std::string_view> signers;
    if (!signer_elements_in_order(fresh, elements, CMS_get0_SignerInfos(content_.cms.get()), &signers))
      return fail(CRYPT_E_ASN1_ERROR);
    std::string signer_set;
    for (size_t i = 0; i < signers.size(); ++i)
      signer_set.append(i < changed_.size() && !changed_[i] ? std::string_view(original_.signers[i]) : signers[i]);

    // SignedData's fields with the two sets replaced, then the envelopes
    // around it, each with its new length.
    std::vector<std::string> sets;  // headers and set contents made here
    std::vector<std::string_view> parts;
    sets.reserve(2 * fields.size());
    for (size_t f = 0; f < fields.size(); ++f) {
      const der::Element& field = fields[f];
      std::string content;
      BYTE tag = 0;
      if (f + 1 == fields.size()) {
        content = std::move(signer_set);
        tag = der::kTagSet;
      } else if (field.tag_class == V_ASN1_CONTEXT_SPECIFIC && field.tag == 0) {
        if (!der::children(fresh, field, &elements)) return fail(CRYPT_E_ASN1_ERROR);
        content = merged_set(original_.certificates, fresh, elements);
        tag = der::kTagExplicit0;  // [0] IMPLICIT SET OF, constructed
      } else {
        parts.push_back(field.in(fresh));
        continue;
      }
      sets.push_back(der::header(tag, content.size()));
      parts.push_back(sets.back());
      sets.push_back(std::move(content));
      parts.push_back(sets.back());
    }
    size_t signed_data_size = 0;
    for (std::string_view part : parts) signed_data_size += part.size();
    const std::string_view content_type = content_info[0].in(fresh);
    const size_t explicit_size = der::tlv_size(signed_data_size);
    const size_t outer_size = content_type.size() + der::tlv_size(explicit_size);
    std::string encoded;
    encoded.reserve(der::tlv_size(outer_size));
    encoded += der::header(der::kTagSequence, outer_size);
    encoded += content_type;
    encoded += der::header(der::kTagExplicit0, explicit_size);
    encoded += der::header(der::kTagSequence, signed_data_size);
    for (std::string_view part : parts) encoded += part;
    encoded_ = std::move(encoded);
    encoded_generation_ = generation_;
    return true;
  }

  CMS_SignerInfo* signer_at(DWORD index) {
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(content_.cms.get());
    if (index >= static_cast<DWORD>(sk_CMS_SignerInfo_num(signers))) {
      fail(CRYPT_E_INVALID_INDEX);
      return nullptr;
    }
    return sk_CMS_SignerInfo_value(signers, static_cast<int>(index));
  }

  DWORD flags_;
  DecodedContent content_;
  std::vector<BYTE> detached_content_;
  bool detached_given_ = false;
  OriginalParts original_;
  std::vector<bool> changed_;  // per original signer
  UniquePtr<CMS_ContentInfo> removed_;  // holds the signers taken out again, to be freed with it
  uint64_t generation_ = 0;  // counts the changes
  uint64_t encoded_generation_ = 0;
  std::string encoded_;
};

}  // namespace

std::string little_endian_serial_of(const ASN1_INTEGER* serial) { return little_endian_serial(serial); }

bool copy_issuer_serial(const std::string& issuer, const std::string& serial, void* data, DWORD* size) {
  FlatRecord record(sizeof(CERT_INFO));
  put_blob(record, offsetof(CERT_INFO, Issuer), issuer);
  put_blob(record, offsetof(CERT_INFO, SerialNumber), serial);
  return record.copy_out(data, size);
}

bool verify_signer(DecodedSigned& message, CMS_SignerInfo* signer, X509* cert) {
  bv::ossl::gost_engine();
  const std::vector<BYTE>* detached = message.detached_content();
  if (CMS_get0_content(message.cms()) == nullptr || *CMS_get0_content(message.cms()) == nullptr) {
    if (detached == nullptr) return fail(CRYPT_E_STREAM_MSG_NOT_READY);  // a detached message without its content
  }
  UniquePtr<BIO> content(detached != nullptr ? BIO_new_mem_buf(detached->empty() ? "" : static_cast<const void*>(detached->data()),
                                                                static_cast<int>(detached->size()))
                                             : nullptr);
  CMS_SignerInfo_set1_signer_cert(signer, cert);
  const bool has_attributes = CMS_signed_get_attr_count(signer) > 0;
  if (has_attributes && CMS_SignerInfo_verify(signer) != 1) return fail(NTE_BAD_SIGNATURE);
  UniquePtr<BIO> chain(CMS_dataInit(message.cms(), content.get()));
  if (!chain) return fail(CRYPT_E_MSG_ERROR);
  content.release();  // the chain owns it now
  char buffer[16384];
  while (BIO_read(chain.get(), buffer, sizeof buffer) > 0) {
  }
  if (CMS_SignerInfo_verify_content(signer, chain.get()) != 1)
    return fail(has_attributes ? CRYPT_E_HASH_VALUE : NTE_BAD_SIGNATURE);
  ERR_clear_error();
  return true;
}

std::unique_ptr<MessageKind> open_signed_decoder(DWORD flags, DecodedContent content) {
  return std::make_unique<SignedDecoder>(flags, std::move(content));
}

DecodedSigned* decoded_signed(HCRYPTMSG handle) {
  CryptMsg* message = message_from_handle(handle);
  if (message == nullptr) return nullptr;
  auto* decoded = dynamic_cast<DecodedSigned*>(message->kind->decided());
  if (decoded == nullptr) SetLastError(CRYPT_E_INVALID_MSG_TYPE);
  return decoded;
}

}  // namespace bv::platform
