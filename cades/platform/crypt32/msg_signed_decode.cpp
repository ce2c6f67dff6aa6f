// Decoded signed-data messages: the parsed message answers the queries, and
// CMSG_ENCODED_MESSAGE encodes it again with whatever was added to it since
// (unsigned attributes of the CAdES layer, for one).
#include <memory>
#include <utility>
#include <vector>

#include "crypt32/msg_internal.h"
#include "kernel32/kernel32.h"
#include "output_space.h"

namespace bv::platform {
namespace {

using bv::ossl::fail;

class SignedDecoder final : public MessageKind, public DecodedSigned {
 public:
  SignedDecoder(DWORD flags, DecodedContent content) : flags_(flags), content_(std::move(content)) {}

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
        return copy_der(cms, i2d_CMS_ContentInfo, data, size);
      default:
        SetLastError(CRYPT_E_INVALID_MSG_TYPE);
        return false;
    }
  }

 private:
  template <typename Object, typename Encode>
  static bool copy_der(Object* object, Encode encode, void* data, DWORD* size) {
    const int needed = encode(object, nullptr);
    if (needed <= 0) return fail(CRYPT_E_ASN1_ERROR);
    if (!prepare_output_space(data, size, static_cast<DWORD>(needed))) return data == nullptr;
    auto* out = static_cast<unsigned char*>(data);
    return encode(object, &out) == needed || fail(CRYPT_E_ASN1_ERROR);
  }

  DWORD flags_;
  DecodedContent content_;
  std::vector<BYTE> detached_content_;
  bool detached_given_ = false;
};

}  // namespace

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
