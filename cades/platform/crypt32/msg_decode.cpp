// Decoding of messages whose type the caller does not name: the bytes are
// collected until the final update, parsed once, and the content type picks
// the kind that answers every later call (a detached message's content
// included).
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "crypt32/msg_internal.h"
#include "kernel32/kernel32.h"

namespace bv::platform {
namespace {

class UndecidedMessage final : public MessageKind {
 public:
  UndecidedMessage(DWORD flags, DWORD expected_type) : flags_(flags), expected_type_(expected_type) {}

  DWORD type() const override { return decided_ ? decided_->type() : 0; }

  bool update(const BYTE* data, DWORD size, bool final) override {
    if (decided_) return decided_->update(data, size, final);
    // The whole message in one final update (the usual case) is parsed where
    // it lies; pieces are collected first.
    const bool in_one_piece = final && pending_.empty();
    if (size != 0 && !in_one_piece) pending_.insert(pending_.end(), data, data + size);
    if (!final) return true;
    // GOST public keys of the message's certificates are decoded as they are
    // parsed, so the engine comes first.
    bv::ossl::gost_engine();
    DecodedContent content;
    const unsigned char* start = in_one_piece ? data : pending_.data();
    const unsigned char* cursor = start;
    const long length = static_cast<long>(in_one_piece ? size : pending_.size());
    content.cms.reset(cursor != nullptr ? d2i_CMS_ContentInfo(nullptr, &cursor, length) : nullptr);
    ERR_clear_error();
    // The collected pieces go once the kind has opened: it may read them.
    const std::vector<BYTE> collected = std::move(pending_);
    pending_.clear();
    if (!content.cms) {
      SetLastError(CRYPT_E_ASN1_BADTAG);
      return false;
    }
    const int content_type = OBJ_obj2nid(CMS_get0_type(content.cms.get()));
    const DWORD type = content_type == NID_pkcs7_signed ? CMSG_SIGNED
                       : content_type == NID_pkcs7_enveloped ? CMSG_ENVELOPED
                                                              : 0;
    if (type == 0 || (expected_type_ != 0 && type != expected_type_)) {
      SetLastError(type == 0 ? CRYPT_E_INVALID_MSG_TYPE : CRYPT_E_UNEXPECTED_MSG_TYPE);
      return false;
    }
    content.der = std::string_view(reinterpret_cast<const char*>(start), static_cast<size_t>(cursor - start));
    std::unique_ptr<MessageKind> kind = type == CMSG_SIGNED ? open_signed_decoder(flags_, std::move(content))
                                                            : open_enveloped_decoder(flags_, std::move(content));
    if (!kind) return false;
    decided_ = std::move(kind);
    return true;
  }

  MessageKind* decided() override { return decided_ ? decided_->decided() : this; }

  bool get_param(DWORD param, DWORD index, void* data, DWORD* size) override {
    if (!decided_) return not_ready();
    return decided_->get_param(param, index, data, size);
  }

  bool control(DWORD flags, DWORD control_type, const void* para) override {
    if (!decided_) return not_ready();
    return decided_->control(flags, control_type, para);
  }

 private:
  static bool not_ready() {
    SetLastError(CRYPT_E_STREAM_MSG_NOT_READY);
    return false;
  }

  DWORD flags_;
  DWORD expected_type_;
  std::vector<BYTE> pending_;
  std::unique_ptr<MessageKind> decided_;
};

}  // namespace

std::unique_ptr<MessageKind> open_decoder(DWORD flags, DWORD expected_type) {
  return std::make_unique<UndecidedMessage>(flags, expected_type);
}

}  // namespace bv::platform
