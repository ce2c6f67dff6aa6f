// The message service of crypt32.  One handle type for every message; what
// differs between message kinds (hashed, signed, enveloped; encoding or
// decoding) lives behind MessageKind, one implementation per file
// (msg_hashed.cpp, ...).  A new kind adds its opener below and one case in
// CryptMsgOpenToEncode (msg.cpp).
#pragma once

#include <memory>

#include "wincrypt_types.h"

// Message types.
constexpr DWORD CMSG_DATA = 1;
constexpr DWORD CMSG_SIGNED = 2;
constexpr DWORD CMSG_ENVELOPED = 3;
constexpr DWORD CMSG_SIGNED_AND_ENVELOPED = 4;
constexpr DWORD CMSG_HASHED = 5;
constexpr DWORD CMSG_ENCRYPTED = 6;

// Open flags.
constexpr DWORD CMSG_BARE_CONTENT_FLAG = 0x00000001;
constexpr DWORD CMSG_LENGTH_ONLY_FLAG = 0x00000002;
constexpr DWORD CMSG_DETACHED_FLAG = 0x00000004;
constexpr DWORD CMSG_AUTHENTICATED_ATTRIBUTES_FLAG = 0x00000008;
constexpr DWORD CMSG_CONTENTS_OCTETS_FLAG = 0x00000010;
constexpr DWORD CMSG_MAX_LENGTH_FLAG = 0x00000020;
constexpr DWORD CMSG_CMS_ENCAPSULATED_CONTENT_FLAG = 0x00000040;
constexpr DWORD CMSG_CRYPT_RELEASE_CONTEXT_FLAG = 0x00008000;
// This platform's own: the caller keeps the content of a signed or hashed
// message it encodes valid and unchanged until the message is closed, so
// that content given in the final update alone is referred to, not copied.
constexpr DWORD CMSG_BV_BORROW_CONTENT_FLAG = 0x00100000;

// Parameters of CryptMsgGetParam.
constexpr DWORD CMSG_TYPE_PARAM = 1;
constexpr DWORD CMSG_CONTENT_PARAM = 2;
constexpr DWORD CMSG_BARE_CONTENT_PARAM = 3;
constexpr DWORD CMSG_INNER_CONTENT_TYPE_PARAM = 4;
constexpr DWORD CMSG_SIGNER_COUNT_PARAM = 5;
constexpr DWORD CMSG_SIGNER_INFO_PARAM = 6;
constexpr DWORD CMSG_SIGNER_CERT_INFO_PARAM = 7;
constexpr DWORD CMSG_SIGNER_HASH_ALGORITHM_PARAM = 8;
constexpr DWORD CMSG_SIGNER_AUTH_ATTR_PARAM = 9;
constexpr DWORD CMSG_SIGNER_UNAUTH_ATTR_PARAM = 10;
constexpr DWORD CMSG_CERT_COUNT_PARAM = 11;
constexpr DWORD CMSG_CERT_PARAM = 12;
constexpr DWORD CMSG_CRL_COUNT_PARAM = 13;
constexpr DWORD CMSG_CRL_PARAM = 14;
constexpr DWORD CMSG_ENVELOPE_ALGORITHM_PARAM = 15;
constexpr DWORD CMSG_RECIPIENT_COUNT_PARAM = 17;
constexpr DWORD CMSG_RECIPIENT_INDEX_PARAM = 18;
constexpr DWORD CMSG_RECIPIENT_INFO_PARAM = 19;
constexpr DWORD CMSG_HASH_ALGORITHM_PARAM = 20;
constexpr DWORD CMSG_HASH_DATA_PARAM = 21;
constexpr DWORD CMSG_COMPUTED_HASH_PARAM = 22;
constexpr DWORD CMSG_ENCODED_SIGNER = 28;
constexpr DWORD CMSG_ENCODED_MESSAGE = 29;
constexpr DWORD CMSG_VERSION_PARAM = 30;

// What CMSG_SIGNER_INFO_PARAM gives: one signer as the message holds it,
// attribute values DER-encoded, the serial number little-endian.
struct CMSG_SIGNER_INFO {
  DWORD dwVersion;
  CERT_NAME_BLOB Issuer;
  CRYPT_INTEGER_BLOB SerialNumber;
  CRYPT_ALGORITHM_IDENTIFIER HashAlgorithm;
  CRYPT_ALGORITHM_IDENTIFIER HashEncryptionAlgorithm;
  CRYPT_DATA_BLOB EncryptedHash;
  CRYPT_ATTRIBUTES AuthAttrs;
  CRYPT_ATTRIBUTES UnauthAttrs;
};
static_assert(sizeof(CMSG_SIGNER_INFO) == 136);

// Controls of CryptMsgControl.
constexpr DWORD CMSG_CTRL_VERIFY_SIGNATURE = 1;
constexpr DWORD CMSG_CTRL_DECRYPT = 2;
constexpr DWORD CMSG_CTRL_ADD_SIGNER = 6;
constexpr DWORD CMSG_CTRL_ADD_CERT = 10;
constexpr DWORD CMSG_CTRL_VERIFY_SIGNATURE_EX = 19;

// Signer types of CMSG_CTRL_VERIFY_SIGNATURE_EX.
constexpr DWORD CMSG_VERIFY_SIGNER_PUBKEY = 1;
constexpr DWORD CMSG_VERIFY_SIGNER_CERT = 2;

struct CMSG_CTRL_VERIFY_SIGNATURE_EX_PARA {
  DWORD cbSize;
  HCRYPTPROV_LEGACY hCryptProv;
  DWORD dwSignerIndex;
  DWORD dwSignerType;
  void* pvSigner;  // a PCCERT_CONTEXT for CMSG_VERIFY_SIGNER_CERT
};
static_assert(sizeof(CMSG_CTRL_VERIFY_SIGNATURE_EX_PARA) == 32);

using PFN_CMSG_STREAM_OUTPUT = BOOL (*)(const void* pvArg, BYTE* pbData, DWORD cbData, BOOL fFinal);

struct CMSG_STREAM_INFO {
  DWORD cbContent;
  PFN_CMSG_STREAM_OUTPUT pfnStreamOutput;
  void* pvArg;
};
using PCMSG_STREAM_INFO = CMSG_STREAM_INFO*;

struct CMSG_HASHED_ENCODE_INFO {
  DWORD cbSize;
  HCRYPTPROV_LEGACY hCryptProv;  // 0: a verify-only context of the GOST provider
  CRYPT_ALGORITHM_IDENTIFIER HashAlgorithm;
  void* pvHashAuxInfo;  // reserved, null
};
static_assert(sizeof(CMSG_HASHED_ENCODE_INFO) == 48);

struct CERT_INFO;

// An enveloped message (msg_enveloped.cpp): the content encrypted once with
// a fresh key, that key transported to each recipient by its public key.
struct CMSG_ENVELOPED_ENCODE_INFO {
  DWORD cbSize;
  HCRYPTPROV_LEGACY hCryptProv;  // 0: the platform's choice
  CRYPT_ALGORITHM_IDENTIFIER ContentEncryptionAlgorithm;  // "1.2.643.2.2.21": GOST 28147-89
  void* pvEncryptionAuxInfo;  // null
  DWORD cRecipients;
  CERT_INFO** rgpRecipients;
};
static_assert(sizeof(CMSG_ENVELOPED_ENCODE_INFO) == 64);

// CMSG_CTRL_DECRYPT: recipient `dwRecipientIndex` opens the content key
// with the private key the provider handle holds.
struct CMSG_CTRL_DECRYPT_PARA {
  DWORD cbSize;
  HCRYPTPROV hCryptProv;
  DWORD dwKeySpec;
  DWORD dwRecipientIndex;
};
static_assert(sizeof(CMSG_CTRL_DECRYPT_PARA) == 24);

// The certificates and CRLs a signed message carries, each DER-encoded.
using CERT_BLOB = CRYPT_INTEGER_BLOB;
using CRL_BLOB = CRYPT_INTEGER_BLOB;

// One signer of a signed message (msg_signed.cpp): the issuer and serial
// number of its certificate, the provider handle holding its key, its hash.
struct CMSG_SIGNER_ENCODE_INFO {
  DWORD cbSize;
  CERT_INFO* pCertInfo;
  HCRYPTPROV hCryptProv;
  DWORD dwKeySpec;
  CRYPT_ALGORITHM_IDENTIFIER HashAlgorithm;
  void* pvHashAuxInfo;
  DWORD cAuthAttr;
  PCRYPT_ATTRIBUTE rgAuthAttr;
  DWORD cUnauthAttr;
  PCRYPT_ATTRIBUTE rgUnauthAttr;
};
using PCMSG_SIGNER_ENCODE_INFO = CMSG_SIGNER_ENCODE_INFO*;
static_assert(sizeof(CMSG_SIGNER_ENCODE_INFO) == 96);

struct CMSG_SIGNED_ENCODE_INFO {
  DWORD cbSize;
  DWORD cSigners;
  PCMSG_SIGNER_ENCODE_INFO rgSigners;
  DWORD cCertEncoded;
  CERT_BLOB* rgCertEncoded;
  DWORD cCrlEncoded;
  CRL_BLOB* rgCrlEncoded;
};
static_assert(sizeof(CMSG_SIGNED_ENCODE_INFO) == 48);

// Encoding type must include PKCS_7_ASN_ENCODING.  `pszInnerContentObjID`
// null means id-data.  Streaming is not offered (ERROR_NOT_SUPPORTED).
HCRYPTMSG CryptMsgOpenToEncode(DWORD dwMsgEncodingType, DWORD dwFlags, DWORD dwMsgType, const void* pvMsgEncodeInfo,
                               LPSTR pszInnerContentObjID, PCMSG_STREAM_INFO pStreamInfo);
// Decoding: `dwMsgType` 0 takes the type from the message (signed or
// enveloped); a named type must match it (CRYPT_E_UNEXPECTED_MSG_TYPE).  The
// whole message comes in updates ending with a final one; a detached signed
// message's content follows in one more update.
HCRYPTMSG CryptMsgOpenToDecode(DWORD dwMsgEncodingType, DWORD dwFlags, DWORD dwMsgType, HCRYPTPROV_LEGACY hCryptProv,
                               CERT_INFO* pRecipientInfo, PCMSG_STREAM_INFO pStreamInfo);
BOOL CryptMsgUpdate(HCRYPTMSG hCryptMsg, const BYTE* pbData, DWORD cbData, BOOL fFinal);
// Two-call size pattern; CMSG_CONTENT_PARAM of an encoded message is the
// whole DER ContentInfo once the final update is in.
BOOL CryptMsgGetParam(HCRYPTMSG hCryptMsg, DWORD dwParamType, DWORD dwIndex, void* pvData, DWORD* pcbData);
BOOL CryptMsgControl(HCRYPTMSG hCryptMsg, DWORD dwFlags, DWORD dwCtrlType, const void* pvCtrlPara);
BOOL CryptMsgClose(HCRYPTMSG hCryptMsg);

namespace bv::platform {

// What one kind of message does with the calls on its handle.  Each member
// sets the last error when it returns false.
class MessageKind {
 public:
  virtual ~MessageKind() = default;
  virtual DWORD type() const = 0;
  virtual bool update(const BYTE* data, DWORD size, bool final) = 0;
  virtual bool get_param(DWORD param, DWORD index, void* data, DWORD* size) = 0;
  // Default: no control is known (CRYPT_E_CONTROL_TYPE).
  virtual bool control(DWORD flags, DWORD control_type, const void* para);
  // The kind that answers the calls: itself, unless it forwards them.
  virtual MessageKind* decided() { return this; }
};

// What an HCRYPTMSG stands for.
struct CryptMsg {
  static constexpr uint32_t kMagic = 0x42564d53;  // "BVMS"
  uint32_t magic = kMagic;
  DWORD encoding_type = 0;
  DWORD flags = 0;
  std::unique_ptr<MessageKind> kind;
};

// Owns an HCRYPTMSG; closing keeps the thread's last error.
struct MessageCloser {
  void operator()(void* message) const noexcept;
};
using MessageHandle = std::unique_ptr<void, MessageCloser>;

// The message behind a handle, or null with ERROR_INVALID_HANDLE.
CryptMsg* message_from_handle(HCRYPTMSG handle);

// Openers of the kinds, one per file; null with the last error set.
std::unique_ptr<MessageKind> open_hashed_encoder(DWORD flags, const CMSG_HASHED_ENCODE_INFO& info,
                                                 LPCSTR inner_content_type);
// CAdES-BES adds the signed attributes of that form to every signer
// (content type, message digest, signing time, signing-certificate-v2).
enum class SignedForm { plain, cades_bes };
std::unique_ptr<MessageKind> open_signed_encoder(DWORD flags, const CMSG_SIGNED_ENCODE_INFO& info,
                                                 LPCSTR inner_content_type, SignedForm form = SignedForm::plain);
// A handle for a kind opened to encode.
HCRYPTMSG new_message_handle(DWORD encoding_type, DWORD flags, std::unique_ptr<MessageKind> kind);
// A decoder that learns its kind from the message (msg_decode.cpp).
std::unique_ptr<MessageKind> open_decoder(DWORD flags, DWORD expected_type);

}  // namespace bv::platform
