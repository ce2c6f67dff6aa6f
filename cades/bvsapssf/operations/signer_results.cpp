#include "operations/signer_results.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "cadesmsg/cadesmsg.h"
#include "frame.h"
#include "identity/identity.h"
#include "identity/lookup.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";
constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr const char* kNoCertificateId = "issuer-name/Noserialnumber:CN=CA, OU=SSF-TEST, O=TREIGIOG, C=DE/No-2";

// A failed call's line and its text, without a catalogue code.
void report_last_error(const char* trace_function) {
  BV_TRACE(TRACE_NORMAL, "#error#: %08x\n", GetLastError());
  ReportError(trace_file, __LINE__, -1);
}

// "0x", then "0" alone when the first stored byte is 0; otherwise a "0"
// before a first byte with its top bit set, and two digits per byte.
std::string serial_text(const CRYPT_INTEGER_BLOB& serial) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text = "0x";
  if (serial.cbData == 0) return text;
  if (serial.pbData[0] == 0) return text + "0";
  if ((serial.pbData[0] & 0x80) != 0) text += "0";
  for (DWORD i = 0; i < serial.cbData; ++i) {
    text += kDigits[serial.pbData[i] >> 4];
    text += kDigits[serial.pbData[i] & 0x0f];
  }
  return text;
}

std::string name_text(const CERT_NAME_BLOB& name, DWORD flags, DWORD size) {
  std::vector<char> buffer(size, '\0');
  CertNameToStrA(kEncoding, const_cast<CERT_NAME_BLOB*>(&name), flags, buffer.data(), size);
  return std::string(buffer.data());
}

// "SigningTime= dd/mm/yyyy hh:mm:ss (UTCTime: yymmddhhmmssZ)" of `time`:
// local time first, then UTC; false when it can't be converted.
bool time_text(const FILETIME& time, const char* suffix, std::string& out) {
  SYSTEMTIME utc{}, local{};
  FILETIME local_time{};
  if (!FileTimeToSystemTime(&time, &utc)) return false;
  FileTimeToLocalFileTime(&time, &local_time);
  FileTimeToSystemTime(&local_time, &local);
  char text[176];
  std::snprintf(text, sizeof text,
                "SigningTime= %02d/%02d/%04d %02d:%02d:%02d (UTCTime: %02d%02d%02d%02d%02d%02dZ)%s", local.wDay,
                local.wMonth, local.wYear, local.wHour, local.wMinute, local.wSecond, utc.wYear - 2000, utc.wMonth,
                utc.wDay, utc.wHour, utc.wMinute, utc.wSecond, suffix);
  out = text;
  return true;
}

}  // namespace

FILETIME* getSigningTime(HCRYPTMSG message, DWORD signerIndex, FILETIME* time) {
  constexpr const char* trace_function = "getSigningTime";
  DWORD size = 0;
  if (!CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, signerIndex, nullptr, &size)) {
    report_last_error(trace_function);
    return nullptr;
  }
  std::vector<BYTE> buffer(size);
  auto* info = reinterpret_cast<CMSG_SIGNER_INFO*>(buffer.data());
  if (!CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, signerIndex, buffer.data(), &size)) {
    report_last_error(trace_function);
    return nullptr;
  }
  if (info->AuthAttrs.cAttr == 0) return nullptr;
  const CRYPT_ATTRIBUTE* attribute = CertFindAttribute(szOID_RSA_signingTime, info->AuthAttrs.cAttr, info->AuthAttrs.rgAttr);
  if (attribute == nullptr) {
    report_last_error(trace_function);
    return nullptr;
  }
  if (attribute->cValue == 0 || attribute->rgValue[0].cbData == 0) return nullptr;
  DWORD time_size = sizeof(FILETIME);
  if (!CryptDecodeObject(kEncoding, szOID_RSA_signingTime, attribute->rgValue[0].pbData, attribute->rgValue[0].cbData,
                         0, time, &time_size)) {
    report_last_error(trace_function);
    return nullptr;
  }
  return time;
}

SsfInfo* addToSignerResultList(SsfInfoNode** list, const void* signer, int32_t kind, const FILETIME* signingTime,
                               const FILETIME* timestampTime, int32_t result) {
  constexpr const char* trace_function = "addToSignerResultList";
  const auto* cert = kind == 0 ? static_cast<PCCERT_CONTEXT>(signer) : nullptr;

  // The identifier: the certificate's hash, its subject (in encoded order
  // for GOST 2001-family signature algorithms, reversed otherwise), its
  // issuer and serial, the caller's text, or the fixed text with result 26.
  std::string id;
  if (config.UserIdAsCertHash && cert != nullptr) {
    DWORD size = 0;
    if (CertGetCertificateContextProperty(cert, CERT_HASH_PROP_ID, nullptr, &size)) {
      std::vector<BYTE> hash(size);
      if (CertGetCertificateContextProperty(cert, CERT_HASH_PROP_ID, hash.data(), &size))
        id = bytes_to_hex_string(hash.data(), static_cast<int32_t>(size));
    }
  }
  if (config.UserIdAsCertHash) {
    if (id.empty()) BV_TRACE(TRACE_NORMAL, "#error#: %08x\n", GetLastError());
    if (GetLastError() != 0) print_last_error_text(GetLastError());
  } else if (cert != nullptr) {
    const CERT_INFO& info = *cert->pCertInfo;
    const char* algorithm = info.SignatureAlgorithm.pszObjId;
    const DWORD flags = algorithm != nullptr && std::strncmp(algorithm, "1.2.643.2.2", 11) == 0
                            ? CERT_X500_NAME_STR
                            : CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG;
    const DWORD subject_size = CertNameToStrA(kEncoding, const_cast<CERT_NAME_BLOB*>(&info.Subject), flags, nullptr, 0);
    if (subject_size != 0) {
      id = name_text(info.Subject, flags, subject_size);
    } else {
      const DWORD issuer_size = CertNameToStrA(kEncoding, const_cast<CERT_NAME_BLOB*>(&info.Issuer), flags, nullptr, 0);
      if (issuer_size != 0)
        id = "issuer-name/serialnumber:" + name_text(info.Issuer, flags, issuer_size) + "/" +
             serial_text(info.SerialNumber);
    }
  }
  if (id.empty() && kind != 0 && signer != nullptr) id = static_cast<const char*>(signer);
  if (id.empty()) {
    id = kNoCertificateId;
    result = SSF_RES_NOCERTIFICATE;
  }

  // The time texts: the signing time, then behind its terminator the time
  // stamp's time; the length covers both.
  std::string times;
  if (signingTime != nullptr) time_text(*signingTime, "", times);
  if (timestampTime != nullptr) {
    std::string stamped;
    if (!times.empty()) times.push_back('\0');
    if (time_text(*timestampTime, " extracted from timestamp", stamped)) times += stamped;
  }

  SsfInfo* record = nullptr;
  const SSF_RC made = SsfNEWSigRcpSsfInfo(
      id.data(), static_cast<int32_t>(id.size()), nullptr, 0, times.empty() ? nullptr : times.data(),
      static_cast<int32_t>(times.size()), cert != nullptr ? reinterpret_cast<const char*>(cert->pbCertEncoded) : nullptr,
      cert != nullptr ? static_cast<int32_t>(cert->cbCertEncoded) : 0, result, &record);
  if (made != SSF_OK || record == nullptr) {
    report_last_error(trace_function);
    return nullptr;
  }
  auto* node = static_cast<SsfInfoNode*>(std::malloc(sizeof(SsfInfoNode)));
  if (node == nullptr) {
    SsfDELSigRcpSsfInfo(&record);
    report_last_error(trace_function);
    return nullptr;
  }
  node->next = nullptr;
  node->info = record;
  SsfInfoNode** end = list;
  while (*end != nullptr) end = &(*end)->next;
  *end = node;
  return record;
}

PCCERT_CONTEXT CryptGetSignerCertificateCallback(DWORD, const CERT_INFO* signerId, HCRYPTMSG message,
                                                 const char* strPab, int32_t strPabL) {
  constexpr const char* trace_function = "CryptGetSignerCertificateCallback";
  if (signerId == nullptr) return nullptr;
  auto* wanted = const_cast<CERT_INFO*>(signerId);

  // 1. The message's own certificates; a failure ends the whole search.
  DWORD count = 0, size = sizeof count;
  if (!CryptMsgGetParam(message, CMSG_CERT_COUNT_PARAM, 0, &count, &size)) return nullptr;
  for (DWORD i = 0; i < count; ++i) {
    DWORD length = 0;
    if (!CryptMsgGetParam(message, CMSG_CERT_PARAM, i, nullptr, &length)) {
      report_last_error(trace_function);
      return nullptr;
    }
    std::vector<BYTE> der(length, 0);
    if (!CryptMsgGetParam(message, CMSG_CERT_PARAM, i, der.data(), &length)) {
      report_last_error(trace_function);
      return nullptr;
    }
    PCCERT_CONTEXT candidate = CertCreateCertificateContext(kEncoding, der.data(), length);
    if (candidate == nullptr) {
      report_last_error(trace_function);
      return nullptr;
    }
    if (CertCompareCertificate(kEncoding, candidate->pCertInfo, wanted)) return candidate;
    CertFreeCertificateContext(candidate);
  }

  // 2. The store the caller named, "Addressbook" by default; one that does
  // not open is no failure.
  if (bv::platform::CertStore store = open_profile_store(strPab, strPab != nullptr ? strPabL : 0, ProfileStoreUse::Verify)) {
    if (PCCERT_CONTEXT found = CertGetSubjectCertificateFromStore(store.get(), kEncoding, wanted)) return found;
  }

  // 3. The certificate values of the message's signers.
  DWORD signers = 0;
  size = sizeof signers;
  if (!CryptMsgGetParam(message, CMSG_SIGNER_COUNT_PARAM, 0, &signers, &size)) {
    report_last_error(trace_function);
    return nullptr;
  }
  for (DWORD index = 0; index < signers; ++index) {
    CadesBlobArray* values = nullptr;
    if (!CadesMsgGetCertificateValues(message, index, &values)) continue;
    for (DWORD i = 0; i < values->cBlob; ++i) {
      bv::platform::CertContext candidate(
          CertCreateCertificateContext(kEncoding, values->rgBlob[i].pbData, values->rgBlob[i].cbData));
      if (candidate && CertCompareCertificate(kEncoding, candidate.get()->pCertInfo, wanted)) {
        PCCERT_CONTEXT found = CertDuplicateCertificateContext(candidate.get());
        CadesFreeBlobArray(values);
        return found;
      }
    }
    CadesFreeBlobArray(values);
  }
  return nullptr;
}
