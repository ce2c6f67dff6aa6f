/* bvsapssf: Secure Store and Forward provider with GOST algorithms.
 *
 * The interface a host (an SAP application server) calls.  Every function
 * has C linkage, returns one of the SSF_* codes below and never keeps a
 * pointer to the caller's buffers past the call.  Output blocks come from
 * malloc and go back through SsfDELSsfOctetstring.  Input octet strings are
 * counted and need no terminator. */
#ifndef BVSAPSSF_API_H
#define BVSAPSSF_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define BVSSF_API __attribute__((visibility("default")))
#else
#define BVSSF_API
#endif

typedef uint32_t SSF_RC;

/* Return codes of every export.  The values are fixed by the interface. */
#define SSF_OK 0u
#define SSF_ERR_FORMAT 2u
#define SSF_ERR_INPUT 3u
#define SSF_ERR_NOMEMORY 4u
#define SSF_ERR_SIGNER 5u
#define SSF_ERR_SIGNERINFO 6u
#define SSF_ERR_PAB 7u
#define SSF_ERR_RECIPIENT 9u
#define SSF_ERR_HASHALG 10u
#define SSF_ERR_ENCODE 11u
#define SSF_ERR_DECODE 12u
#define SSF_ERR_INTERNAL 13u
#define SSF_ERR_ENCRALG 14u
#define SSF_REC_NOMEMORY 51u
#define SSF_REC_INVALID_LENGTH 52u
#define SSF_REC_NULL_INFO 53u
#define SSF_REC_NULL_LIST 54u

/* Per-signer and per-recipient results stored in SsfInfo.Result. */
#define SSF_RES_OK 0
#define SSF_RES_INVALID_NAMESPACE 21
#define SSF_RES_UNKNOWN 22
#define SSF_RES_UNKNOWN_PROFILE 23
#define SSF_RES_INVALID_PROFILE 24
#define SSF_RES_INVALID_PASSWORD 25
#define SSF_RES_NOCERTIFICATE 26
#define SSF_RES_NOT_OK 27
#define SSF_RES_UNDEFINED 28

/* One signer or recipient.  The host reads and writes these fields directly. */
typedef struct SsfInfo {
  char* strSigRcpId;   /* identity, not NUL-terminated */
  int32_t strSigRcpIdL;
  char* Reserved;
  int32_t ReservedL;
  char* Profile;       /* store name of the user's profile */
  int32_t ProfileL;
  char* Password;      /* PIN; wiped with blanks on delete, never printed */
  int32_t PasswordL;
  int32_t Result;
} SsfInfo;

typedef struct SsfInfoNode {
  struct SsfInfoNode* next;
  SsfInfo* info;
} SsfInfoNode;

#if defined(__cplusplus)
static_assert(sizeof(SsfInfo) == 64, "SsfInfo layout is part of the host interface");
static_assert(offsetof(SsfInfo, Result) == offsetof(SsfInfo, PasswordL) + 4,
              "PasswordL and Result are adjacent");
static_assert(sizeof(SsfInfoNode) == 16, "SsfInfoNode layout");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(SsfInfo) == 64, "SsfInfo layout is part of the host interface");
_Static_assert(offsetof(SsfInfo, Result) == offsetof(SsfInfo, PasswordL) + 4,
               "PasswordL and Result are adjacent");
_Static_assert(sizeof(SsfInfoNode) == 16, "SsfInfoNode layout");
#endif

typedef unsigned char SSF_BOOL; /* one byte, tested against zero */

BVSSF_API SSF_RC SsfVersion(char** version, uint32_t* versionL);
BVSSF_API SSF_RC SsfQueryProperties(const char* propertyName, int32_t propertyNameL, void* ignored1,
                                    int32_t ignored2, char** propertyValue, uint32_t* propertyValueL);

BVSSF_API SSF_RC SsfEncode(const char* strFormat, int32_t strFormatL, const unsigned char* ostrInputData,
                           int32_t ostrInputDataL, unsigned char** ostrEncodedData,
                           uint32_t* ostrEncodedDataL);
BVSSF_API SSF_RC SsfDecode(const char* strFormat, int32_t strFormatL, const unsigned char* ostrEncodedData,
                           int32_t ostrEncodedDataL, unsigned char** ostrOutputData,
                           uint32_t* ostrOutputDataL);

BVSSF_API SSF_RC SsfSign(const char* strFormat, int32_t strFormatL, const char* ignored1, int32_t ignored2,
                         SSF_BOOL bIncludeCerts, SSF_BOOL bDetached, const unsigned char* ostrInputData,
                         int32_t ostrInputDataL, SsfInfoNode* signerList, unsigned char** ostrSignedData,
                         uint32_t* ostrSignedDataL);
BVSSF_API SSF_RC SsfVerify(const char* strFormat, int32_t strFormatL, SSF_BOOL ignored1,
                           const unsigned char* ostrSignedData, int32_t ostrSignedDataL,
                           const unsigned char* ostrInputData, int32_t ostrInputDataL, const char* strPab,
                           int32_t strPabL, const char* ignored2, int32_t ignored3, SsfInfoNode** signerList,
                           unsigned char** ostrOutputData, uint32_t* ostrOutputDataL);
BVSSF_API SSF_RC SsfEnvelope(const char* strFormat, int32_t strFormatL, const char* strEncrAlg,
                             int32_t strEncrAlgL, const unsigned char* ostrInputData, int32_t ostrInputDataL,
                             const char* strPab, int32_t strPabL, const char* ignored1, int32_t ignored2,
                             SsfInfoNode* recipientList, unsigned char** ostrEnvelopedData,
                             uint32_t* ostrEnvelopedDataL);
BVSSF_API SSF_RC SsfDevelope(const char* strFormat, int32_t strFormatL, const unsigned char* ostrEnvelopedData,
                             int32_t ostrEnvelopedDataL, SsfInfo* recipient, unsigned char** ostrOutputData,
                             uint32_t* ostrOutputDataL);
BVSSF_API SSF_RC SsfAddSign(const char* strFormat, int32_t strFormatL, const char* ignored1, int32_t ignored2,
                            SSF_BOOL bIncludeCerts, const unsigned char* ostrSignedData, int32_t ostrSignedDataL,
                            const unsigned char* ostrInputData, int32_t ostrInputDataL, SsfInfo* signer,
                            unsigned char** ostrSignedDataOut, uint32_t* ostrSignedDataOutL);
BVSSF_API SSF_RC SsfDigest(const char* strFormat, int32_t strFormatL, SSF_BOOL bDetached,
                           const unsigned char* ostrInputData, int32_t ostrInputDataL, const char* strHashAlg,
                           int32_t strHashAlgL, unsigned char** ostrDigestData, uint32_t* ostrDigestDataL);

BVSSF_API SSF_RC SsfDELSsfOctetstring(unsigned char** data, uint32_t* dataL);

BVSSF_API SSF_RC SsfNEWSigRcpSsfInfo(const char* strSigRcpId, int32_t strSigRcpIdL, const char* Reserved,
                                     int32_t ReservedL, const char* Profile, int32_t ProfileL,
                                     const char* Password, int32_t PasswordL, int32_t Result,
                                     SsfInfo** newInfo);
BVSSF_API SSF_RC SsfDELSigRcpSsfInfo(SsfInfo** info);
BVSSF_API SSF_RC SsfINSSigRcpSsfInfo(SsfInfo* info, SsfInfoNode** list);
BVSSF_API SSF_RC SsfDELSigRcpSsfInfoList(SsfInfoNode** list);
BVSSF_API SSF_RC SsfPRISigRcpSsfInfo(SsfInfo* info, char** text, uint32_t* textL);
BVSSF_API SSF_RC SsfPRISigRcpSsfInfoList(SsfInfoNode* list, char** text, uint32_t* textL);

/* Windows loader entry; on POSIX the load-time work runs from the library's
 * initialisers, and each DllMain(…, 1, …) prints the settings to the trace
 * again. Always returns 1. */
BVSSF_API int DllMain(void* module, uint32_t reason, void* reserved);

#ifdef __cplusplus
}
#endif

#endif
