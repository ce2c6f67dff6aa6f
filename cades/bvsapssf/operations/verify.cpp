// SsfVerify: decodes a signed message, proves each signer's signature (the
// platform for a plain signer, with the chain policy and a second try by the
// CAdES library; the CAdES library alone for a CAdES signer), hands back the
// content and one result record per signer.
#include <cstdlib>
#include <cstring>
#include <string>

#include "bvsapssf.h"
#include "bvsapssf_api.h"
#include "cadesmsg/cadesmsg.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "frame.h"
#include "identity/chain_policy.h"
#include "identity/names.h"
#include "operations/signer_results.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// The first text of catalogue message `code` to PrintString; nothing for
// a code without a row.
void print_catalogue_text(int32_t code) {
  const int row = bv::catalogue::row_of(code);
  if (row >= 0) PrintString(bv::catalogue::kRowsTable[row].russian);
}

// What a CAdES status becomes in the signer's record.
int32_t result_of_status(DWORD status) {
  switch (status) {
    case CADES_VERIFY_SUCCESS:
      return SSF_RES_OK;
    case CADES_VERIFY_SIGNER_NOT_FOUND:
      return SSF_RES_NOCERTIFICATE;
    case CADES_VERIFY_NO_CHAIN:
    case CADES_VERIFY_END_CERT_REVOCATION:
    case CADES_VERIFY_CHAIN_CERT_REVOCATION:
      return SSF_RES_UNKNOWN;
    case CADES_VERIFY_INVALID_SIGNATURE:
      return SSF_RES_NOT_OK;
    default:
      return SSF_RES_UNDEFINED;
  }
}

// The status text (message 700 + status) of an info; the status is not
// bounded before the catalogue is read, and a code without a row prints
// nothing.
void print_status_text(DWORD status) {
  if (status != 0) print_catalogue_text(700 + static_cast<int32_t>(status));
}

// A record's identifier as a text (the record's fields are counted, not
// terminated).
std::string id_of(const SsfInfo* record) {
  return std::string(record->strSigRcpId, record->strSigRcpIdL > 0 ? static_cast<size_t>(record->strSigRcpIdL) : 0);
}

struct HeldInfo {
  CadesVerificationInfo* info = nullptr;
  ~HeldInfo() { CadesFreeVerificationInfo(info); }
};

}  // namespace

extern "C" SSF_RC SsfVerify(const char* strFormat, int32_t strFormatL, SSF_BOOL, const unsigned char* ostrSignedData,
                            int32_t ostrSignedDataL, const unsigned char* ostrInputData, int32_t ostrInputDataL,
                            const char* strPab, int32_t strPabL, const char*, int32_t, SsfInfoNode** signerList,
                            unsigned char** ostrOutputData, uint32_t* ostrOutputDataL) {
  constexpr const char* trace_function = "SsfVerify";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1, 2. Banner, no output length yet, the format name.
    BV_TRACE_START();
    if (ostrOutputDataL != nullptr) *ostrOutputDataL = 0;
    bv::frame::trace_format_name(trace_function, strFormat, strFormatL);

    // 3, 4. The format.
    unsigned char isCades = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0) {
      BV_TRACE_FAILURE();
      return SSF_ERR_FORMAT;
    }
    BV_TRACE(TRACE_NORMAL, "#info#: accept isCades='%d' \n", isCades);

    // 5, 6. The message, the places for the answer, the store for signers.
    if (ostrSignedDataL <= 0) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrSignedDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (ostrSignedData == nullptr || signerList == nullptr || ostrOutputData == nullptr || ostrOutputDataL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (strPabL != 0 && strPab != nullptr) {
      const std::string pab(strPab, strPabL > 0 ? static_cast<size_t>(strPabL) : 0);
      BV_TRACE(TRACE_DETAIL, "#info#: Pab = '%s' \n", pab.c_str());
    } else {
      BV_TRACE(TRACE_NORMAL, "#info#: Pab undefined!!!\n");
    }

    return bv::frame::guarded(trace_function, "#exception#\n", [&]() -> SSF_RC {
      // 7. The licence; its answer is not looked at.
      SSFAPICheckLicense();

      // 8, 9. Decode the message.
      bv::platform::MessageHandle message;
      message.reset(CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr));
      if (!message) {
        BV_TRACE_LAST_ERROR();
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }
      if (!CryptMsgUpdate(message.get(), ostrSignedData, static_cast<DWORD>(ostrSignedDataL), TRUE)) {
        BV_TRACE(TRACE_NORMAL, "#error#: Invalid message format?.\n");
        BV_TRACE_LAST_ERROR();
        message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_DECODE;
      }

      // 10. "PKCS7_ANY": the first signer's form decides for all.
      if (isCades == 0 && strFormatL == 9 && std::memcmp(strFormat, "PKCS7_ANY", 9) == 0) {
        BOOL is_x_long = FALSE;
        if (CadesMsgIsType(message.get(), 0, CADES_X_LONG_TYPE_1, &is_x_long) && is_x_long) isCades = 1;
        BV_TRACE(TRACE_INFO, "#info#: Checking for PKCS7_ANY format. isCades = %d\n", isCades);
      }

      // 11, 12. The content the message carries.
      bool detached = false;
      DWORD content_length = 0;
      CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &content_length);
      if (content_length > 0) {
        *ostrOutputData = static_cast<unsigned char*>(std::malloc(content_length));
        if (*ostrOutputData == nullptr) {
          BV_TRACE_LAST_ERROR();
          message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_NOMEMORY;
        }
        if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, *ostrOutputData, &content_length)) {
          BV_TRACE(TRACE_NORMAL, "#error#: failed to extract content from signed message!\n");
          BV_TRACE_LAST_ERROR();
          message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_DECODE;
        }
        *ostrOutputDataL = content_length;
      } else {
        // 13. Detached: the given input is the content, fed after the message.
        detached = true;
        BV_TRACE(TRACE_INFO, "#info#: Detached dignature!\n");
        if (ostrInputDataL == 0 || ostrInputData == nullptr) {
          message.reset();
          BV_TRACE(TRACE_NORMAL, "#error#: No input data while verifying detached signature\n");
          BV_TRACE_FAILURE();
          return SSF_ERR_INPUT;
        }
        // A negative length is not refused here; it copies nothing.
        const size_t input_length = ostrInputDataL > 0 ? static_cast<size_t>(ostrInputDataL) : 0;
        *ostrOutputData = static_cast<unsigned char*>(std::malloc(input_length != 0 ? input_length : 1));
        if (*ostrOutputData != nullptr) {
          if (input_length != 0) std::memcpy(*ostrOutputData, ostrInputData, input_length);
          *ostrOutputDataL = static_cast<uint32_t>(input_length);
        }
        message.reset();
        message.reset(CryptMsgOpenToDecode(kEncoding, CMSG_DETACHED_FLAG, 0, 0, nullptr, nullptr));
        if (!CryptMsgUpdate(message.get(), ostrSignedData, static_cast<DWORD>(ostrSignedDataL), TRUE)) {
          BV_TRACE(TRACE_NORMAL, "#error#: failed to decode Detached dignature!\n");
          BV_TRACE_LAST_ERROR();
          message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_DECODE;
        }
        if (!CryptMsgUpdate(message.get(), ostrInputData, static_cast<DWORD>(input_length), TRUE)) {
          BV_TRACE(TRACE_NORMAL, "#error#: failed to encode source data for Detached dignature!\n");
          BV_TRACE_LAST_ERROR();
          message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_DECODE;
        }
      }

      // 14, 15. The signers.
      DWORD signer_count = 0;
      DWORD count_size = sizeof signer_count;
      if (!CryptMsgGetParam(message.get(), CMSG_SIGNER_COUNT_PARAM, 0, &signer_count, &count_size)) {
        BV_TRACE(TRACE_NORMAL, "#error#: failed to get signer count from message!\n");
        BV_TRACE_LAST_ERROR();
        message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_FORMAT;
      }
      if (signer_count == 0) {
        BV_TRACE(TRACE_NORMAL, "#error#: Signers not found in message!\n");
        BV_TRACE(TRACE_NORMAL, "#error#: %08x\n", GetLastError());
        print_catalogue_text(504);
        message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_SIGNER;
      }

      // 16 to 28. Each signer leaves one record.  `overallOk` takes a
      // signer's flag only at the next signer's head, so a second try that
      // passes counts only for the last signer.
      int overallOk = 1, signerOk = 1;
      bv::platform::CertContext signer_cert;
      for (DWORD index = 0; index < signer_count; ++index) {
        if (signerOk == 0) overallOk = 0;
        signerOk = 0;
        signer_cert.reset();
        BV_TRACE(TRACE_DETAIL, "#trace#: Check signer # %d\n", static_cast<int>(index));

        if (isCades != 0) {
          // 17 to 19. The CAdES library judges everything.
          HeldInfo verified;
          const BOOL ok = CadesMsgVerifySignature(message.get(), index, nullptr, &verified.info);
          const DWORD error = GetLastError();
          const CadesVerificationInfo& info = *verified.info;
          if (ok && info.dwStatus == CADES_VERIFY_SUCCESS) {
            signer_cert.reset(CertDuplicateCertificateContext(info.pSignerCert));
            SsfInfo* record = addToSignerResultList(signerList, signer_cert.get(), 0, info.pSigningTime,
                                                    info.pSignatureTimeStampTime, SSF_RES_OK);
            signerOk = 1;
            if (record != nullptr && record->strSigRcpIdL > 0)
              BV_TRACE(TRACE_NORMAL, "#info#: signer's signature # %d - OK with CertID=%s\n", static_cast<int>(index),
                       id_of(record).c_str());
            continue;
          }
          print_status_text(info.dwStatus);
          SsfInfo* record = addToSignerResultList(signerList, info.pSignerCert, 0, info.pSigningTime,
                                                  info.pSignatureTimeStampTime, result_of_status(info.dwStatus));
          if (record != nullptr && record->strSigRcpIdL > 0)
            BV_TRACE(TRACE_NORMAL, "#error#: Failed to verify signature # %d with CertID=%s\n", static_cast<int>(index),
                     id_of(record).c_str());
          if (error != 0) {
            SetLastError(error);
            BV_TRACE_LAST_ERROR();
          }
          overallOk = 0;
          continue;
        }

        // 20. A plain signer's time comes from its signed attribute.
        FILETIME signing_time_value{};
        const FILETIME* signing_time = getSigningTime(message.get(), index, &signing_time_value);

        // 21, 22. Its certificate information.
        DWORD cert_info_size = 0;
        std::string cert_info_buffer;
        if (!CryptMsgGetParam(message.get(), CMSG_SIGNER_CERT_INFO_PARAM, index, nullptr, &cert_info_size) ||
            (cert_info_buffer.assign(cert_info_size, '\0'),
             !CryptMsgGetParam(message.get(), CMSG_SIGNER_CERT_INFO_PARAM, index, cert_info_buffer.data(),
                               &cert_info_size))) {
          BV_TRACE(TRACE_NORMAL,
                   "#error#: signer's signature # %d - Failed. Can not get Certificate Info from signature\n",
                   static_cast<int>(index));
          BV_TRACE_LAST_ERROR();
          if (addToSignerResultList(signerList, nullptr, 2, signing_time, nullptr, SSF_RES_OK) == nullptr) {
            message.reset();
            BV_TRACE_FAILURE();
            return SSF_ERR_SIGNERINFO;
          }
          overallOk = 0;
          continue;
        }
        const auto* signer_id = reinterpret_cast<const CERT_INFO*>(cert_info_buffer.data());

        // 23. The certificate, and the signature proved with it.
        signer_cert.reset(CryptGetSignerCertificateCallback(0, signer_id, message.get(), strPab, strPabL));
        BOOL signature_ok = FALSE;
        DWORD error = 0;
        if (signer_cert.get() != nullptr) {
          CMSG_CTRL_VERIFY_SIGNATURE_EX_PARA para{};
          para.cbSize = sizeof para;
          para.dwSignerIndex = index;
          para.dwSignerType = CMSG_VERIFY_SIGNER_CERT;
          para.pvSigner = const_cast<CERT_CONTEXT*>(signer_cert.get());
          signature_ok = CryptMsgControl(message.get(), 0, CMSG_CTRL_VERIFY_SIGNATURE_EX, &para);
          error = GetLastError();
        } else {
          BV_TRACE(TRACE_NORMAL, "Certificate not found\n");
          error = CRYPT_E_NOT_FOUND;
        }

        // 24. A bad signature or no certificate.
        if (!signature_ok || signer_cert.get() == nullptr) {
          overallOk = 0;
          SetLastError(error);
          BV_TRACE_LAST_ERROR();
          int32_t result = SSF_RES_UNKNOWN;
          if (error == CRYPT_E_NOT_FOUND || error == CRYPT_E_SIGNER_NOT_FOUND) {
            result = SSF_RES_NOCERTIFICATE;
            print_catalogue_text(503);  // "Сертификат автора подписи не найден.\n"
          } else if (error == NTE_BAD_SIGNATURE || error == CRYPT_E_HASH_VALUE) {
            result = SSF_RES_NOT_OK;
          }
          SsfInfo* record = addToSignerResultList(signerList, signer_cert.get(), 0, signing_time, nullptr, result);
          if (record != nullptr && record->strSigRcpIdL > 0)
            BV_TRACE(TRACE_NORMAL, "#error#: Failed to verify signature # %d with CertID=%s\n", static_cast<int>(index),
                     id_of(record).c_str());
          continue;
        }

        // 25, 26. A good signature; the certificate under the chain policy.
        BV_TRACE(TRACE_INFO, "#info#: Signer's signature # %d - OK. Verifying Signer's certificate...\n",
                 static_cast<int>(index));
        DWORD chain_status = 0;
        const int32_t verified = VerifyCertificate(signer_cert.get(), config.VerifyCertFlags, &chain_status);
        if (certificate_status_acceptable(verified, chain_status)) {
          print_catalogue_text(141);  // " Подпись проверена.\n"
          SsfInfo* record = addToSignerResultList(signerList, signer_cert.get(), 0, signing_time, nullptr, SSF_RES_OK);
          if (record != nullptr && record->strSigRcpIdL > 0)
            BV_TRACE(TRACE_NORMAL, "#info#: Successed to verify Certificate (CertID=%s) for signature # %d\n",
                     id_of(record).c_str(), static_cast<int>(index));
          signerOk = 1;
          continue;
        }

        // 27, 28. The chain was refused: the CAdES library has the last word.
        BV_TRACE(TRACE_NORMAL,
                 "#error#: Signer's certificate # %d - Not checked (CheckResult = 0x%x). Trying to check as cades "
                 "message...\n",
                 static_cast<int>(index), chain_status);
        HeldInfo second;
        const BOOL second_ok = CadesMsgVerifySignature(message.get(), index, nullptr, &second.info);
        const CadesVerificationInfo& info = *second.info;
        if (info.pSigningTime != nullptr) signing_time = info.pSigningTime;
        int32_t result = SSF_RES_OK;
        if (second_ok && info.dwStatus == CADES_VERIFY_SUCCESS) {
          BV_TRACE(TRACE_INFO, "#info#: VerifyCertificate (%d) as Cades - Success\n", static_cast<int>(index));
        } else {
          overallOk = 0;
          BV_TRACE(TRACE_NORMAL, "#error#: VerifyCertificate (%d) failed\n", static_cast<int>(index));
          print_status_text(info.dwStatus);
          result = SSF_RES_UNKNOWN;
        }
        SsfInfo* record = addToSignerResultList(signerList, signer_cert.get(), 0, signing_time,
                                                info.pSignatureTimeStampTime, result);
        if (result != SSF_RES_OK && record != nullptr && record->strSigRcpIdL > 0)
          BV_TRACE(TRACE_NORMAL, "#error#: Failed to verify Certificate (CertID=%s) for signature # %d\n",
                   id_of(record).c_str(), static_cast<int>(index));
      }

      // 29, 30. The end; given input must equal the content.
      message.reset();
      signer_cert.reset();
      if (!detached && ostrInputDataL != 0) {
        const bool same = ostrInputData != nullptr && ostrInputDataL > 0 &&
                          static_cast<uint32_t>(ostrInputDataL) == *ostrOutputDataL &&
                          std::memcmp(ostrInputData, *ostrOutputData, *ostrOutputDataL) == 0;
        if (!same) {
          BV_TRACE(TRACE_NORMAL, "#error#: Input data is different from content data\n");
          BV_TRACE_FAILURE();
          return SSF_ERR_INPUT;
        }
      }

      // 31, 32.
      if (overallOk != 0) {
        BV_TRACE_SUCCESS();
        return SSF_OK;
      }
      BV_TRACE_FAILURE();
      return SSF_ERR_SIGNER;
    });
  });
}
