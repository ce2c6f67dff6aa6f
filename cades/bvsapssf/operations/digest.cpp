// SsfDigest: a bare hash under the raw formats, a CMS digested message
// under the others.
#include "operations/digest.h"

#include <cstdlib>

#include "advapi32/provider.h"
#include "bvsapssf_api.h"
#include "crypt32/msg.h"
#include "crypt32/oidinfo.h"
#include "frame.h"
#include "identity/names.h"
#include "trace/trace.h"

bool create_hash_for_oid(const char* trace_function, HCRYPTPROV hProv, const char* hashOid,
                         bv::platform::HashObject& hash) {
  constexpr const char* trace_file = "bvsapssf";
  ALG_ID algid = CALG_GR3411;
  if (hashOid != nullptr) {
    PCCRYPT_OID_INFO info =
        CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, const_cast<char*>(hashOid), CRYPT_HASH_ALG_OID_GROUP_ID);
    if (info == nullptr) {
      SetLastError(CRYPT_E_UNKNOWN_ALGO);
      BV_TRACE(TRACE_NORMAL, "#error# CryptFindOIDInfo %s  FAILED.\n", hashOid);
      return false;
    }
    algid = info->Algid;
  }
  if (!CryptCreateHash(hProv, algid, 0, 0, hash.receive())) {
    BV_TRACE(TRACE_NORMAL, "#error# CryptCreateHash for algid = %d  FAILED.\n", static_cast<int>(algid));
    return false;
  }
  return true;
}

bool calc_simple_hash(HCRYPTPROV hProv, const char* hashOid, const BYTE* data, DWORD dataL, BYTE** out, DWORD* outL) {
  constexpr const char* trace_function = "calc_simple_hash";
  constexpr const char* trace_file = "bvsapssf";

  bv::platform::HashObject hash;
  if (!create_hash_for_oid(trace_function, hProv, hashOid, hash)) return false;
  // From here a failure destroys the hash before its line (reset keeps the
  // last error), so the caller reads the error of the failed step.
  if (!CryptHashData(hash.get(), data, dataL, 0)) {
    hash.reset();
    BV_TRACE(TRACE_NORMAL, "#error# CryptHashData.\n");
    return false;
  }
  DWORD size = 0;
  DWORD sizeL = sizeof size;
  if (!CryptGetHashParam(hash.get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &sizeL, 0)) {
    hash.reset();
    BV_TRACE(TRACE_NORMAL, "#error# CryptGetHashParam(HP_HASHSIZE) FAILED.\n");
    return false;
  }
  *out = static_cast<BYTE*>(std::malloc(size));
  if (*out == nullptr) {
    hash.reset();
    BV_TRACE(TRACE_NORMAL, "#error# Failed to allocate memory (%d) for hash.\n", size);
    return false;
  }
  DWORD valueL = size;
  if (!CryptGetHashParam(hash.get(), HP_HASHVAL, *out, &valueL, 0)) {
    hash.reset();
    BV_TRACE(TRACE_NORMAL, "#error# CryptGetHashParam(HP_HASHVAL) FAILED.\n");
    return false;
  }
  *outL = size;
  hash.reset();
  return true;
}

extern "C" SSF_RC SsfDigest(const char* strFormat, int32_t strFormatL, SSF_BOOL bDetached,
                            const unsigned char* ostrInputData, int32_t ostrInputDataL, const char* strHashAlg,
                            int32_t strHashAlgL, unsigned char** ostrDigestData, uint32_t* ostrDigestDataL) {
  constexpr const char* trace_function = "SsfDigest";
  constexpr const char* trace_file = "ssfxxmain";

  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    BV_TRACE_START();
    // The length is cleared here, so a host that gives no place for it is
    // refused here, as SsfDecode refuses it.
    if (ostrDigestDataL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null length pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    *ostrDigestDataL = 0;

    // Every CMS format name gives the same message; the raw names give the
    // bare value, the inverted one in the same order.
    unsigned char isCades = 0;
    bool raw = false;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0) {
      if (raw_gost_format(strFormat, strFormatL) == 0) {
        BV_TRACE_FAILURE();
        return SSF_ERR_FORMAT;
      }
      raw = true;
    }

    if (ostrInputDataL <= 0) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrInputDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (strHashAlgL <= 0) {
      BV_TRACE(TRACE_NORMAL, "#error#: Invalid HashAlg name length\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_HASHALG;
    }
    if (ostrInputData == nullptr || ostrDigestData == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    return bv::frame::guarded(trace_function, nullptr, [&]() -> SSF_RC {
      const HashName* hash = find_hash_name(strHashAlg, strHashAlgL);
      if (hash == nullptr) {
        // The one failure without a banner.
        BV_TRACE(TRACE_NORMAL, "#error#: Invalid HashAlg name\n");
        return SSF_ERR_HASHALG;
      }
      BV_TRACE(TRACE_DETAIL, "#trace# Using hash alg = %s.\n", hash->oid);

      bv::platform::ProviderContext provider;
      if (!CryptAcquireContextA(provider.receive(), nullptr, nullptr, hash->provider_type, CRYPT_VERIFYCONTEXT)) {
        BV_TRACE_LAST_ERROR();
        BV_TRACE_FAILURE();
        return SSF_ERR_INTERNAL;
      }

      if (raw) {
        if (!calc_simple_hash(provider.get(), hash->oid, ostrInputData, static_cast<DWORD>(ostrInputDataL),
                              ostrDigestData, ostrDigestDataL)) {
          *ostrDigestDataL = 0;
          BV_TRACE_LAST_ERROR();
          provider.reset();
          BV_TRACE_FAILURE();
          return SSF_ERR_ENCODE;
        }
        provider.reset();
        BV_TRACE_SUCCESS();
        return SSF_OK;
      }

      CMSG_HASHED_ENCODE_INFO info{};
      info.cbSize = sizeof info;
      info.hCryptProv = provider.get();
      info.HashAlgorithm.pszObjId = const_cast<char*>(hash->oid);
      bv::platform::MessageHandle message(CryptMsgOpenToEncode(
          X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, (bDetached ? CMSG_DETACHED_FLAG : 0) | CMSG_BV_BORROW_CONTENT_FLAG,
          CMSG_HASHED, &info, nullptr, nullptr));
      if (message == nullptr) {
        *ostrDigestDataL = 0;
        BV_TRACE_LAST_ERROR();
        provider.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      // The whole input in one update.
      if (!CryptMsgUpdate(message.get(), ostrInputData, static_cast<DWORD>(ostrInputDataL), TRUE)) {
        *ostrDigestDataL = 0;
        BV_TRACE_LAST_ERROR();
        message.reset();
        provider.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, ostrDigestDataL)) {
        BV_TRACE_LAST_ERROR();
        message.reset();
        provider.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      *ostrDigestData = static_cast<unsigned char*>(std::malloc(*ostrDigestDataL));
      if (*ostrDigestData == nullptr) {
        *ostrDigestDataL = 0;
        BV_TRACE_LAST_ERROR();
        message.reset();
        provider.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_NOMEMORY;
      }

      if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, *ostrDigestData, ostrDigestDataL)) {
        *ostrDigestDataL = 0;
        BV_TRACE_LAST_ERROR();
        // Freed, and not left behind as a dangling pointer for the caller.
        std::free(*ostrDigestData);
        *ostrDigestData = nullptr;
        message.reset();
        provider.reset();
        BV_TRACE_FAILURE();
        return SSF_ERR_ENCODE;
      }

      message.reset();
      provider.reset();
      BV_TRACE_SUCCESS();
      return SSF_OK;
    });
  });
}
