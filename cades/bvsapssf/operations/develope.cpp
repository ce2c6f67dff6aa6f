// SsfDevelope: an enveloped message opened for one recipient.  The key is
// found first, in the recipient's store, and only then is the message asked
// whether it was made for that certificate.
#include <cstdlib>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "bvsapssf_api.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "frame.h"
#include "identity/lookup.h"
#include "identity/names.h"
#include "identity/selection.h"
#include "identity/signer_key.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr DWORD kNoRecipient = 0xFFFFFFFF;

// How the search for the recipient's key ends.
enum class KeySearch { Chosen, NotFound, CallEnds };

// The first certificate the identity names whose key opens with the
// record's PIN; every candidate is tried, and the record's Result tells of
// the last one that set it.  The key's handle and its kind go into
// `decrypt`, and the handle stays with the chosen context.
KeySearch choose_recipient_key(const char* trace_function, HCERTSTORE store, IdentityMatches& matches, SsfInfo* info,
                               CMSG_CTRL_DECRYPT_PARA* decrypt, bv::platform::CertContext& chosen) {
  bv::platform::CertContext cert;
  while (matches.next(store, trace_function, info, cert)) {
    const int32_t pin_explicit = IsPinExplicit(*info);
    switch (open_certificate_key(trace_function, cert.get(), info, pin_explicit, &decrypt->hCryptProv,
                                 &decrypt->dwKeySpec)) {
      case KeyOpen::Opened:
        chosen = std::move(cert);
        return KeySearch::Chosen;
      case KeyOpen::CallEnds:
        return KeySearch::CallEnds;
      case KeyOpen::NoKeyHere:
      case KeyOpen::NotAcquired:
      case KeyOpen::PinRefused:
        break;
    }
  }
  return KeySearch::NotFound;
}

// The index of the message's recipient entry that names `cert` (issuer and
// serial number), or kNoRecipient; false with the last error when an entry
// can't be read.
bool find_recipient_index(HCRYPTMSG message, DWORD count, PCCERT_CONTEXT cert, DWORD* index, SSF_RC* rc) {
  std::vector<BYTE> buffer;
  for (DWORD i = 0; i < count; ++i) {
    DWORD size = 0;
    if (!CryptMsgGetParam(message, CMSG_RECIPIENT_INFO_PARAM, i, nullptr, &size)) {
      *rc = SSF_ERR_DECODE;
      return false;
    }
    buffer.assign(size, 0);
    if (!CryptMsgGetParam(message, CMSG_RECIPIENT_INFO_PARAM, i, buffer.data(), &size)) {
      *rc = SSF_ERR_DECODE;
      return false;
    }
    auto* recipient = reinterpret_cast<CERT_INFO*>(buffer.data());
    if (CertCompareCertificateName(kEncoding, &cert->pCertInfo->Issuer, &recipient->Issuer) &&
        CertCompareIntegerBlob(&cert->pCertInfo->SerialNumber, &recipient->SerialNumber)) {
      *index = i;
      return true;
    }
  }
  return true;
}

}  // namespace

extern "C" SSF_RC SsfDevelope(const char* strFormat, int32_t strFormatL, const unsigned char* ostrEnvelopedData,
                              int32_t ostrEnvelopedDataL, SsfInfo* recipient, unsigned char** ostrOutputData,
                              uint32_t* ostrOutputDataL) {
  constexpr const char* trace_function = "SsfDevelope";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1, 2. Outputs cleared where the host gave a place for them; start banner.
    if (ostrOutputData != nullptr) *ostrOutputData = nullptr;
    if (ostrOutputDataL != nullptr) *ostrOutputDataL = 0;
    BV_TRACE_START();

    // 3-5. Format, recipient, message, in this order; then the places the
    // message comes from and the answer goes.
    unsigned char isCades = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0) {
      BV_TRACE_FAILURE();
      return SSF_ERR_FORMAT;
    }
    if (recipient == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: Empty recipient structire\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_RECIPIENT;
    }
    if (ostrEnvelopedDataL <= 0) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrEnvelopedDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (ostrEnvelopedData == nullptr || ostrOutputData == nullptr || ostrOutputDataL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    return bv::frame::guarded(trace_function, nullptr, [&]() -> SSF_RC {
      // 6. Licence gate; a refusal throws.
      SSFAPICheckLicense();

      // 7, 8. The recipient's store ("My" by default).
      bv::platform::CertStore store = open_profile_store(
          recipient->Profile, bv::frame::field_length(recipient->Profile, recipient->ProfileL),
          ProfileStoreUse::Develope);
      if (!store) {
        BV_TRACE(TRACE_NORMAL, "#error#: Invaild Store in user's profile\n");
        recipient->Result = SSF_RES_INVALID_PROFILE;
        BV_TRACE_FAILURE();
        return SSF_ERR_RECIPIENT;
      }

      // 9, 10. The identity.
      recipient->Result = SSF_RES_UNKNOWN;
      if (bv::frame::field_length(recipient->strSigRcpId, recipient->strSigRcpIdL) <= 0) {
        recipient->Result = SSF_RES_UNKNOWN_PROFILE;
        BV_TRACE(TRACE_NORMAL, "#error#: strSigRcpIdL <= 0\n");
        BV_TRACE_FAILURE();
        return SSF_ERR_RECIPIENT;
      }

      // 11-13. No key and no recipient entry yet; the user may pick the
      // certificate; the identity read as a hash or a DN.
      CMSG_CTRL_DECRYPT_PARA decrypt{};
      decrypt.cbSize = sizeof(CMSG_CTRL_DECRYPT_PARA);
      decrypt.dwRecipientIndex = kNoRecipient;
      select_certificate_from_list_if_needed(store.get(), &recipient->strSigRcpId, &recipient->strSigRcpIdL);
      SharedHash hash;
      IdentityMatches matches;
      if (!matches.read(recipient->strSigRcpId, recipient->strSigRcpIdL, &hash.blob)) {
        const std::string identity(recipient->strSigRcpId, static_cast<size_t>(recipient->strSigRcpIdL));
        BV_TRACE(TRACE_NORMAL, "#error#: Invalid user's ID (%s)\n", identity.c_str());
        recipient->Result = SSF_RES_UNKNOWN;
        BV_TRACE_FAILURE();
        return SSF_ERR_RECIPIENT;
      }

      // 14-16. The certificate whose key opens; the store goes before the
      // message is looked at.
      bv::platform::CertContext chosen;
      const KeySearch found = choose_recipient_key(trace_function, store.get(), matches, recipient, &decrypt, chosen);
      if (found == KeySearch::CallEnds) {
        // A PIN no text can have ends the call as an unexpected failure.
        SetLastError(static_cast<DWORD>(E_UNEXPECTED));
        return bv::frame::shared_tail(trace_function, nullptr);
      }
      store.reset();
      if (found == KeySearch::NotFound) {
        BV_TRACE(TRACE_NORMAL, "#error#: Some certificates not found\n");
        BV_TRACE_FAILURE();
        return SSF_ERR_RECIPIENT;
      }

      // 17. The key works: from here on the code tells what the message did.
      recipient->Result = SSF_RES_OK;

      // Every failure below: the last error, the chosen certificate and the
      // message go (by their owners), the failure banner.
      const auto fail = [&](SSF_RC rc) {
        BV_TRACE_LAST_ERROR();
        BV_TRACE_FAILURE();
        return rc;
      };

      // 18, 19. The whole message in one update.
      bv::platform::MessageHandle message(CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr));
      if (!message) return fail(SSF_ERR_INTERNAL);
      if (!CryptMsgUpdate(message.get(), ostrEnvelopedData, static_cast<DWORD>(ostrEnvelopedDataL), TRUE))
        return fail(SSF_ERR_INPUT);

      // 20-22. Is the chosen certificate one of the message's recipients?
      DWORD recipient_count = 0;
      DWORD count_size = sizeof recipient_count;
      if (!CryptMsgGetParam(message.get(), CMSG_RECIPIENT_COUNT_PARAM, 0, &recipient_count, &count_size)) {
        recipient->Result = SSF_RES_UNDEFINED;
        return fail(SSF_ERR_FORMAT);
      }
      SSF_RC read_failure = SSF_OK;
      if (!find_recipient_index(message.get(), recipient_count, chosen.get(), &decrypt.dwRecipientIndex,
                                &read_failure))
        return fail(read_failure);
      if (decrypt.dwRecipientIndex == kNoRecipient) {
        recipient->Result = SSF_RES_NOT_OK;
        return fail(SSF_ERR_RECIPIENT);
      }

      // 23. The content key opened with the recipient's key.
      if (!CryptMsgControl(message.get(), 0, CMSG_CTRL_DECRYPT, &decrypt)) {
        recipient->Result = SSF_RES_NOT_OK;
        return fail(SSF_ERR_RECIPIENT);
      }

      // 24-26. Length, block, bytes.
      DWORD content_length = 0;
      if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &content_length))
        return fail(SSF_ERR_DECODE);
      // One byte more, so that empty content still gets a block of its own.
      auto* content = static_cast<unsigned char*>(std::malloc(content_length + 1));
      if (content == nullptr) {
        SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
        return fail(SSF_ERR_NOMEMORY);
      }
      if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, content, &content_length)) {
        std::free(content);
        return fail(SSF_ERR_DECODE);
      }

      // 27. The message and the certificate go (the key with it).
      message.reset();
      chosen.reset();
      *ostrOutputData = content;
      *ostrOutputDataL = content_length;
      BV_TRACE_SUCCESS();
      return SSF_OK;
    });
  });
}
