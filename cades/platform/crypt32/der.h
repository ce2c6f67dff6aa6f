// DER written and walked by hand, where a message must keep bytes OpenSSL
// would re-encode (the order of a SET OF, signers someone else made) or
// where the content is copied once, straight into the caller's buffer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "wintypes.h"

namespace bv::platform::der {

constexpr BYTE kTagInteger = 0x02;
constexpr BYTE kTagOctetString = 0x04;
constexpr BYTE kTagSequence = 0x30;
constexpr BYTE kTagSet = 0x31;
constexpr BYTE kTagExplicit0 = 0xA0;

// Tag and length octets (definite length) of a value of `length` bytes.
size_t header_size(size_t length);
inline size_t tlv_size(size_t length) { return header_size(length) + length; }
BYTE* put_header(BYTE* out, BYTE tag, size_t length);
BYTE* put_bytes(BYTE* out, const BYTE* data, size_t size);
// The tag and length octets alone, as a text.
std::string header(BYTE tag, size_t length);

// One element of an encoding: where its tag is, and its content.
struct Element {
  size_t offset = 0;  // of the tag
  size_t header = 0;
  size_t length = 0;
  int tag = 0;
  int tag_class = 0;
  size_t end() const { return offset + header + length; }
  size_t content() const { return offset + header; }
  std::string_view in(std::string_view der) const { return der.substr(offset, end() - offset); }
};

// The elements inside the content of `parent`; false for indefinite lengths
// or an element that runs past its parent.
bool children(std::string_view der, const Element& parent, std::vector<Element>* out);

// The fields of the SignedData a ContentInfo holds: version,
// digestAlgorithms, encapContentInfo, then [0] certificates and [1] crls
// when present, signerInfos last.  `content_info` gets the ContentInfo's
// two fields (contentType and the [0] around the SignedData).  False for
// anything else, or a BER encoding.
bool signed_data_fields(std::string_view der, std::vector<Element>* content_info, std::vector<Element>* fields);

// The contentEncryptionAlgorithm (an AlgorithmIdentifier's two fields) of
// the EnvelopedData a ContentInfo holds.  False for anything else, or a BER
// encoding.
bool enveloped_content_algorithm(std::string_view der, std::vector<Element>* algorithm);

}  // namespace bv::platform::der
