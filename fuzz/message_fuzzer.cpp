// DER messages from outside: SsfVerify (plain and CAdES formats, attached or
// with the detached content), SsfDevelope, SsfAddSign, and the CAdES
// queries on every signer.  The first byte picks the format (bits 0-1) and
// whether the content comes separately (bit 2); the message follows.
#include "cadesmsg/cadesmsg.h"
#include "world.h"

using namespace bv::fuzz;

namespace {

constexpr const char* kFormats[] = {"PKCS7", "CADES", "PKCS7_CADES", "PKCS7_ANY"};
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr DWORD kMostSigners = 8;

void query_every_signer(std::string_view message, bool detached) {
  bv::platform::MessageHandle decoded(CryptMsgOpenToDecode(kEncoding, detached ? CMSG_DETACHED_FLAG : 0, 0, 0, nullptr, nullptr));
  if (!decoded || !CryptMsgUpdate(decoded.get(), bytes_of(message), static_cast<DWORD>(message.size()), TRUE)) return;
  if (detached &&
      !CryptMsgUpdate(decoded.get(), bytes_of(kDetachedContent), static_cast<DWORD>(kDetachedContent.size()), TRUE))
    return;
  DWORD signers = 0, size = sizeof signers;
  if (!CryptMsgGetParam(decoded.get(), CMSG_SIGNER_COUNT_PARAM, 0, &signers, &size)) return;
  for (DWORD index = 0; index < std::min(signers, kMostSigners); ++index) {
    for (DWORD type : {CADES_BES, CADES_T, CADES_X_LONG_TYPE_1}) {
      BOOL is_type = FALSE;
      CadesMsgIsType(decoded.get(), index, type, &is_type);
    }
    CadesBlobArray* values = nullptr;
    if (CadesMsgGetCertificateValues(decoded.get(), index, &values)) CadesFreeBlobArray(values);
    CadesVerificationInfo* info = nullptr;
    CadesMsgVerifySignature(decoded.get(), index, nullptr, &info);
    CadesFreeVerificationInfo(info);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  world();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char* format = kFormats[data[0] & 3];
  const bool detached = (data[0] & 4) != 0;
  const std::string_view message(reinterpret_cast<const char*>(data + 1), size - 1);
  const unsigned char* content = detached ? bytes_of(kDetachedContent) : nullptr;
  const int32_t content_length = detached ? length_of(kDetachedContent) : 0;
  {
    Records signers;
    Output out;
    SsfVerify(format, static_cast<int32_t>(strlen(format)), 0, bytes_of(message), length_of(message), content,
              content_length, nullptr, 0, nullptr, 0, signers.address(), &out.data, &out.length);
  }
  {
    Records recipient;
    SsfInfo* info = recipient.add(world().signer_hash);
    Output out;
    SsfDevelope("PKCS7", 5, bytes_of(message), length_of(message), info, &out.data, &out.length);
  }
  {
    Records signer;
    SsfInfo* info = signer.add(world().signer_hash);
    Output out;
    SsfAddSign(format, static_cast<int32_t>(strlen(format)), nullptr, 0, 1, bytes_of(message), length_of(message),
               content, content_length, info, &out.data, &out.length);
  }
  query_every_signer(message, detached);
  return 0;
}
