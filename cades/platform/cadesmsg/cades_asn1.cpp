#include "cadesmsg/cades_asn1.h"

namespace bv::cades {

ASN1_SEQUENCE(OtherHashAlgAndValue) = {
    ASN1_SIMPLE(OtherHashAlgAndValue, hashAlgorithm, X509_ALGOR),
    ASN1_SIMPLE(OtherHashAlgAndValue, hashValue, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(OtherHashAlgAndValue)
IMPLEMENT_ASN1_FUNCTIONS(OtherHashAlgAndValue)

ASN1_CHOICE(OtherHash) = {
    ASN1_SIMPLE(OtherHash, d.sha1Hash, ASN1_OCTET_STRING),
    ASN1_SIMPLE(OtherHash, d.otherHash, OtherHashAlgAndValue),
} ASN1_CHOICE_END(OtherHash)
IMPLEMENT_ASN1_FUNCTIONS(OtherHash)

ASN1_SEQUENCE(IssuerSerial) = {
    ASN1_SEQUENCE_OF(IssuerSerial, issuer, GENERAL_NAME),
    ASN1_SIMPLE(IssuerSerial, serialNumber, ASN1_INTEGER),
    ASN1_OPT(IssuerSerial, issuerUID, ASN1_BIT_STRING),
} ASN1_SEQUENCE_END(IssuerSerial)
IMPLEMENT_ASN1_FUNCTIONS(IssuerSerial)

ASN1_SEQUENCE(OtherCertID) = {
    ASN1_SIMPLE(OtherCertID, otherCertHash, OtherHash),
    ASN1_OPT(OtherCertID, issuerSerial, IssuerSerial),
} ASN1_SEQUENCE_END(OtherCertID)
IMPLEMENT_ASN1_FUNCTIONS(OtherCertID)

ASN1_SEQUENCE(CrlIdentifier) = {
    ASN1_SIMPLE(CrlIdentifier, crlissuer, X509_NAME),
    ASN1_SIMPLE(CrlIdentifier, crlIssuedTime, ASN1_UTCTIME),
    ASN1_OPT(CrlIdentifier, crlNumber, ASN1_INTEGER),
} ASN1_SEQUENCE_END(CrlIdentifier)
IMPLEMENT_ASN1_FUNCTIONS(CrlIdentifier)

ASN1_SEQUENCE(CrlValidatedID) = {
    ASN1_SIMPLE(CrlValidatedID, crlHash, OtherHash),
    ASN1_OPT(CrlValidatedID, crlIdentifier, CrlIdentifier),
} ASN1_SEQUENCE_END(CrlValidatedID)
IMPLEMENT_ASN1_FUNCTIONS(CrlValidatedID)

ASN1_SEQUENCE(OcspIdentifier) = {
    ASN1_SIMPLE(OcspIdentifier, ocspResponderID, OCSP_RESPID),
    ASN1_SIMPLE(OcspIdentifier, producedAt, ASN1_GENERALIZEDTIME),
} ASN1_SEQUENCE_END(OcspIdentifier)
IMPLEMENT_ASN1_FUNCTIONS(OcspIdentifier)

ASN1_SEQUENCE(OcspResponsesID) = {
    ASN1_SIMPLE(OcspResponsesID, ocspIdentifier, OcspIdentifier),
    ASN1_OPT(OcspResponsesID, ocspRepHash, OtherHash),
} ASN1_SEQUENCE_END(OcspResponsesID)
IMPLEMENT_ASN1_FUNCTIONS(OcspResponsesID)

ASN1_SEQUENCE(CRLListID) = {
    ASN1_SEQUENCE_OF(CRLListID, crls, CrlValidatedID),
} ASN1_SEQUENCE_END(CRLListID)
IMPLEMENT_ASN1_FUNCTIONS(CRLListID)

ASN1_SEQUENCE(OcspListID) = {
    ASN1_SEQUENCE_OF(OcspListID, ocspResponses, OcspResponsesID),
} ASN1_SEQUENCE_END(OcspListID)
IMPLEMENT_ASN1_FUNCTIONS(OcspListID)

ASN1_SEQUENCE(CrlOcspRef) = {
    ASN1_EXP_OPT(CrlOcspRef, crlids, CRLListID, 0),
    ASN1_EXP_OPT(CrlOcspRef, ocspids, OcspListID, 1),
    ASN1_EXP_OPT(CrlOcspRef, otherRev, ASN1_ANY, 2),
} ASN1_SEQUENCE_END(CrlOcspRef)
IMPLEMENT_ASN1_FUNCTIONS(CrlOcspRef)

ASN1_ITEM_TEMPLATE(CompleteCertificateRefs) =
    ASN1_EX_TEMPLATE_TYPE(ASN1_TFLG_SEQUENCE_OF, 0, CompleteCertificateRefs, OtherCertID)
ASN1_ITEM_TEMPLATE_END(CompleteCertificateRefs)
IMPLEMENT_ASN1_FUNCTIONS(CompleteCertificateRefs)

ASN1_ITEM_TEMPLATE(CompleteRevocationRefs) =
    ASN1_EX_TEMPLATE_TYPE(ASN1_TFLG_SEQUENCE_OF, 0, CompleteRevocationRefs, CrlOcspRef)
ASN1_ITEM_TEMPLATE_END(CompleteRevocationRefs)
IMPLEMENT_ASN1_FUNCTIONS(CompleteRevocationRefs)

ASN1_ITEM_TEMPLATE(CertificateValues) =
    ASN1_EX_TEMPLATE_TYPE(ASN1_TFLG_SEQUENCE_OF, 0, CertificateValues, ASN1_ANY)
ASN1_ITEM_TEMPLATE_END(CertificateValues)
IMPLEMENT_ASN1_FUNCTIONS(CertificateValues)

ASN1_SEQUENCE(RevocationValues) = {
    ASN1_EXP_SEQUENCE_OF_OPT(RevocationValues, crlVals, ASN1_ANY, 0),
    ASN1_EXP_SEQUENCE_OF_OPT(RevocationValues, ocspVals, ASN1_ANY, 1),
    ASN1_EXP_OPT(RevocationValues, otherRevVals, ASN1_ANY, 2),
} ASN1_SEQUENCE_END(RevocationValues)
IMPLEMENT_ASN1_FUNCTIONS(RevocationValues)

}  // namespace bv::cades
