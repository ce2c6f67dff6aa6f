// Enveloped-data messages (CMSG_ENVELOPED): the content encrypted with GOST
// 28147-89 under a fresh key, that key transported to each recipient with
// its public key (GOST R 34.10-2001 or 2012), as the GOST engine does it for
// CMS; and the way back with a recipient's private key.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "advapi32/provider_handle.h"
#include "crypt32/cert.h"
#include "crypt32/der.h"
#include "crypt32/msg_internal.h"
#include "kernel32/kernel32.h"
#include "output_space.h"

namespace bv::platform {
namespace {

using bv::ossl::der_of;
using bv::ossl::fail;
using bv::ossl::UniquePtr;

// A certificate standing in for a recipient: what key transport reads of
// one, its issuer, serial number (CryptoAPI's little-endian order) and
// public key.
UniquePtr<X509> recipient_stand_in(const CERT_INFO& info) {
  UniquePtr<X509> cert(X509_new());
  const unsigned char* issuer_der = info.Issuer.pbData;
  UniquePtr<X509_NAME> issuer(d2i_X509_NAME(nullptr, &issuer_der, static_cast<long>(info.Issuer.cbData)));
  std::vector<unsigned char> serial(info.SerialNumber.pbData, info.SerialNumber.pbData + info.SerialNumber.cbData);
  std::reverse(serial.begin(), serial.end());
  UniquePtr<BIGNUM> number(BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr));
  UniquePtr<ASN1_STRING> serial_number(number ? BN_to_ASN1_INTEGER(number.get(), nullptr) : nullptr);

  // SubjectPublicKeyInfo again from its parts, then the key.
  const CERT_PUBLIC_KEY_INFO& spki = info.SubjectPublicKeyInfo;
  UniquePtr<X509_PUBKEY> public_key(X509_PUBKEY_new());
  UniquePtr<ASN1_OBJECT> algorithm(OBJ_txt2obj(spki.Algorithm.pszObjId, 1));
  UniquePtr<ASN1_TYPE> parameters;
  if (spki.Algorithm.Parameters.cbData != 0) {
    const unsigned char* cursor = spki.Algorithm.Parameters.pbData;
    parameters.reset(d2i_ASN1_TYPE(nullptr, &cursor, static_cast<long>(spki.Algorithm.Parameters.cbData)));
  }
  if (!cert || !issuer || !serial_number || !public_key || !algorithm) return nullptr;
  const int parameter_type = parameters ? parameters->type : V_ASN1_UNDEF;
  void* parameter_value = nullptr;
  if (parameters && parameter_type == V_ASN1_SEQUENCE) parameter_value = ASN1_STRING_dup(parameters->value.sequence);
  else if (parameters && parameter_type == V_ASN1_OBJECT) parameter_value = OBJ_dup(parameters->value.object);
  unsigned char* key_bits = static_cast<unsigned char*>(OPENSSL_memdup(spki.PublicKey.pbData, spki.PublicKey.cbData));
  if (!X509_PUBKEY_set0_param(public_key.get(), algorithm.release(), parameter_type, parameter_value, key_bits,
                              static_cast<int>(spki.PublicKey.cbData)))
    return nullptr;
  // Encoded and read back, so that the key is decoded by the engine.
  const std::string spki_der = der_of(public_key.get(), i2d_X509_PUBKEY);
  const auto* cursor = reinterpret_cast<const unsigned char*>(spki_der.data());
  UniquePtr<EVP_PKEY> key(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(spki_der.size())));
  if (!key || !X509_set_issuer_name(cert.get(), issuer.get()) ||
      !X509_set_serialNumber(cert.get(), serial_number.get()) || !X509_set_pubkey(cert.get(), key.get()))
    return nullptr;
  return cert;
}

class EnvelopedEncoder final : public MessageKind {
 public:
  explicit EnvelopedEncoder(UniquePtr<CMS_ContentInfo> cms) : cms_(std::move(cms)) {}
  DWORD type() const override { return CMSG_ENVELOPED; }

  bool update(const BYTE* data, DWORD size, bool final) override {
    if (finished_) return fail(CRYPT_E_MSG_ERROR);
    // The whole content in one final update (the usual case) is encrypted
    // where it lies; pieces are collected first.
    const bool in_one_piece = final && content_.empty();
    if (size != 0 && !in_one_piece) content_.insert(content_.end(), data, data + size);
    if (!final) return true;
    const void* bytes = in_one_piece ? static_cast<const void*>(data) : content_.data();
    const int length = static_cast<int>(in_one_piece ? size : content_.size());
    UniquePtr<BIO> in(BIO_new_mem_buf(bytes != nullptr ? bytes : "", length));
    const bool encrypted = in && CMS_final(cms_.get(), in.get(), nullptr, CMS_BINARY) == 1;
    OPENSSL_cleanse(content_.data(), content_.size());
    std::vector<BYTE>().swap(content_);
    if (!encrypted) return fail(NTE_BAD_KEY);
    encoded_length_ = i2d_CMS_ContentInfo(cms_.get(), nullptr);
    if (encoded_length_ <= 0) return fail(CRYPT_E_ASN1_ERROR);
    finished_ = true;
    ERR_clear_error();
    return true;
  }

  // The DER is written straight into the caller's buffer: a large message
  // is never held twice here.
  bool get_param(DWORD param, DWORD, void* data, DWORD* size) override {
    if (param == CMSG_TYPE_PARAM) {
      const DWORD type = CMSG_ENVELOPED;
      return copy_output(&type, sizeof type, data, size);
    }
    if (param != CMSG_CONTENT_PARAM) return fail(CRYPT_E_INVALID_MSG_TYPE);
    if (!finished_) return fail(CRYPT_E_MSG_ERROR);
    if (size == nullptr) return fail(static_cast<DWORD>(E_INVALIDARG));
    const DWORD needed = static_cast<DWORD>(encoded_length_);
    if (data == nullptr) {
      *size = needed;
      return true;
    }
    if (*size < needed) {
      *size = needed;
      return fail(ERROR_MORE_DATA);
    }
    auto* cursor = static_cast<unsigned char*>(data);
    if (i2d_CMS_ContentInfo(cms_.get(), &cursor) != encoded_length_) return fail(CRYPT_E_ASN1_ERROR);
    *size = needed;
    return true;
  }

 private:
  UniquePtr<CMS_ContentInfo> cms_;
  std::vector<BYTE> content_;
  bool finished_ = false;
  int encoded_length_ = 0;
};

class EnvelopedDecoder final : public MessageKind {
 public:
  explicit EnvelopedDecoder(DecodedContent content) : content_(std::move(content)) {}
  DWORD type() const override { return CMSG_ENVELOPED; }

  bool update(const BYTE*, DWORD, bool) override { return fail(CRYPT_E_MSG_ERROR); }

  bool get_param(DWORD param, DWORD index, void* data, DWORD* size) override {
    STACK_OF(CMS_RecipientInfo)* recipients = CMS_get0_RecipientInfos(content_.cms.get());
    switch (param) {
      case CMSG_TYPE_PARAM: {
        const DWORD type = CMSG_ENVELOPED;
        return copy_output(&type, sizeof type, data, size);
      }
      case CMSG_RECIPIENT_COUNT_PARAM: {
        const DWORD count = static_cast<DWORD>(sk_CMS_RecipientInfo_num(recipients));
        return copy_output(&count, sizeof count, data, size);
      }
      case CMSG_RECIPIENT_INFO_PARAM: {
        if (index >= static_cast<DWORD>(sk_CMS_RecipientInfo_num(recipients))) return fail(CRYPT_E_INVALID_INDEX);
        CMS_RecipientInfo* recipient = sk_CMS_RecipientInfo_value(recipients, static_cast<int>(index));
        ASN1_OCTET_STRING* key_id = nullptr;
        X509_NAME* issuer = nullptr;
        ASN1_INTEGER* serial = nullptr;
        if (CMS_RecipientInfo_type(recipient) != CMS_RECIPINFO_TRANS ||
            CMS_RecipientInfo_ktri_get0_signer_id(recipient, &key_id, &issuer, &serial) != 1 || issuer == nullptr)
          return fail(CRYPT_E_RECIPIENT_NOT_FOUND);
        return copy_issuer_serial(der_of(issuer, i2d_X509_NAME), little_endian_serial_of(serial), data, size);
      }
      case CMSG_CONTENT_PARAM: {
        if (!decrypted_) return fail(CRYPT_E_NOT_DECRYPTED);
        const char* bytes = nullptr;
        const long length = BIO_get_mem_data(plaintext_.get(), &bytes);
        return copy_output(bytes, static_cast<DWORD>(length > 0 ? length : 0), data, size);
      }
      default:
        return fail(CRYPT_E_INVALID_MSG_TYPE);
    }
  }

  // The content key opened with the recipient's private key, then the
  // content; a wrong key fails here and yields nothing.
  bool control(DWORD, DWORD control_type, const void* para) override {
    if (control_type != CMSG_CTRL_DECRYPT) return fail(CRYPT_E_CONTROL_TYPE);
    const auto* decrypt = static_cast<const CMSG_CTRL_DECRYPT_PARA*>(para);
    if (decrypt == nullptr || decrypt->cbSize < sizeof(CMSG_CTRL_DECRYPT_PARA)) return fail(static_cast<DWORD>(E_INVALIDARG));
    if (decrypted_) return fail(CRYPT_E_ALREADY_DECRYPTED);
    CryptProvider* provider = provider_from_handle(decrypt->hCryptProv);
    if (provider == nullptr) return false;
    if (!provider->key) return fail(NTE_NO_KEY);
    STACK_OF(CMS_RecipientInfo)* recipients = CMS_get0_RecipientInfos(content_.cms.get());
    if (decrypt->dwRecipientIndex >= static_cast<DWORD>(sk_CMS_RecipientInfo_num(recipients)))
      return fail(CRYPT_E_INVALID_INDEX);
    CMS_RecipientInfo* recipient = sk_CMS_RecipientInfo_value(recipients, static_cast<int>(decrypt->dwRecipientIndex));
    // The entry owns the key it is given and frees it when given another:
    // it gets a reference of its own.
    if (EVP_PKEY_up_ref(provider->key.get()) != 1) return fail(NTE_NO_MEMORY);
    CMS_RecipientInfo_set0_pkey(recipient, provider->key.get());
    const bool opened = CMS_RecipientInfo_decrypt(content_.cms.get(), recipient) == 1;
    CMS_RecipientInfo_set0_pkey(recipient, nullptr);
    if (!opened) return fail(NTE_BAD_DATA);
    // The plaintext is as long as the ciphertext (CFB): its buffer is had
    // at once, so it never grows by copies.
    ASN1_OCTET_STRING** encrypted = CMS_get0_content(content_.cms.get());
    const int expected = encrypted != nullptr && *encrypted != nullptr ? ASN1_STRING_length(*encrypted) : 0;
    UniquePtr<BUF_MEM> buffer(BUF_MEM_new());
    if (!buffer || (expected > 0 && BUF_MEM_grow(buffer.get(), static_cast<size_t>(expected)) == 0))
      return fail(NTE_NO_MEMORY);
    buffer->length = 0;  // room kept, nothing written yet
    UniquePtr<BIO> out(BIO_new(BIO_s_mem()));
    if (!out) return fail(NTE_NO_MEMORY);
    BIO_set_mem_buf(out.get(), buffer.release(), BIO_CLOSE);
    if (CMS_decrypt(content_.cms.get(), nullptr, nullptr, nullptr, out.get(), CMS_BINARY) != 1)
      return fail(NTE_BAD_DATA);
    plaintext_ = std::move(out);
    decrypted_ = true;
    // The ciphertext has served: a large message is not held twice.
    if (encrypted != nullptr) {
      ASN1_OCTET_STRING_free(*encrypted);
      *encrypted = nullptr;
    }
    ERR_clear_error();
    return true;
  }

 private:
  DecodedContent content_;
  UniquePtr<BIO> plaintext_;
  bool decrypted_ = false;
};

// The GOST engine takes the parameters of a GOST 28147-89 content cipher
// as they come and crashes on a malformed one (a missing parameter set,
// an IV in a constructed string): they must be an 8-byte IV and a
// parameter set OID before it sees them.
// A BER message is walked in its DER form.
bool gost_cipher_parameters_well_formed(const DecodedContent& content) {
  std::string reencoded;
  std::string_view der = content.der;
  std::vector<der::Element> algorithm, parameters;
  if (!der::enveloped_content_algorithm(der, &algorithm)) {
    reencoded = der_of(content.cms.get(), i2d_CMS_ContentInfo);
    der = reencoded;
    if (!der::enveloped_content_algorithm(der, &algorithm)) return false;
  }
  const auto nid_of = [&](const der::Element& element) {
    const auto* cursor = reinterpret_cast<const unsigned char*>(der.data() + element.offset);
    UniquePtr<ASN1_OBJECT> oid(d2i_ASN1_OBJECT(nullptr, &cursor, static_cast<long>(element.end() - element.offset)));
    return oid ? OBJ_obj2nid(oid.get()) : NID_undef;
  };
  if (nid_of(algorithm[0]) != NID_id_Gost28147_89) return true;
  // Identifier octets compared whole: a constructed OCTET STRING has the
  // right tag number and crashed the engine too, as did a parameter set it
  // has no S-box for.
  const auto identifier = [&](const der::Element& element) { return static_cast<unsigned char>(der[element.offset]); };
  if (algorithm.size() != 2 || identifier(algorithm[1]) != 0x30 || !der::children(der, algorithm[1], &parameters) ||
      parameters.size() != 2 || identifier(parameters[0]) != 0x04 || parameters[0].length != 8 ||
      identifier(parameters[1]) != 0x06)
    return false;
  switch (nid_of(parameters[1])) {
    case NID_id_Gost28147_89_TestParamSet:
    case NID_id_Gost28147_89_CryptoPro_A_ParamSet:
    case NID_id_Gost28147_89_CryptoPro_B_ParamSet:
    case NID_id_Gost28147_89_CryptoPro_C_ParamSet:
    case NID_id_Gost28147_89_CryptoPro_D_ParamSet:
    case NID_id_tc26_gost_28147_param_Z:
      return true;
    default:
      return false;
  }
}

}  // namespace

// The recipients are taken over at the open, so the caller's encode
// information need not outlive it.
std::unique_ptr<MessageKind> open_enveloped_encoder(DWORD, const CMSG_ENVELOPED_ENCODE_INFO& info) {
  const auto refuse = [](DWORD error) {
    fail(error);
    return std::unique_ptr<MessageKind>();
  };
  if (info.cbSize < sizeof(CMSG_ENVELOPED_ENCODE_INFO) || (info.cRecipients != 0 && info.rgpRecipients == nullptr))
    return refuse(static_cast<DWORD>(E_INVALIDARG));
  if (bv::ossl::gost_engine() == nullptr) return refuse(NTE_PROV_TYPE_NOT_DEF);
  UniquePtr<ASN1_OBJECT> cipher_oid(info.ContentEncryptionAlgorithm.pszObjId != nullptr
                                        ? OBJ_txt2obj(info.ContentEncryptionAlgorithm.pszObjId, 1)
                                        : nullptr);
  const EVP_CIPHER* cipher = cipher_oid ? bv::ossl::cipher_by_nid(OBJ_obj2nid(cipher_oid.get())) : nullptr;
  if (cipher == nullptr) return refuse(CRYPT_E_UNKNOWN_ALGO);
  UniquePtr<CMS_ContentInfo> cms(CMS_encrypt(nullptr, nullptr, cipher, CMS_BINARY | CMS_PARTIAL));
  if (!cms) return refuse(NTE_NO_MEMORY);
  for (DWORD i = 0; i < info.cRecipients; ++i) {
    if (info.rgpRecipients[i] == nullptr) return refuse(static_cast<DWORD>(E_INVALIDARG));
    UniquePtr<X509> recipient = recipient_stand_in(*info.rgpRecipients[i]);
    if (!recipient) return refuse(CRYPT_E_ASN1_ERROR);
    // The GOST key transport must know the content cipher before the
    // recipient's entry is made: the key's context is kept for that.
    CMS_RecipientInfo* entry = CMS_add1_recipient_cert(cms.get(), recipient.get(), CMS_BINARY | CMS_KEY_PARAM);
    EVP_PKEY_CTX* key_context = entry != nullptr ? CMS_RecipientInfo_get0_pkey_ctx(entry) : nullptr;
    if (key_context == nullptr) return refuse(NTE_BAD_KEY);
    const int told = EVP_PKEY_CTX_ctrl(key_context, -1, -1, EVP_PKEY_CTRL_CIPHER, EVP_CIPHER_get_nid(cipher), nullptr);
    if (told <= 0 && told != -2) return refuse(NTE_BAD_KEY);
  }
  ERR_clear_error();
  return std::make_unique<EnvelopedEncoder>(std::move(cms));
}

std::unique_ptr<MessageKind> open_enveloped_decoder(DWORD, DecodedContent content) {
  if (!gost_cipher_parameters_well_formed(content)) {
    fail(CRYPT_E_ASN1_BADTAG);
    return nullptr;
  }
  return std::make_unique<EnvelopedDecoder>(std::move(content));
}

}  // namespace bv::platform
