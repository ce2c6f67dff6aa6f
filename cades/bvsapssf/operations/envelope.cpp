// SsfEnvelope: the input encrypted with GOST 28147-89 for every recipient of
// the list, each found by identity in one store; all recipients or none.
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
#include "reporter.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// "Зашифрованное сообщение успешно создано.\n" in code page 1251, as the
// catalogue's texts: shown in Russian whatever the language.
constexpr const char* kEnvelopeCreated =
    "\xC7\xE0\xF8\xE8\xF4\xF0\xEE\xE2\xE0\xED\xED\xEE\xE5 \xF1\xEE\xEE\xE1\xF9\xE5\xED\xE8\xE5 "
    "\xF3\xF1\xEF\xE5\xF8\xED\xEE \xF1\xEE\xE7\xE4\xE0\xED\xEE.\n";

// Finds the certificate of one recipient in the PAB store: the first the
// identity names, in the store's order.  No key, chain or validity is
// looked at: anyone with a certificate may receive.  Writes the record's
// Result; an empty context when the recipient stays unresolved.
bv::platform::CertContext resolve_recipient(const char* trace_function, HCERTSTORE store, SsfInfo* info,
                                            CRYPT_HASH_BLOB* hash) {
  bv::platform::CertContext cert;
  info->Result = SSF_RES_UNKNOWN;
  const int32_t idL = bv::frame::field_length(info->strSigRcpId, info->strSigRcpIdL);
  if (idL <= 0) {
    BV_TRACE(TRACE_NORMAL, "#error#: strSigRcpIdL <= 0\n");
    return cert;
  }
  if (std::string(info->strSigRcpId, static_cast<size_t>(idL)).find_first_not_of(' ') == std::string::npos) {
    BV_TRACE(TRACE_NORMAL, "#error#: empty strSigRcpId\n");
    return cert;
  }
  IdentityMatches matches;
  if (!matches.read(info->strSigRcpId, idL, hash)) {
    const std::string identity(info->strSigRcpId, static_cast<size_t>(idL));
    BV_TRACE(TRACE_NORMAL, "#error#: Invalid user's ID (%s)\n", identity.c_str());
    return cert;
  }
  if (!matches.next(store, trace_function, info, cert)) {
    BV_TRACE(TRACE_NORMAL, "Certificate not found\n");
    info->Result = SSF_RES_NOCERTIFICATE;
    return cert;
  }
  info->Result = SSF_RES_OK;
  return cert;
}

}  // namespace

extern "C" SSF_RC SsfEnvelope(const char* strFormat, int32_t strFormatL, const char* strEncrAlg, int32_t strEncrAlgL,
                              const unsigned char* ostrInputData, int32_t ostrInputDataL, const char* strPab,
                              int32_t strPabL, const char*, int32_t, SsfInfoNode* recipients,
                              unsigned char** ostrEnvelopedData, uint32_t* ostrEnvelopedDataL) {
  constexpr const char* trace_function = "SsfEnvelope";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1-3. The recipients' certificates are held here until the end; start
    // banner; the length cleared where the host gave a place for it.
    std::vector<bv::platform::CertContext> CertificateKeepList;
    BV_TRACE_START();
    if (ostrEnvelopedDataL != nullptr) *ostrEnvelopedDataL = 0;

    // 4-7. Format, input, list, algorithm, in this order; then the places
    // the input comes from and the answer goes.
    unsigned char isCades = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0) {
      BV_TRACE_FAILURE();
      return SSF_ERR_FORMAT;
    }
    if (ostrInputDataL <= 0) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrInputDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (recipients == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: Empty recipient's list\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_RECIPIENT;
    }
    const char* content_encryption = find_encryption_oid(strEncrAlg, strEncrAlgL);
    if (content_encryption == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: Invalid encryption algorithm name\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_ENCRALG;
    }
    if (ostrInputData == nullptr || ostrEnvelopedData == nullptr || ostrEnvelopedDataL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    return bv::frame::guarded(trace_function, nullptr, [&]() -> SSF_RC {
      // 8. Licence gate; a refusal throws.
      SSFAPICheckLicense();

      // 9, 10. Count the recipients; open the PAB store.
      size_t recipient_count = 0;
      for (const SsfInfoNode* node = recipients; node != nullptr; node = node->next) ++recipient_count;
      bv::platform::CertStore store = open_profile_store(strPab, bv::frame::field_length(strPab, strPabL),
                                                         ProfileStoreUse::Envelope);
      if (!store) {
        BV_TRACE(TRACE_NORMAL, "#error#: Invalid PAB store\n");
        BV_TRACE_FAILURE();
        return SSF_ERR_PAB;
      }

      // 11, 12. One slot per node, resolved or not; the walk goes to the end
      // whatever became of the earlier recipients.
      CMSG_ENVELOPED_ENCODE_INFO encode_info{};
      encode_info.cbSize = sizeof(CMSG_ENVELOPED_ENCODE_INFO);
      encode_info.hCryptProv = 0;
      encode_info.ContentEncryptionAlgorithm.pszObjId = const_cast<LPSTR>(content_encryption);
      std::vector<CERT_INFO*> recipient_infos(recipient_count, nullptr);
      SharedHash hash;
      int unresolved = 0;
      size_t position = 0;
      for (SsfInfoNode* node = recipients; node != nullptr; node = node->next, ++position) {
        if (node->info == nullptr) {
          BV_TRACE(TRACE_NORMAL, "#error#: Unintialized recipient structure\n");
          BV_TRACE_FAILURE();
          return SSF_ERR_INTERNAL;
        }
        bv::platform::CertContext cert = resolve_recipient(trace_function, store.get(), node->info, &hash.blob);
        if (!cert) {
          ++unresolved;
          continue;
        }
        recipient_infos[position] = cert.get()->pCertInfo;
        CertificateKeepList.push_back(std::move(cert));
      }

      // 13-15. The store goes (the certificates stay held); all or nothing.
      std::free(hash.blob.pbData);
      hash.blob = CRYPT_HASH_BLOB{0, nullptr};
      store.reset();
      if (unresolved != 0) {
        CertificateKeepList.clear();
        BV_TRACE(TRACE_NORMAL, "#error#: Some certificates not found\n");
        BV_TRACE_FAILURE();
        return SSF_ERR_RECIPIENT;
      }

      // 16, 17. Open the message and encrypt the whole input in one update.
      encode_info.cRecipients = static_cast<DWORD>(recipient_count);
      encode_info.rgpRecipients = recipient_infos.data();
      bv::platform::MessageHandle message(
          CryptMsgOpenToEncode(kEncoding, 0, CMSG_ENVELOPED, &encode_info, nullptr, nullptr));
      if (!message) {
        BV_TRACE_LAST_ERROR();
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }
      if (!CryptMsgUpdate(message.get(), ostrInputData, static_cast<DWORD>(ostrInputDataL), TRUE)) {
        BV_TRACE_LAST_ERROR();
        message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }

      // 18-20. Length, block, bytes.
      DWORD enveloped_length = 0;
      if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &enveloped_length)) {
        BV_TRACE_LAST_ERROR();
        message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }
      auto* enveloped = static_cast<unsigned char*>(std::malloc(enveloped_length));
      if (enveloped == nullptr) {
        SetLastError(static_cast<DWORD>(E_OUTOFMEMORY));
        BV_TRACE_LAST_ERROR();
        message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_NOMEMORY;
      }
      if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, enveloped, &enveloped_length)) {
        BV_TRACE_LAST_ERROR();
        message.reset();
        std::free(enveloped);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      // 21. The recipients and the message go; the fixed text for the user.
      CertificateKeepList.clear();
      message.reset();
      PrintString(kEnvelopeCreated);
      *ostrEnvelopedData = enveloped;
      *ostrEnvelopedDataL = enveloped_length;
      BV_TRACE_SUCCESS();
      return SSF_OK;
    });
  });
}
