// SsfAddSign: one more signer for a message that is already signed.  The
// message is decoded twice: once to look at it (detached or not, does the
// given input agree), once to take the new signature, plain through the
// platform's message service or CAdES through the CAdES library.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bvsapssf.h"
#include "bvsapssf_api.h"
#include "cadesmsg/cadesmsg.h"
#include "crypt32/cert.h"
#include "crypt32/msg.h"
#include "frame.h"
#include "identity/identity.h"
#include "identity/lookup.h"
#include "identity/names.h"
#include "identity/selection.h"
#include "identity/signer_key.h"
#include "operations/cades_enhance.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// What the call holds until it ends, whichever way: the signer's
// certificate (and the key it carries), the hash buffer, the message.
struct AddSignCallState {
  SignerCertList signer;  // one certificate at most
  SharedHash hash;
  bv::platform::MessageHandle message;
  ~AddSignCallState() { free_signer_certs(signer); }
};

}  // namespace

extern "C" SSF_RC SsfAddSign(const char* strFormat, int32_t strFormatL, const char*, int32_t, SSF_BOOL bIncludeCerts,
                             const unsigned char* ostrSignedData, int32_t ostrSignedDataL,
                             const unsigned char* ostrInputData, int32_t ostrInputDataL, SsfInfo* signer,
                             unsigned char** ostrSignedDataOut, uint32_t* ostrSignedDataOutL) {
  constexpr const char* trace_function = "SsfAddSign";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1. Outputs cleared where the host gave a place for them, banner, format name.
    if (ostrSignedDataOut != nullptr) *ostrSignedDataOut = nullptr;
    if (ostrSignedDataOutL != nullptr) *ostrSignedDataOutL = 0;
    BV_TRACE_START();
    bv::frame::trace_format_name(trace_function, strFormat, strFormatL);

    // 2, 3. The format; the name alone decides, "PKCS7_ANY" adds a plain signer.
    unsigned char isCades = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0) {
      BV_TRACE_FAILURE();
      return SSF_ERR_FORMAT;
    }
    BV_TRACE(TRACE_NORMAL, "#info#: accept isCades='%d' \n", isCades);

    // 4-7. The record, the message, the identity.
    if (signer == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: Empty signer structure\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_SIGNER;
    }
    if (ostrSignedDataL < 1) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrSignedDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    const int32_t idL = bv::frame::field_length(signer->strSigRcpId, signer->strSigRcpIdL);
    if (idL < 1) {
      BV_TRACE(TRACE_NORMAL, "#error#: strSigRcpIdL <= 0\n");
      signer->Result = SSF_RES_UNKNOWN;
      BV_TRACE_FAILURE();
      return SSF_ERR_SIGNER;
    }
    int32_t blanks = 0;
    while (blanks < idL && signer->strSigRcpId[blanks] == ' ') ++blanks;
    if (blanks == idL) {
      BV_TRACE(TRACE_NORMAL, "#error#: Empty strSigRcpId\n");
      signer->Result = SSF_RES_UNKNOWN;
      BV_TRACE_FAILURE();
      return SSF_ERR_SIGNER;
    }
    if (ostrSignedData == nullptr || ostrSignedDataOut == nullptr || ostrSignedDataOutL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    return bv::frame::guarded(trace_function, "#exception#:\n", [&]() -> SSF_RC {
      // 8. Licence gate; a refusal throws.
      SSFAPICheckLicense();
      AddSignCallState state;

      // 9, 10. The first decoding only looks at the message.
      state.message.reset(CryptMsgOpenToDecode(kEncoding, 0, 0, 0, nullptr, nullptr));
      if (!state.message) {
        BV_TRACE_LAST_ERROR();
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }
      if (!CryptMsgUpdate(state.message.get(), ostrSignedData, static_cast<DWORD>(ostrSignedDataL), TRUE)) {
        BV_TRACE_LAST_ERROR();
        state.message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_DECODE;
      }

      // 11-13. No content: the signature is detached and the input is its
      // content.  Content: the input, if given, must be that content.
      DWORD open_flags = 0;
      DWORD content_length = 0;
      CryptMsgGetParam(state.message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &content_length);
      if (content_length == 0) {
        open_flags = CMSG_DETACHED_FLAG;
        if (ostrInputDataL == 0 || ostrInputData == nullptr) {
          BV_TRACE(TRACE_NORMAL, "#error#: No Input data\n");
          state.message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_INPUT;
        }
      } else {
        auto* content = static_cast<unsigned char*>(std::malloc(content_length));
        if (content == nullptr) {
          BV_TRACE_LAST_ERROR();
          state.message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_NOMEMORY;
        }
        if (!CryptMsgGetParam(state.message.get(), CMSG_CONTENT_PARAM, 0, content, &content_length)) {
          BV_TRACE_LAST_ERROR();
          state.message.reset();
          std::free(content);
          BV_TRACE_FAILURE();
          return SSF_ERR_DECODE;
        }
        if (ostrInputDataL != 0 &&
            (ostrInputData == nullptr || static_cast<int64_t>(ostrInputDataL) != static_cast<int64_t>(content_length) ||
             std::memcmp(ostrInputData, content, content_length) != 0)) {
          BV_TRACE(TRACE_NORMAL, "#error#: Input data is different from content data\n");
          state.message.reset();
          std::free(content);
          BV_TRACE_FAILURE();
          return SSF_ERR_INPUT;
        }
        // 14.
        std::free(content);
      }
      state.message.reset();

      // 15. The signer's store.
      const int32_t profileL = bv::frame::field_length(signer->Profile, signer->ProfileL);
      if (profileL > 0) {
        const std::string profile(signer->Profile, static_cast<size_t>(profileL));
        BV_TRACE(TRACE_DETAIL, "#trace# Signer's Store = %s.\n", profile.c_str());
      }
      bv::platform::CertStore store = open_profile_store(signer->Profile, profileL, ProfileStoreUse::AddSign);
      if (!store) {
        BV_TRACE(TRACE_NORMAL, "#error#: Invalid Store in user's profile\n");
        signer->Result = SSF_RES_INVALID_PROFILE;
        BV_TRACE_FAILURE();
        return SSF_ERR_SIGNER;
      }

      // 16-18. The identity, chosen from a list if the record asks for that.
      signer->Result = SSF_RES_UNKNOWN;
      CMSG_SIGNER_ENCODE_INFO SignerEncodeInfo{};
      SignerEncodeInfo.cbSize = sizeof(CMSG_SIGNER_ENCODE_INFO);
      select_certificate_from_list_if_needed(store.get(), &signer->strSigRcpId, &signer->strSigRcpIdL);
      const std::string identity(signer->strSigRcpId, static_cast<size_t>(std::max(signer->strSigRcpIdL, 0)));
      BV_TRACE(TRACE_NORMAL, "#info#: Searched userID (%s)\n", identity.c_str());
      IdentityMatches matches;
      if (!matches.read(signer->strSigRcpId, signer->strSigRcpIdL, &state.hash.blob)) {
        BV_TRACE(TRACE_NORMAL, "#error#: Invalid user's ID (%s)\n", identity.c_str());
        signer->Result = SSF_RES_UNKNOWN;
        // The two forms end differently: only a DN writes the banner.
        if (!is_hash_id(signer->strSigRcpId, signer->strSigRcpIdL)) BV_TRACE_FAILURE();
        return SSF_ERR_SIGNER;
      }

      // 19, 20. The first certificate of the store that passes the policy
      // and opens its key.
      BV_TRACE(TRACE_DETAIL, "#trace# Search Signer's certificate.\n");
      const SearchStep step = walk_to_signer(store.get(), matches, trace_function, signer, &SignerEncodeInfo,
                                             state.signer, SignerWalk::AddSign);
      if (step == SearchStep::CallEnds) {
        // A PIN no text can have ends the call as an unexpected failure.
        SetLastError(static_cast<DWORD>(E_UNEXPECTED));
        return bv::frame::shared_tail(trace_function, nullptr);
      }

      // 21, 22.
      std::free(state.hash.blob.pbData);
      state.hash.blob.pbData = nullptr;
      store.reset();
      if (step != SearchStep::Found) {
        BV_TRACE(TRACE_NORMAL, "#error#: Signer's certificate with supplied pin code not found\n");
        BV_TRACE_FAILURE();
        return SSF_ERR_SIGNER;
      }

      // 23. The signer is found: that is what Result tells from here on.
      signer->Result = SSF_RES_OK;

      // 24-27. The second decoding takes the signature; a detached message
      // its content after it.
      BV_TRACE(TRACE_DETAIL, "#trace#: trying to add signature to message.\n");
      const auto open_message = [&]() -> SSF_RC {
        state.message.reset(CryptMsgOpenToDecode(kEncoding, open_flags, 0, 0, nullptr, nullptr));
        if (!state.message) {
          BV_TRACE_LAST_ERROR();
          free_signer_certs(state.signer);
          BV_TRACE_FAILURE();
          return SSF_ERR_INTERNAL;
        }
        if (!CryptMsgUpdate(state.message.get(), ostrSignedData, static_cast<DWORD>(ostrSignedDataL), TRUE) ||
            (open_flags != 0 &&
             !CryptMsgUpdate(state.message.get(), ostrInputData, static_cast<DWORD>(ostrInputDataL), TRUE))) {
          BV_TRACE_LAST_ERROR();
          free_signer_certs(state.signer);
          state.message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_INPUT;
        }
        return SSF_OK;
      };
      if (const SSF_RC opened = open_message(); opened != SSF_OK) return opened;

      if (isCades == 0) {
        // 28-30. A plain signer, and its certificate if asked for.
        if (!CryptMsgControl(state.message.get(), 0, CMSG_CTRL_ADD_SIGNER, &SignerEncodeInfo)) {
          BV_TRACE(TRACE_NORMAL, "#error#: Failed to add signer to message.\n");
          BV_TRACE_LAST_ERROR();
          free_signer_certs(state.signer);
          state.message.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_ENCODE;
        }
        if (bIncludeCerts != 0) {
          const PCCERT_CONTEXT added = state.signer.front();
          CERT_BLOB certificate{added->cbCertEncoded, added->pbCertEncoded};
          if (!CryptMsgControl(state.message.get(), 0, CMSG_CTRL_ADD_CERT, &certificate)) {
            BV_TRACE(TRACE_NORMAL, "#error#: Failed to add certificate to message.\n");
            BV_TRACE_LAST_ERROR();
            free_signer_certs(state.signer);
            state.message.reset();
            BV_TRACE_FAILURE();
            return SSF_ERR_ENCODE;
          }
        }
        BV_TRACE(TRACE_INFO, "#info#: Signature is added to message.\n");
      } else {
        // 31-34. A CAdES signer, raised in the same call: the default
        // service, then the first additional one only.
        CadesSignPara sign_para{};
        sign_para.dwSize = sizeof sign_para;
        sign_para.dwCadesType = CADES_X_LONG_TYPE_1;
        CadesEnhancedSignerPara enhanced{};
        enhanced.dwSize = sizeof enhanced;
        enhanced.pSignerEncodeInfo = &SignerEncodeInfo;
        enhanced.pCadesSignPara = &sign_para;
        BV_TRACE(TRACE_DETAIL, "#trace#: trying to add cades enhanced signature with default TSP...\n");
        if (!CadesMsgAddEnhancedSignature(state.message.get(), &enhanced)) {
          if (config.additionalTSP.empty()) {
            BV_TRACE(TRACE_NORMAL, "#error#: Failed to add enhanced signature to cades message.\n");
            BV_TRACE_LAST_ERROR();
            free_signer_certs(state.signer);
            state.message.reset();
            BV_TRACE_FAILURE();
            return SSF_ERR_ENCODE;
          }
          const std::string& address = config.additionalTSP.front();
          BV_TRACE(TRACE_DETAIL, "#info#: Trying to enhance cades message with additional TSP = %s...\n",
                   address.c_str());
          TspConnection connection;
          connection.point(sign_para, address.c_str());
          state.message.reset();
          if (const SSF_RC opened = open_message(); opened != SSF_OK) return opened;
          if (!CadesMsgAddEnhancedSignature(state.message.get(), &enhanced)) {
            // res1 is never the call's answer: it stays 0.
            BV_TRACE(TRACE_NORMAL, "#error#: Failed to add enhanced signature to cades message. res1 = 0x%x\n", 0);
            BV_TRACE_LAST_ERROR();
            free_signer_certs(state.signer);
            state.message.reset();
            BV_TRACE_FAILURE();
            return SSF_ERR_ENCODE;
          }
        }
        BV_TRACE(TRACE_INFO, "#info#: Enhanced signature is added to cades message.\n");
      }

      // 35. The whole message, encoded again.
      DWORD signed_length = 0;
      if (!CryptMsgGetParam(state.message.get(), CMSG_ENCODED_MESSAGE, 0, nullptr, &signed_length)) {
        BV_TRACE(TRACE_NORMAL, "#error#: Failed to extract encoded message size.\n");
        BV_TRACE_LAST_ERROR();
        state.message.reset();
        free_signer_certs(state.signer);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }
      auto* signed_data = static_cast<unsigned char*>(std::malloc(signed_length != 0 ? signed_length : 1));
      if (signed_data == nullptr) {
        BV_TRACE_LAST_ERROR();
        free_signer_certs(state.signer);
        state.message.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_NOMEMORY;
      }
      if (!CryptMsgGetParam(state.message.get(), CMSG_ENCODED_MESSAGE, 0, signed_data, &signed_length)) {
        BV_TRACE(TRACE_NORMAL, "#error#: Failed to extract encoded message.\n");
        BV_TRACE_LAST_ERROR();
        state.message.reset();
        free_signer_certs(state.signer);
        std::free(signed_data);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      // 36. Closing is the one place its answer is looked at.
      if (!CryptMsgClose(state.message.release())) {
        BV_TRACE_LAST_ERROR();
        free_signer_certs(state.signer);
        std::free(signed_data);
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      // 37.
      free_signer_certs(state.signer);
      *ostrSignedDataOut = signed_data;
      *ostrSignedDataOutL = signed_length;
      BV_TRACE_SUCCESS();
      return SSF_OK;
    });
  });
}
