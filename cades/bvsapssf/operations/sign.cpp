// SsfSign: a PKCS #7 or CAdES signed message of the input for every signer
// of the list, or the bare GOST signature of its one signer.
#include <cstdlib>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "bvsapssf_api.h"
#include "cadesmsg/cadesmsg.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "frame.h"
#include "identity/lookup.h"
#include "identity/names.h"
#include "identity/signer_key.h"
#include "operations/cades_enhance.h"
#include "operations/raw_sign.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// Whatever path leaves the call, the winners' contexts (and the keys they
// hold) and the shared hash buffer go; the explicit steps below empty them
// first where the operation releases them itself.
struct SignCallState {
  SignerSearch search;
  ~SignCallState() {
    free_signer_certs(search.certs);
    std::free(search.hash.pbData);
  }
};

// Closes a message that a failure leaves open, also when unwinding.
struct OpenMessage {
  HCRYPTMSG handle = nullptr;
  BOOL close() {
    const BOOL closed = CryptMsgClose(handle);
    handle = nullptr;
    return closed;
  }
  ~OpenMessage() {
    if (handle != nullptr) CryptMsgClose(handle);
  }
};

}  // namespace

extern "C" SSF_RC SsfSign(const char* strFormat, int32_t strFormatL, const char*, int32_t, SSF_BOOL bIncludeCerts,
                          SSF_BOOL bDetached, const unsigned char* ostrInputData, int32_t ostrInputDataL,
                          SsfInfoNode* signers, unsigned char** ostrSignedData, uint32_t* ostrSignedDataL) {
  constexpr const char* trace_function = "SsfSign";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1. Outputs cleared where the host gave a place for them, start banner,
    // format name (a null name has none to show).
    if (ostrSignedData != nullptr) *ostrSignedData = nullptr;
    if (ostrSignedDataL != nullptr) *ostrSignedDataL = 0;
    BV_TRACE_START();
    bv::frame::trace_format_name(trace_function, strFormat, strFormatL);

    // 2, 3. Format: a message format, or a bare signature.
    unsigned char isCades = 0;
    unsigned char isRawGost = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0) {
      isRawGost = raw_gost_format(strFormat, strFormatL);
      if (isRawGost == 0) {
        BV_TRACE_FAILURE();
        return SSF_ERR_FORMAT;
      }
      BV_TRACE(TRACE_NORMAL, "#info#: accept isRawGost='%d' \n", isRawGost);
    }
    BV_TRACE(TRACE_NORMAL, "#info#: accept isCades='%d' \n", isCades);

    // 4. Parameters: the list first, then the input, then where the input
    // comes from and the answer goes.
    if (signers == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: Empty signer's list\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_SIGNER;
    }
    if (ostrInputDataL < 1) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrInputDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (ostrInputData == nullptr || ostrSignedData == nullptr || ostrSignedDataL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    return bv::frame::guarded(trace_function, nullptr, [&]() -> SSF_RC {
      // 5. Licence gate; a refusal throws.
      SSFAPICheckLicense();

      // 6, 7. Count the signers; a bare signature has exactly one.
      int signer_count = 0;
      for (const SsfInfoNode* node = signers; node != nullptr; node = node->next) ++signer_count;
      BV_TRACE(TRACE_DETAIL, "#trace# Count of signers=%d.\n", signer_count);
      if (isRawGost != 0 && signer_count > 1) {
        BV_TRACE(TRACE_NORMAL,
                 "#error#: Count of signers=%d. But only one signer should be for RAW_GOST signature ()\n",
                 signer_count);
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }

      // 8, 9. Find every signer's certificate and key, all of them, whatever
      // became of the earlier ones.
      std::vector<CMSG_SIGNER_ENCODE_INFO> SignerEncodeInfoVector(static_cast<size_t>(signer_count));
      SignCallState state;
      int index = 0;
      for (SsfInfoNode* node = signers; node != nullptr; node = node->next, ++index) {
        BV_TRACE(TRACE_DETAIL, "#trace# Check Signer # = %d.\n", index);
        if (node->info == nullptr) {
          BV_TRACE(TRACE_NORMAL, "#error#: Unintialized signer structure\n");
          BV_TRACE_FAILURE();
          return SSF_ERR_INTERNAL;
        }
        CMSG_SIGNER_ENCODE_INFO* encode = &SignerEncodeInfoVector[static_cast<size_t>(index)];
        if (search_signer_certificate(trace_function, node->info, index, encode, state.search) ==
            SearchStep::CallEnds) {
          // A PIN no text can have ends the call as an unexpected failure.
          SetLastError(static_cast<DWORD>(E_UNEXPECTED));
          return bv::frame::shared_tail(trace_function, nullptr);
        }
      }

      // 10, 11. The hash buffer goes; a signer without a certificate ends the call.
      std::free(state.search.hash.pbData);
      state.search.hash.pbData = nullptr;
      if (state.search.failures != 0) {
        free_signer_certs(state.search.certs);
        BV_TRACE(TRACE_NORMAL, "#error#: %d certificates not found\n", state.search.failures);
        BV_TRACE_FAILURE();
        return SSF_ERR_SIGNER;
      }

      // 12. A bare signature: the provider signs the hash of the input.
      if (isRawGost != 0) {
        const CMSG_SIGNER_ENCODE_INFO& signer = SignerEncodeInfoVector[0];
        if (!calc_simple_sign(signer.hCryptProv, signer.HashAlgorithm.pszObjId, signer.dwKeySpec, ostrInputData,
                              ostrInputDataL, ostrSignedData, ostrSignedDataL)) {
          *ostrSignedDataL = 0;
          BV_TRACE_LAST_ERROR();
          free_signer_certs(state.search.certs);
          BV_TRACE_FAILURE();
          return SSF_ERR_ENCODE;
        }
        free_signer_certs(state.search.certs);
        if (isRawGost == 2) reverse_bytes(*ostrSignedData, *ostrSignedDataL);
        BV_TRACE_SUCCESS();
        return SSF_OK;
      }

      // 13. The signed message's encode information, with the signers'
      // certificates if asked for.
      std::vector<CERT_BLOB> certificate_blobs(static_cast<size_t>(signer_count), CERT_BLOB{0, nullptr});
      CMSG_SIGNED_ENCODE_INFO signed_info{};
      signed_info.cbSize = sizeof(CMSG_SIGNED_ENCODE_INFO);
      signed_info.cSigners = static_cast<DWORD>(signer_count);
      signed_info.rgSigners = SignerEncodeInfoVector.data();
      if (bIncludeCerts != 0) {
        DWORD included = 0;
        for (PCCERT_CONTEXT cert : state.search.certs) {
          if (cert == nullptr) continue;
          certificate_blobs[included].cbData = cert->cbCertEncoded;
          certificate_blobs[included].pbData = cert->pbCertEncoded;
          ++included;
        }
        signed_info.cCertEncoded = included;
        signed_info.rgCertEncoded = certificate_blobs.data();
      }

      // 14, 15. Open the message.
      BV_TRACE(TRACE_DETAIL, "#trace#: trying to sign message...\n");
      // The input stays the host's until this call returns, after the
      // message is closed: it is signed and encoded where it lies.
      const DWORD open_flags = (bDetached != 0 ? CMSG_DETACHED_FLAG : 0) | CMSG_BV_BORROW_CONTENT_FLAG;
      OpenMessage message;
      if (isCades != 0) {
        CadesEncodeInfo cades_info{};
        cades_info.dwSize = sizeof(CadesEncodeInfo);
        cades_info.pSignedEncodeInfo = &signed_info;
        message.handle = CadesMsgOpenToEncode(kEncoding, open_flags, &cades_info, nullptr, nullptr);
      } else {
        message.handle = CryptMsgOpenToEncode(kEncoding, open_flags, CMSG_SIGNED, &signed_info, nullptr, nullptr);
      }
      if (message.handle == nullptr) {
        BV_TRACE_LAST_ERROR();
        free_signer_certs(state.search.certs);
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }

      // 16. The whole input in one update.
      if (!CryptMsgUpdate(message.handle, ostrInputData, static_cast<DWORD>(ostrInputDataL), TRUE)) {
        BV_TRACE_LAST_ERROR();
        message.close();
        free_signer_certs(state.search.certs);
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }

      // 17. Length, block, bytes.
      DWORD signed_length = 0;
      if (!CryptMsgGetParam(message.handle, CMSG_CONTENT_PARAM, 0, nullptr, &signed_length)) {
        BV_TRACE_LAST_ERROR();
        message.close();
        free_signer_certs(state.search.certs);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }
      auto* signed_data = static_cast<unsigned char*>(std::malloc(signed_length));
      if (signed_data == nullptr) {
        BV_TRACE_LAST_ERROR();
        message.close();
        free_signer_certs(state.search.certs);
        BV_TRACE_FAILURE();
        return SSF_ERR_NOMEMORY;
      }
      if (!CryptMsgGetParam(message.handle, CMSG_CONTENT_PARAM, 0, signed_data, &signed_length)) {
        BV_TRACE_LAST_ERROR();
        message.close();
        free_signer_certs(state.search.certs);
        std::free(signed_data);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      // 18, 19. Close the message; the certificates go, and their keys with them.
      if (!message.close()) {
        BV_TRACE_LAST_ERROR();
        free_signer_certs(state.search.certs);
        std::free(signed_data);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }
      free_signer_certs(state.search.certs);

      // 20. A CAdES message is raised to X Long Type 1: the default time
      // stamp service first, then the additional ones in order until one works.
      if (isCades != 0) {
        BV_TRACE(TRACE_DETAIL, "#trace#: trying to enhance cades message with default TSP\n");
        DWORD result = cades_enhance_message(&signed_data, &signed_length, nullptr);
        for (const std::string& address : config.additionalTSP) {
          if (result == 0) break;
          BV_TRACE(TRACE_DETAIL, "#info#: Trying to enhance cades message with additional TSP = %s\n",
                   address.c_str());
          result = cades_enhance_message(&signed_data, &signed_length, address.c_str());
        }
        if (result != 0) {
          BV_TRACE(TRACE_NORMAL, "#error#: Failed to enhance cades message. res = 0x%x\n", result);
          BV_TRACE_LAST_ERROR();
          std::free(signed_data);
          BV_TRACE_FAILURE();
          return SSF_ERR_ENCODE;
        }
      }

      // 21.
      *ostrSignedData = signed_data;
      *ostrSignedDataL = signed_length;
      BV_TRACE_SUCCESS();
      return SSF_OK;
    });
  });
}
