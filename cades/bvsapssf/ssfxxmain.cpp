// The exports that answer a host without touching the cryptographic
// services: version, properties and the release of an output block.
#include <cstdlib>
#include <cstring>

#include "bvsapssf_api.h"
#include "frame.h"
#include "kernel32/kernel32.h"
#include "reporter.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";

constexpr char kVersionText[] = "Brelvantec SSF library for SAP Version 1.01";
static_assert(sizeof kVersionText == 44);

struct Property {
  const char* key;
  const char* value;
};

// The first key that compares equal over the caller's length wins, so a
// prefix of a key selects it and length 0 selects the first.
constexpr Property kProperties[] = {
    {"PROPERTIES", "FORMATS;HASHALGS;ENCRALGS;SSF_POPUPS"},
    {"FORMATS", "PKCS7;CADES;PKCS7_CADES;PKCS7_ANY"},
    {"HASHALGS",
     "SHA1;GOST3411;GOST-R-34.11-94;GOST-R-34.11-2012-256;GOST-R-34.11-2012-512;GOST2012-256;GOST2012-512;MD2;MD5"},
    {"ENCRALGS", "GOST28147;GOST-28147-89"},
    {"SSF_POPUPS", "1"},
};

const Property* select_property(const char* name, int32_t nameL) {
  // A negative length widens to a huge size_t and compares whole strings.
  for (const Property& property : kProperties)
    if (std::strncmp(name, property.key, static_cast<size_t>(nameL)) == 0) return &property;
  return nullptr;
}
}  // namespace

extern "C" {

SSF_RC SsfVersion(char** version, uint32_t* versionL) {
  constexpr const char* trace_function = "SsfVersion";
  *versionL = 0;
  char* block = static_cast<char*>(std::malloc(sizeof kVersionText));
  if (block == nullptr) {
    BV_TRACE_LAST_ERROR();
    return SSF_REC_NOMEMORY;
  }
  std::memcpy(block, kVersionText, sizeof kVersionText);
  *versionL = sizeof kVersionText - 1;
  *version = block;
  return SSF_OK;
}

SSF_RC SsfQueryProperties(const char* propertyName, int32_t propertyNameL, void* /*ignored1*/,
                          int32_t /*ignored2*/, char** propertyValue, uint32_t* propertyValueL) {
  constexpr const char* trace_function = "SsfQueryProperties";
  BV_TRACE_START();
  const Property* property = select_property(propertyName, propertyNameL);
  if (property == nullptr) {
    BV_TRACE(TRACE_NORMAL, "#error#: Invalid Property name\n");
    BV_TRACE_FAILURE();
    return SSF_ERR_INPUT;
  }
  const size_t length = std::strlen(property->value);
  char* block = static_cast<char*>(std::malloc(length));
  if (block == nullptr) {
    BV_TRACE_LAST_ERROR();
    BV_TRACE_FAILURE();
    return SSF_ERR_NOMEMORY;
  }
  // No terminator: the value is exactly its length, unlike the version.
  std::strncpy(block, select_property(propertyName, propertyNameL)->value, length);
  *propertyValueL = static_cast<uint32_t>(length);
  *propertyValue = block;
  BV_TRACE_SUCCESS();
  return SSF_OK;
}

SSF_RC SsfDELSsfOctetstring(unsigned char** data, uint32_t* dataL) {
  if (data == nullptr || *data == nullptr) return SSF_OK;
  std::free(*data);
  *data = nullptr;
  *dataL = 0;
  return SSF_OK;
}

}  // extern "C"
