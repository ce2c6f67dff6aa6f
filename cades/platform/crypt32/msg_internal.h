// What the message kinds share inside crypt32 and the CAdES layer: the
// decoded ContentInfo a decoder opener receives.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "crypt32/msg.h"
#include "openssl/ossl.h"

namespace bv::platform {

// A whole message as it came in, parsed once.
struct DecodedContent {
  bv::ossl::UniquePtr<CMS_ContentInfo> cms;
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

// A decoded signed message as the CAdES layer reaches it: the parsed message,
// which it may change before CMSG_ENCODED_MESSAGE encodes it again, and the
// content of a detached message once given.
class DecodedSigned {
 public:
  virtual CMS_ContentInfo* cms() = 0;
  virtual const std::vector<BYTE>* detached_content() const = 0;

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
