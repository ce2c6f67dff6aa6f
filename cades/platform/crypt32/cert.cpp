// Certificates as CryptoAPI shows them: the CERT_INFO of a DER certificate,
// comparisons of names and serial numbers, attributes and the decoding of a
// signing time.
#include <openssl/sha.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "crypt32/store.h"
#include "kernel32/kernel32.h"

namespace bv::platform {
namespace {

std::vector<BYTE> bytes_of(const unsigned char* data, int length) {
  if (data == nullptr || length <= 0) return {};
  return std::vector<BYTE>(data, data + length);
}

std::string oid_text(const ASN1_OBJECT* object) {
  char text[128];
  const int length = OBJ_obj2txt(text, sizeof text, object, 1);
  if (length <= 0) return {};
  if (static_cast<size_t>(length) < sizeof text) return std::string(text, static_cast<size_t>(length));
  std::string longer(static_cast<size_t>(length) + 1, '\0');
  OBJ_obj2txt(longer.data(), length + 1, object, 1);
  longer.resize(static_cast<size_t>(length));
  return longer;
}

// DER of an algorithm's parameters; empty when they are absent.
std::vector<BYTE> parameters_der(const X509_ALGOR* algorithm) {
  int type = 0;
  const void* value = nullptr;
  X509_ALGOR_get0(nullptr, &type, &value, algorithm);
  if (type == V_ASN1_UNDEF || (value == nullptr && type != V_ASN1_NULL)) return {};
  ASN1_TYPE* parameters = ASN1_TYPE_new();
  if (parameters == nullptr) return {};
  ASN1_TYPE_set1(parameters, type, value);
  unsigned char* der = nullptr;
  const int length = i2d_ASN1_TYPE(parameters, &der);
  ASN1_TYPE_free(parameters);
  std::vector<BYTE> out = bytes_of(der, length);
  OPENSSL_free(der);
  return out;
}

std::vector<BYTE> name_der(const X509_NAME* name) {
  const unsigned char* der = nullptr;
  size_t length = 0;
  if (X509_NAME_get0_der(name, &der, &length) != 1) return {};
  return std::vector<BYTE>(der, der + length);
}

CRYPT_BIT_BLOB bit_blob(std::vector<BYTE>& storage, const ASN1_BIT_STRING* bits) {
  CRYPT_BIT_BLOB blob{};
  if (bits == nullptr) return blob;
  storage = bytes_of(ASN1_STRING_get0_data(bits), ASN1_STRING_length(bits));
  blob.cbData = static_cast<DWORD>(storage.size());
  blob.pbData = storage.empty() ? nullptr : storage.data();
  // OpenSSL keeps the unused bit count in the flags when it was given.
  blob.cUnusedBits = (bits->flags & ASN1_STRING_FLAG_BITS_LEFT) ? static_cast<DWORD>(bits->flags & 0x07) : 0;
  return blob;
}

CRYPT_INTEGER_BLOB blob_of(std::vector<BYTE>& storage) {
  return CRYPT_INTEGER_BLOB{static_cast<DWORD>(storage.size()), storage.empty() ? nullptr : storage.data()};
}

// The serial's content octets (two's complement, as encoded), least
// significant first.
std::vector<BYTE> serial_little_endian(const ASN1_INTEGER* serial) {
  unsigned char* der = nullptr;
  const int length = i2d_ASN1_INTEGER(serial, &der);
  std::vector<BYTE> out;
  if (length > 2) {
    const unsigned char* p = der;
    long content = 0;
    int tag = 0, xclass = 0;
    if (!(ASN1_get_object(&p, &content, &tag, &xclass, length) & 0x80)) {
      out.assign(p, p + content);
    }
  }
  OPENSSL_free(der);
  std::reverse(out.begin(), out.end());
  return out;
}

// The reduced form of a little-endian integer: CryptoAPI drops the most
// significant 0x00 bytes, and the most significant 0xFF bytes while the next
// byte is 0xFF too (so 0xFFFFFF88 reduces to 0xFF88, 0x00000080 to 0x80).
DWORD significant_length(const CRYPT_INTEGER_BLOB& value) {
  DWORD length = value.cbData;
  const BYTE* bytes = value.pbData;
  if (length == 0 || bytes == nullptr) return 0;
  if (bytes[length - 1] == 0x00) {
    while (length > 1 && bytes[length - 1] == 0x00) --length;
  } else if (bytes[length - 1] == 0xFF) {
    while (length > 1 && bytes[length - 1] == 0xFF && bytes[length - 2] == 0xFF) --length;
  }
  return length;
}

}  // namespace

bool filetime_from_asn1(const ASN1_TIME* time, FILETIME& out) {
  struct tm parts {};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return false;
  const int64_t seconds = static_cast<int64_t>(timegm(&parts));
  // 100-ns intervals since 1601-01-01; 11644473600 s lie between the epochs.
  const int64_t ticks = (seconds + 11644473600LL) * 10000000LL;
  if (ticks < 0) return false;
  out.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) & 0xFFFFFFFFu);
  out.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32);
  return true;
}

std::shared_ptr<const ParsedCertificate> parse_certificate(const BYTE* der, size_t length,
                                                           const std::string& file) {
  if (der == nullptr || length == 0 || length > 0x7FFFFFFF) {
    SetLastError(CRYPT_E_ASN1_BADTAG);
    return nullptr;
  }
  bv::ossl::gost_engine();  // GOST public keys decode through the engine's methods
  const unsigned char* cursor = der;
  bv::ossl::UniquePtr<X509> x509(d2i_X509(nullptr, &cursor, static_cast<long>(length)));
  if (!x509) {
    bv::ossl::fail(CRYPT_E_ASN1_BADTAG);
    return nullptr;
  }
  auto parsed = std::make_shared<ParsedCertificate>();
  ParsedCertificate& p = *parsed;
  p.encoded.assign(der, cursor);
  p.file = file;
  SHA1(p.encoded.data(), p.encoded.size(), p.sha1);

  CERT_INFO& info = p.info;
  info.dwVersion = static_cast<DWORD>(X509_get_version(x509.get()));
  p.serial = serial_little_endian(X509_get0_serialNumber(x509.get()));
  info.SerialNumber = blob_of(p.serial);

  const X509_ALGOR* signature = X509_get0_tbs_sigalg(x509.get());
  const ASN1_OBJECT* signature_object = nullptr;
  X509_ALGOR_get0(&signature_object, nullptr, nullptr, signature);
  p.signature_oid = oid_text(signature_object);
  p.signature_parameters = parameters_der(signature);
  info.SignatureAlgorithm.pszObjId = p.signature_oid.data();
  info.SignatureAlgorithm.Parameters = blob_of(p.signature_parameters);

  p.issuer = name_der(X509_get_issuer_name(x509.get()));
  p.subject = name_der(X509_get_subject_name(x509.get()));
  info.Issuer = blob_of(p.issuer);
  info.Subject = blob_of(p.subject);
  filetime_from_asn1(X509_get0_notBefore(x509.get()), info.NotBefore);
  filetime_from_asn1(X509_get0_notAfter(x509.get()), info.NotAfter);

  X509_PUBKEY* key = X509_get_X509_PUBKEY(x509.get());
  const ASN1_OBJECT* key_object = nullptr;
  const unsigned char* key_bytes = nullptr;
  int key_length = 0;
  X509_ALGOR* key_algorithm = nullptr;
  X509_PUBKEY_get0_param(const_cast<ASN1_OBJECT**>(&key_object), &key_bytes, &key_length, &key_algorithm, key);
  p.key_oid = oid_text(key_object);
  p.key_parameters = parameters_der(key_algorithm);
  p.key_bits = bytes_of(key_bytes, key_length);
  info.SubjectPublicKeyInfo.Algorithm.pszObjId = p.key_oid.data();
  info.SubjectPublicKeyInfo.Algorithm.Parameters = blob_of(p.key_parameters);
  info.SubjectPublicKeyInfo.PublicKey.cbData = static_cast<DWORD>(p.key_bits.size());
  info.SubjectPublicKeyInfo.PublicKey.pbData = p.key_bits.empty() ? nullptr : p.key_bits.data();
  info.SubjectPublicKeyInfo.PublicKey.cUnusedBits = 0;

  const ASN1_BIT_STRING* issuer_uid = nullptr;
  const ASN1_BIT_STRING* subject_uid = nullptr;
  X509_get0_uids(x509.get(), &issuer_uid, &subject_uid);
  info.IssuerUniqueId = bit_blob(p.issuer_uid, issuer_uid);
  info.SubjectUniqueId = bit_blob(p.subject_uid, subject_uid);

  const int count = X509_get_ext_count(x509.get());
  p.extension_oids.reserve(static_cast<size_t>(count));
  p.extension_values.reserve(static_cast<size_t>(count));
  p.extensions.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    X509_EXTENSION* extension = X509_get_ext(x509.get(), i);
    p.extension_oids.push_back(oid_text(X509_EXTENSION_get_object(extension)));
    const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(extension);
    p.extension_values.push_back(bytes_of(ASN1_STRING_get0_data(value), ASN1_STRING_length(value)));
    CERT_EXTENSION out{};
    out.pszObjId = p.extension_oids.back().data();
    out.fCritical = X509_EXTENSION_get_critical(extension) ? TRUE : FALSE;
    out.Value = blob_of(p.extension_values.back());
    p.extensions.push_back(out);
  }
  info.cExtension = static_cast<DWORD>(p.extensions.size());
  info.rgExtension = p.extensions.empty() ? nullptr : p.extensions.data();
  p.x509 = std::move(x509);
  return parsed;
}

X509* certificate_x509(PCCERT_CONTEXT context) {
  const ParsedCertificate* parsed = parsed_certificate(context);
  return parsed == nullptr ? nullptr : parsed->x509.get();
}

std::string certificate_file(PCCERT_CONTEXT context) {
  const ParsedCertificate* parsed = parsed_certificate(context);
  return parsed == nullptr ? std::string() : parsed->file;
}

const ParsedCertificate* parsed_certificate(PCCERT_CONTEXT context) {
  CertElement* element = element_from_context(context);
  return element == nullptr ? nullptr : element->parsed.get();
}

}  // namespace bv::platform

using namespace bv::platform;

BOOL CertCompareIntegerBlob(PCRYPT_INTEGER_BLOB pInt1, PCRYPT_INTEGER_BLOB pInt2) {
  if (pInt1 == nullptr || pInt2 == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const DWORD length1 = significant_length(*pInt1);
  const DWORD length2 = significant_length(*pInt2);
  if (length1 != length2) return FALSE;
  return length1 == 0 || std::memcmp(pInt1->pbData, pInt2->pbData, length1) == 0 ? TRUE : FALSE;
}

BOOL CertCompareCertificateName(DWORD /*dwCertEncodingType*/, PCERT_NAME_BLOB pCertName1,
                                PCERT_NAME_BLOB pCertName2) {
  if (pCertName1 == nullptr || pCertName2 == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (pCertName1->cbData != pCertName2->cbData) return FALSE;
  if (pCertName1->cbData == 0) return TRUE;
  return std::memcmp(pCertName1->pbData, pCertName2->pbData, pCertName1->cbData) == 0 ? TRUE : FALSE;
}

BOOL CertCompareCertificate(DWORD dwCertEncodingType, PCERT_INFO pCertId1, PCERT_INFO pCertId2) {
  if (pCertId1 == nullptr || pCertId2 == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return CertCompareCertificateName(dwCertEncodingType, &pCertId1->Issuer, &pCertId2->Issuer) &&
                 CertCompareIntegerBlob(&pCertId1->SerialNumber, &pCertId2->SerialNumber)
             ? TRUE
             : FALSE;
}

PCRYPT_ATTRIBUTE CertFindAttribute(LPCSTR pszObjId, DWORD cAttr, CRYPT_ATTRIBUTE rgAttr[]) {
  if (pszObjId == nullptr || (cAttr != 0 && rgAttr == nullptr)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  for (DWORD i = 0; i < cAttr; ++i) {
    if (rgAttr[i].pszObjId != nullptr && std::strcmp(rgAttr[i].pszObjId, pszObjId) == 0) return &rgAttr[i];
  }
  SetLastError(CRYPT_E_NOT_FOUND);
  return nullptr;
}

BOOL CryptDecodeObject(DWORD /*dwCertEncodingType*/, LPCSTR lpszStructType, const BYTE* pbEncoded,
                       DWORD cbEncoded, DWORD /*dwFlags*/, void* pvStructInfo, DWORD* pcbStructInfo) {
  const bool signing_time =
      lpszStructType == PKCS_UTC_TIME ||
      (reinterpret_cast<uintptr_t>(lpszStructType) > 0xFFFF && std::strcmp(lpszStructType, szOID_RSA_signingTime) == 0);
  if (!signing_time) {
    SetLastError(ERROR_FILE_NOT_FOUND);  // no decoder for that type, as the platform says
    return FALSE;
  }
  if (pbEncoded == nullptr || pcbStructInfo == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  // Time ::= CHOICE { utcTime UTCTime, generalTime GeneralizedTime }
  const unsigned char* cursor = pbEncoded;
  bv::ossl::UniquePtr<ASN1_STRING> time(d2i_ASN1_TIME(nullptr, &cursor, static_cast<long>(cbEncoded)));
  FILETIME value{};
  if (!time || !filetime_from_asn1(time.get(), value)) {
    bv::ossl::fail(CRYPT_E_ASN1_BADTAG);
    return FALSE;
  }
  const DWORD offered = *pcbStructInfo;
  *pcbStructInfo = sizeof(FILETIME);
  if (pvStructInfo == nullptr) return TRUE;
  if (offered < sizeof(FILETIME)) {
    SetLastError(ERROR_MORE_DATA);
    return FALSE;
  }
  std::memcpy(pvStructInfo, &value, sizeof value);
  return TRUE;
}
