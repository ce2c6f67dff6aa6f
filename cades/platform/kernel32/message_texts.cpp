#include "kernel32/message_texts.h"

namespace bv::platform {
namespace {
struct MessageText {
  DWORD id;
  const char* text;
};

// Texts as the platform words them, each ending in "\r\n" like Windows'.
// None holds a '%': the reporter hands them to the trace as its format.
constexpr MessageText kSystemTexts[] = {
    {2, "The system cannot find the file specified.\r\n"},
    {3, "The system cannot find the path specified.\r\n"},
    {5, "Access is denied.\r\n"},
    {6, "The handle is invalid.\r\n"},
    {8, "Not enough memory resources are available to process this command.\r\n"},
    {13, "The data is invalid.\r\n"},
    {14, "Not enough memory resources are available to complete this operation.\r\n"},
    {50, "The request is not supported.\r\n"},
    {87, "The parameter is incorrect.\r\n"},
    {122, "The data area passed to a system call is too small.\r\n"},
    {126, "The specified module could not be found.\r\n"},
    {183, "Cannot create a file when that file already exists.\r\n"},
    {234, "More data is available.\r\n"},
    {259, "No more data is available.\r\n"},
    {1223, "The operation was canceled by the user.\r\n"},
    {1460, "This operation returned because the timeout period expired.\r\n"},
    {1, "Incorrect function.\r\n"},
    {80, "The file exists.\r\n"},
    {120, "This function is not supported on this system.\r\n"},
    {123, "The filename, directory name, or volume label syntax is incorrect.\r\n"},
    {161, "The specified path is invalid.\r\n"},
    {267, "The directory name is invalid.\r\n"},
    {1004, "Invalid flags.\r\n"},
    {1008, "An attempt was made to reference a token that does not exist.\r\n"},
    {1113, "No mapping for the Unicode character exists in the target multi-byte code page.\r\n"},
    {1168, "Element not found.\r\n"},
    {1359, "An internal error occurred.\r\n"},
    {0x8000FFFF, "Catastrophic failure\r\n"},
    {0x80004001, "Not implemented\r\n"},
    {0x80004003, "Invalid pointer\r\n"},
    {0x80004005, "Unspecified error\r\n"},
    {0x80070002, "The system cannot find the file specified.\r\n"},
    {0x80070005, "Access is denied.\r\n"},
    {0x80070006, "The handle is invalid.\r\n"},
    {0x8007000E, "Not enough memory resources are available to complete this operation.\r\n"},
    {0x80070057, "The parameter is incorrect.\r\n"},

    // The provider (advapi32).
    {0x80090001, "Bad UID.\r\n"},
    {0x80090002, "Bad Hash.\r\n"},
    {0x80090003, "Bad Key.\r\n"},
    {0x80090004, "Bad Length.\r\n"},
    {0x80090005, "Bad Data.\r\n"},
    {0x80090006, "Invalid Signature.\r\n"},
    {0x80090007, "Bad Version of provider.\r\n"},
    {0x80090008, "Invalid algorithm specified.\r\n"},
    {0x80090009, "Invalid flags specified.\r\n"},
    {0x8009000A, "Invalid type specified.\r\n"},
    {0x8009000B, "Key not valid for use in specified state.\r\n"},
    {0x8009000C, "Hash not valid for use in specified state.\r\n"},
    {0x8009000D, "Key does not exist.\r\n"},
    {0x8009000E, "Insufficient memory available for the operation.\r\n"},
    {0x8009000F, "Object already exists.\r\n"},
    {0x80090010, "Access denied.\r\n"},
    {0x80090011, "Object was not found.\r\n"},
    {0x80090013, "Invalid provider specified.\r\n"},
    {0x80090014, "Invalid provider type specified.\r\n"},
    {0x80090016, "Keyset does not exist\r\n"},
    {0x80090017, "Provider type not defined.\r\n"},
    {0x80090018, "Provider type as registered is invalid.\r\n"},
    {0x80090019, "The keyset is not defined.\r\n"},
    {0x8009001A, "Keyset as registered is invalid.\r\n"},
    {0x8009001B, "Provider type does not match registered value.\r\n"},
    {0x8009001E, "Provider DLL could not be found.\r\n"},
    {0x8009001F, "The keyset parameter is invalid.\r\n"},
    {0x80090020, "An internal error occurred.\r\n"},
    {0x80090022, "Provider could not perform the action since the context was acquired as silent.\r\n"},
    {0x8010006B, "The card cannot be accessed because the wrong PIN was presented.\r\n"},
    {0x8010006E, "The action was cancelled by the user.\r\n"},

    // Messages (crypt32).
    {0x80091001, "An error occurred while performing an operation on a cryptographic message.\r\n"},
    {0x80091002, "Unknown cryptographic algorithm.\r\n"},
    {0x80091003, "The object identifier is poorly formatted.\r\n"},
    {0x80091004, "Invalid cryptographic message type.\r\n"},
    {0x80091005, "Unexpected cryptographic message encoding.\r\n"},
    {0x80091006, "The cryptographic message does not contain an expected authenticated attribute.\r\n"},
    {0x80091007, "The hash value is not correct.\r\n"},
    {0x80091008, "The index value is not valid.\r\n"},
    {0x80091009, "The content of the cryptographic message has already been decrypted.\r\n"},
    {0x8009100A, "The content of the cryptographic message has not been decrypted yet.\r\n"},
    {0x8009100B, "The enveloped-data message does not contain the specified recipient.\r\n"},
    {0x8009100C, "Invalid control type.\r\n"},
    {0x8009100D, "Invalid issuer and/or serial number.\r\n"},
    {0x8009100E, "Cannot find the original signer.\r\n"},
    {0x8009100F, "The cryptographic message does not contain all of the requested attributes.\r\n"},
    {0x80091010, "The streamed cryptographic message is not ready to return data.\r\n"},
    {0x80091011, "The streamed cryptographic message requires more data to complete the decode operation.\r\n"},

    // Certificates, stores and encodings (crypt32).
    {0x80092001, "The length specified for the output data was insufficient.\r\n"},
    {0x80092002, "An error occurred during encode or decode operation.\r\n"},
    {0x80092003, "An error occurred while reading or writing to a file.\r\n"},
    {0x80092004, "Cannot find object or property.\r\n"},
    {0x80092005, "The object or property already exists.\r\n"},
    {0x80092006, "No provider was specified for the store or object.\r\n"},
    {0x80092007, "The specified certificate is self signed.\r\n"},
    {0x80092008, "The previous certificate or certificate revocation list (CRL) context was deleted.\r\n"},
    {0x80092009, "Cannot find the requested object.\r\n"},
    {0x8009200A, "The cryptographic message is not of the expected type.\r\n"},
    {0x8009200B, "The certificate does not have a property that references a private key.\r\n"},
    {0x8009200C, "Cannot find the certificate and private key for decryption.\r\n"},
    {0x8009200D, "Not a cryptographic message or the cryptographic message is not formatted correctly.\r\n"},
    {0x8009200E, "The signed cryptographic message does not have a signer for the specified signer index.\r\n"},
    {0x80092010, "The certificate is revoked.\r\n"},
    {0x80092012, "The revocation function was unable to check revocation for the certificate.\r\n"},
    {0x80092013,
     "The revocation function was unable to check revocation because the revocation server was offline.\r\n"},
    {0x80093100, "ASN1 internal encode or decode error.\r\n"},
    {0x8009310B, "ASN1 bad tag value met.\r\n"},

    // Trust and chains.
    {0x80096004, "The signature of the certificate cannot be verified.\r\n"},
    {0x80096005, "The timestamp signature and/or certificate could not be verified or is malformed.\r\n"},
    {0x800B0100, "No signature was present in the subject.\r\n"},
    {0x800B0101,
     "A required certificate is not within its validity period when verifying against the current system clock "
     "or the timestamp in the signed file.\r\n"},
    {0x800B0109,
     "A certificate chain processed, but terminated in a root certificate which is not trusted by the trust "
     "provider.\r\n"},
    {0x800B010A, "A certificate chain could not be built to a trusted root authority.\r\n"},
    {0x800B0110, "The certificate is not valid for the requested usage.\r\n"},
};

// The HTTP layer's numbers, 12000 to 12174; anything past that range has
// no text here, as it has none in the HTTP module.
constexpr MessageText kWininetTexts[] = {
    {12001, "No more Internet handles can be allocated\r\n"},
    {12002, "The operation timed out\r\n"},
    {12004, "An internal error occurred in the HTTP layer\r\n"},
    {12005, "The URL is invalid\r\n"},
    {12006, "The URL does not use a recognized protocol\r\n"},
    {12007, "The server name or address could not be resolved\r\n"},
    {12017, "The operation was canceled\r\n"},
    {12029, "A connection with the server could not be established\r\n"},
    {12030, "The connection with the server was terminated abnormally\r\n"},
    {12031, "The connection with the server was reset\r\n"},
    {12037, "The date in the certificate is invalid or has expired\r\n"},
    {12038, "The host name in the certificate is invalid or does not match\r\n"},
    {12044, "The server is requesting client authentication\r\n"},
    {12045, "The certificate authority is invalid or incorrect\r\n"},
    {12150, "The requested header could not be located\r\n"},
    {12152, "The server returned an invalid or unrecognized response\r\n"},
    {12157, "An error occurred in the secure channel support\r\n"},
};

template <size_t N>
const char* find(const MessageText (&table)[N], DWORD id) {
  for (const auto& row : table)
    if (row.id == id) return row.text;
  return nullptr;
}
}  // namespace

const char* system_message_text(DWORD messageId) { return find(kSystemTexts, messageId); }
const char* wininet_message_text(DWORD messageId) { return find(kWininetTexts, messageId); }
}  // namespace bv::platform
