// ASN.1 types of CAdES (RFC 5126, ETSI TS 101 733) that OpenSSL lacks.  The
// module defining them uses EXPLICIT tags.  Certificate and revocation
// values are kept as ANY so that their bytes stay exactly as received.
#pragma once

#include <openssl/asn1t.h>
#include <openssl/ess.h>
#include <openssl/ocsp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <string_view>

#include "openssl/ossl.h"

namespace bv::cades {

// The unsigned attributes of X Long Type 1, in the order they are made.
constexpr int kSignatureTimeStamp = NID_id_smime_aa_timeStampToken;
constexpr int kCertificateRefs = NID_id_smime_aa_ets_CertificateRefs;
constexpr int kRevocationRefs = NID_id_smime_aa_ets_RevocationRefs;
constexpr int kEscTimeStamp = NID_id_smime_aa_ets_escTimeStamp;
constexpr int kCertificateValues = NID_id_smime_aa_ets_certValues;
constexpr int kRevocationValues = NID_id_smime_aa_ets_revocationValues;

using bv::ossl::bytes_of;

// OtherHashAlgAndValue ::= SEQUENCE {
//   hashAlgorithm AlgorithmIdentifier,
//   hashValue     OtherHashValue }          -- OCTET STRING
struct OtherHashAlgAndValue {
  X509_ALGOR* hashAlgorithm;
  ASN1_OCTET_STRING* hashValue;
};

// OtherHash ::= CHOICE {
//   sha1Hash  OtherHashValue,
//   otherHash OtherHashAlgAndValue }
struct OtherHash {
  int type;  // 0 sha1Hash, 1 otherHash
  union {
    ASN1_OCTET_STRING* sha1Hash;
    OtherHashAlgAndValue* otherHash;
  } d;
};

// IssuerSerial ::= SEQUENCE {
//   issuer       GeneralNames,
//   serialNumber CertificateSerialNumber,
//   issuerUID    UniqueIdentifier OPTIONAL }
struct IssuerSerial {
  GENERAL_NAMES* issuer;
  ASN1_INTEGER* serialNumber;
  ASN1_BIT_STRING* issuerUID;
};

// OtherCertID ::= SEQUENCE {
//   otherCertHash OtherHash,
//   issuerSerial  IssuerSerial OPTIONAL }
struct OtherCertID {
  OtherHash* otherCertHash;
  IssuerSerial* issuerSerial;
};

// CrlIdentifier ::= SEQUENCE {
//   crlissuer     Name,
//   crlIssuedTime UTCTime,
//   crlNumber     INTEGER OPTIONAL }
struct CrlIdentifier {
  X509_NAME* crlissuer;
  ASN1_UTCTIME* crlIssuedTime;
  ASN1_INTEGER* crlNumber;
};

// CrlValidatedID ::= SEQUENCE {
//   crlHash       OtherHash,
//   crlIdentifier CrlIdentifier OPTIONAL }
struct CrlValidatedID {
  OtherHash* crlHash;
  CrlIdentifier* crlIdentifier;
};

// OcspIdentifier ::= SEQUENCE {
//   ocspResponderID ResponderID,
//   producedAt      GeneralizedTime }
struct OcspIdentifier {
  OCSP_RESPID* ocspResponderID;
  ASN1_GENERALIZEDTIME* producedAt;
};

// OcspResponsesID ::= SEQUENCE {
//   ocspIdentifier OcspIdentifier,
//   ocspRepHash    OtherHash OPTIONAL }
struct OcspResponsesID {
  OcspIdentifier* ocspIdentifier;
  OtherHash* ocspRepHash;
};

DEFINE_STACK_OF(OtherCertID)
DEFINE_STACK_OF(CrlValidatedID)
DEFINE_STACK_OF(OcspResponsesID)

// CRLListID  ::= SEQUENCE { crls SEQUENCE OF CrlValidatedID }
struct CRLListID {
  STACK_OF(CrlValidatedID) * crls;
};
// OcspListID ::= SEQUENCE { ocspResponses SEQUENCE OF OcspResponsesID }
struct OcspListID {
  STACK_OF(OcspResponsesID) * ocspResponses;
};

// CrlOcspRef ::= SEQUENCE {
//   crlids   [0] CRLListID    OPTIONAL,
//   ocspids  [1] OcspListID   OPTIONAL,
//   otherRev [2] OtherRevRefs OPTIONAL }
struct CrlOcspRef {
  CRLListID* crlids;
  OcspListID* ocspids;
  ASN1_TYPE* otherRev;
};
DEFINE_STACK_OF(CrlOcspRef)

// CompleteCertificateRefs ::= SEQUENCE OF OtherCertID
using CompleteCertificateRefs = STACK_OF(OtherCertID);
// CompleteRevocationRefs ::= SEQUENCE OF CrlOcspRef
using CompleteRevocationRefs = STACK_OF(CrlOcspRef);
// CertificateValues ::= SEQUENCE OF Certificate
using CertificateValues = STACK_OF(ASN1_TYPE);

// RevocationValues ::= SEQUENCE {
//   crlVals      [0] SEQUENCE OF CertificateList   OPTIONAL,
//   ocspVals     [1] SEQUENCE OF BasicOCSPResponse OPTIONAL,
//   otherRevVals [2] OtherRevVals                  OPTIONAL }
struct RevocationValues {
  STACK_OF(ASN1_TYPE) * crlVals;
  STACK_OF(ASN1_TYPE) * ocspVals;
  ASN1_TYPE* otherRevVals;
};

#define BV_CADES_DECLARE(type)                                            \
  DECLARE_ASN1_ITEM(type)                                                 \
  type* type##_new();                                                     \
  void type##_free(type* value);                                          \
  type* d2i_##type(type** out, const unsigned char** in, long length);    \
  int i2d_##type(const type* value, unsigned char** out);

BV_CADES_DECLARE(OtherHashAlgAndValue)
BV_CADES_DECLARE(OtherHash)
BV_CADES_DECLARE(IssuerSerial)
BV_CADES_DECLARE(OtherCertID)
BV_CADES_DECLARE(CrlIdentifier)
BV_CADES_DECLARE(CrlValidatedID)
BV_CADES_DECLARE(OcspIdentifier)
BV_CADES_DECLARE(OcspResponsesID)
BV_CADES_DECLARE(CRLListID)
BV_CADES_DECLARE(OcspListID)
BV_CADES_DECLARE(CrlOcspRef)
BV_CADES_DECLARE(CompleteCertificateRefs)
BV_CADES_DECLARE(CompleteRevocationRefs)
BV_CADES_DECLARE(CertificateValues)
BV_CADES_DECLARE(RevocationValues)

}  // namespace bv::cades

namespace bv::ossl {
#define BV_CADES_DELETER(type, release)                                  \
  template <>                                                            \
  struct Deleter<type> {                                                 \
    void operator()(type* p) const noexcept { release; }                 \
  };
BV_CADES_DELETER(bv::cades::OtherHash, bv::cades::OtherHash_free(p))
BV_CADES_DELETER(bv::cades::OtherCertID, bv::cades::OtherCertID_free(p))
BV_CADES_DELETER(bv::cades::CrlOcspRef, bv::cades::CrlOcspRef_free(p))
BV_CADES_DELETER(bv::cades::CrlValidatedID, bv::cades::CrlValidatedID_free(p))
BV_CADES_DELETER(bv::cades::OcspResponsesID, bv::cades::OcspResponsesID_free(p))
BV_CADES_DELETER(bv::cades::RevocationValues, bv::cades::RevocationValues_free(p))
BV_CADES_DELETER(bv::cades::CompleteCertificateRefs, bv::cades::sk_OtherCertID_pop_free(p, bv::cades::OtherCertID_free))
BV_CADES_DELETER(bv::cades::CompleteRevocationRefs, bv::cades::sk_CrlOcspRef_pop_free(p, bv::cades::CrlOcspRef_free))
BV_CADES_DELETER(X509_ATTRIBUTE, X509_ATTRIBUTE_free(p))
BV_CADES_DELETER(OCSP_RESPID, OCSP_RESPID_free(p))
BV_CADES_DELETER(ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free(p))
BV_CADES_DELETER(STACK_OF(ASN1_TYPE), sk_ASN1_TYPE_pop_free(p, ASN1_TYPE_free))
#undef BV_CADES_DELETER
}  // namespace bv::ossl
