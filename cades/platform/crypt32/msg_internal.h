// What the message kinds share inside crypt32 and the CAdES layer: the
// decoded ContentInfo a decoder opener receives.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "crypt32/der.h"
#include "crypt32/msg.h"
#include "openssl/ossl.h"

namespace bv::platform {

// A whole message as it came in, parsed once.  `der` is the caller's
// encoding, valid only while the decoder opens.
// The content an encoder signs or hashes: referred to where the caller keeps
// it (CMSG_BV_BORROW_CONTENT_FLAG) and gives it whole in the final update,
// gathered in a copy otherwise.
class EncoderContent {
 public:
  explicit EncoderContent(bool may_borrow) : may_borrow_(may_borrow) {}
  void add(const BYTE* data, DWORD size, bool final) {
    if (final && may_borrow_ && copy_.empty()) {
      data_ = size != 0 ? data : nullptr;
      size_ = size;
      borrowed_ = true;
      return;
    }
    if (size != 0) copy_.insert(copy_.end(), data, data + size);
    data_ = copy_.data();
    size_ = copy_.size();
  }
  const BYTE* data() const { return data_; }
  size_t size() const { return size_; }
  bool borrowed() const { return borrowed_; }
  void clear() {
    std::vector<BYTE>().swap(copy_);
    data_ = nullptr;
    size_ = 0;
  }

 private:
  bool may_borrow_;
  bool borrowed_ = false;
  std::vector<BYTE> copy_;
  const BYTE* data_ = nullptr;
  size_t size_ = 0;
};

struct DecodedContent {
  bv::ossl::UniquePtr<CMS_ContentInfo> cms;
  std::string_view der;
};

// A CERT_INFO holding only an issuer (DER) and a serial number (CryptoAPI's
// little-endian order), as the signer and recipient queries give it, with
// the two-call size pattern.
bool copy_issuer_serial(const std::string& issuer, const std::string& serial, void* data, DWORD* size);
std::string little_endian_serial_of(const ASN1_INTEGER* serial);

// Decoder openers, one per content type; null with the last error set.
// `flags` are those of CryptMsgOpenToDecode (CMSG_DETACHED_FLAG: the content
// comes through a later update).
std::unique_ptr<MessageKind> open_signed_decoder(DWORD flags, DecodedContent content);
std::unique_ptr<MessageKind> open_enveloped_decoder(DWORD flags, DecodedContent content);
std::unique_ptr<MessageKind> open_enveloped_encoder(DWORD flags, const CMSG_ENVELOPED_ENCODE_INFO& info);

// For each signer of `signers`, in their order, the element of
// `elements` (a signerInfos SET of `encoded`) that holds its signature.
bool signer_elements_in_order(std::string_view encoded, const std::vector<der::Element>& elements,
                              STACK_OF(CMS_SignerInfo) * signers, std::vector<std::string_view>* out);

// Adds an unsigned SignerInfo for `signer` (its key from the provider
// handle, its hash, its attributes; with the CAdES-BES attributes for
// cades_bes) to `cms`; null with the last error set.
CMS_SignerInfo* add_signer(CMS_ContentInfo* cms, const CMSG_SIGNER_ENCODE_INFO& signer, SignedForm form);

// A decoded signed message as the CAdES layer reaches it: the parsed message,
// which it may change before CMSG_ENCODED_MESSAGE encodes it again, and the
// content of a detached message once given.  Whoever changes a signer says
// so: a signer nobody changed is encoded with the bytes it came with.
class DecodedSigned {
 public:
  virtual CMS_ContentInfo* cms() = 0;
  virtual const std::vector<BYTE>* detached_content() const = 0;
  virtual void mark_changed(CMS_SignerInfo* signer) = 0;
  // A new signer, signed over the content (a detached message's once
  // given); null with the last error set.
  virtual CMS_SignerInfo* add_signed_signer(const CMSG_SIGNER_ENCODE_INFO& signer, SignedForm form) = 0;
  // Takes out a signer add_signed_signer added, as if it never was.
  virtual void remove_added_signer(CMS_SignerInfo* signer) = 0;

 protected:
  ~DecodedSigned() = default;
};

// Proves `signer`'s signature with `cert`: over the signed attributes and
// their message digest over the content, or over the content itself.  False
// with NTE_BAD_SIGNATURE or CRYPT_E_HASH_VALUE (a digest that disagrees).
bool verify_signer(DecodedSigned& message, CMS_SignerInfo* signer, X509* cert);

// The decoded signed message behind a handle, or null with the last error.
DecodedSigned* decoded_signed(HCRYPTMSG handle);

}  // namespace bv::platform
