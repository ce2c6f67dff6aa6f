#include "crypt32/der.h"

#include <openssl/asn1.h>

#include <algorithm>
#include <cstring>

namespace bv::platform::der {

size_t header_size(size_t length) {
  if (length < 0x80) return 2;
  size_t octets = 0;
  for (size_t rest = length; rest != 0; rest >>= 8) ++octets;
  return 2 + octets;
}

BYTE* put_header(BYTE* out, BYTE tag, size_t length) {
  *out++ = tag;
  if (length < 0x80) {
    *out++ = static_cast<BYTE>(length);
    return out;
  }
  const size_t octets = header_size(length) - 2;
  *out++ = static_cast<BYTE>(0x80 | octets);
  for (size_t i = octets; i > 0; --i) *out++ = static_cast<BYTE>(length >> (8 * (i - 1)));
  return out;
}

BYTE* put_bytes(BYTE* out, const BYTE* data, size_t size) {
  if (size != 0) std::memcpy(out, data, size);
  return out + size;
}

std::string header(BYTE tag, size_t length) {
  BYTE octets[2 + sizeof(size_t)];
  const BYTE* end = put_header(octets, tag, length);
  return std::string(reinterpret_cast<const char*>(octets), static_cast<size_t>(end - octets));
}

bool children(std::string_view der, const Element& parent, std::vector<Element>* out) {
  out->clear();
  const auto* base = reinterpret_cast<const unsigned char*>(der.data());
  for (size_t at = parent.content(); at < parent.end();) {
    const unsigned char* cursor = base + at;
    long length = 0;
    Element child;
    const int kind = ASN1_get_object(&cursor, &length, &child.tag, &child.tag_class, static_cast<long>(parent.end() - at));
    if ((kind & 0x80) != 0 || kind == 0x21) return false;  // an error, or an indefinite length
    child.offset = at;
    child.header = static_cast<size_t>(cursor - (base + at));
    child.length = static_cast<size_t>(length);
    if (child.end() > parent.end()) return false;
    out->push_back(child);
    at = child.end();
  }
  return true;
}

bool signed_data_fields(std::string_view der, std::vector<Element>* content_info, std::vector<Element>* fields) {
  std::vector<Element> level;
  // ContentInfo ::= SEQUENCE { contentType, [0] EXPLICIT SignedData }
  if (!children(der, Element{0, 0, der.size(), 0, 0}, &level) || level.empty()) return false;
  if (!children(der, level[0], content_info) || content_info->size() != 2) return false;
  if (!children(der, (*content_info)[1], &level) || level.size() != 1) return false;
  // SignedData ::= SEQUENCE { version, digestAlgorithms, encapContentInfo,
  //   certificates [0] IMPLICIT OPTIONAL, crls [1] IMPLICIT OPTIONAL, signerInfos }
  return children(der, level[0], fields) && fields->size() >= 4;
}

bool enveloped_content_algorithm(std::string_view der, std::vector<Element>* algorithm) {
  std::vector<Element> outer, content_info, wrapper, fields, encrypted;
  // ContentInfo ::= SEQUENCE { contentType, [0] EXPLICIT EnvelopedData }
  if (!children(der, Element{0, 0, der.size(), 0, 0}, &outer) || outer.empty()) return false;
  if (!children(der, outer[0], &content_info) || content_info.size() != 2) return false;
  if (!children(der, content_info[1], &wrapper) || wrapper.size() != 1) return false;
  // EnvelopedData ::= SEQUENCE { version, originatorInfo [0] IMPLICIT OPTIONAL,
  //   recipientInfos SET, encryptedContentInfo SEQUENCE, ... }
  if (!children(der, wrapper[0], &fields)) return false;
  const auto recipients = std::find_if(fields.begin(), fields.end(), [](const Element& e) {
    return e.tag == V_ASN1_SET && e.tag_class == V_ASN1_UNIVERSAL;
  });
  if (recipients == fields.end() || recipients + 1 == fields.end()) return false;
  // EncryptedContentInfo ::= SEQUENCE { contentType, contentEncryptionAlgorithm, ... }
  if (!children(der, recipients[1], &encrypted) || encrypted.size() < 2) return false;
  return children(der, encrypted[1], algorithm) && !algorithm->empty();
}

}  // namespace bv::platform::der
