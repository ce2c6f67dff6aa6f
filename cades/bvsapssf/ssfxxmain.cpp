// The exports that answer a host without touching the cryptographic
// services: version, properties, the release of an output block, and the
// conversion pair, which copies its input under any accepted format.
#include <cstdlib>
#include <cstring>

#include "bvsapssf_api.h"
#include "frame.h"
#include "identity/names.h"
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
  // Length 0 selects the first key without reading the name, null or not.
  if (nameL == 0) return &kProperties[0];
  // A missing name, or a length that counts no bytes, fits no key: the
  // compare never reads beyond the caller's count.
  if (name == nullptr || nameL < 0) return nullptr;
  for (const Property& property : kProperties)
    if (std::strncmp(name, property.key, static_cast<size_t>(nameL)) == 0) return &property;
  return nullptr;
}
}  // namespace

extern "C" {

SSF_RC SsfVersion(char** version, uint32_t* versionL) {
  constexpr const char* trace_function = "SsfVersion";
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    // Nowhere to answer: refused without a line, as this function writes no banner.
    if (version == nullptr || versionL == nullptr) return SSF_ERR_INPUT;
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
  });
}

SSF_RC SsfQueryProperties(const char* propertyName, int32_t propertyNameL, void* /*ignored1*/,
                          int32_t /*ignored2*/, char** propertyValue, uint32_t* propertyValueL) {
  constexpr const char* trace_function = "SsfQueryProperties";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    BV_TRACE_START();
    const Property* property = select_property(propertyName, propertyNameL);
    if (property == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: Invalid Property name\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (propertyValue == nullptr || propertyValueL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
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
  });
}

SSF_RC SsfDELSsfOctetstring(unsigned char** data, uint32_t* dataL) {
  return bv::frame::whole_export(SSF_OK, [&]() -> SSF_RC {
    if (data == nullptr || *data == nullptr) return SSF_OK;
    std::free(*data);
    *data = nullptr;
    if (dataL != nullptr) *dataL = 0;
    return SSF_OK;
  });
}

SSF_RC SsfEncode(const char* strFormat, int32_t strFormatL, const unsigned char* ostrInputData,
                 int32_t ostrInputDataL, unsigned char** ostrEncodedData, uint32_t* ostrEncodedDataL) {
  constexpr const char* trace_function = "SsfEncode";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1. Start banner.
    BV_TRACE_START();

    // 2. Only the length is cleared, and only if the host gave a place for it.
    if (ostrEncodedDataL != nullptr) *ostrEncodedDataL = 0;

    // 3. Any accepted format, the bare signature names included; the refusal
    // is worded by check_ssf_format.
    unsigned char isCades = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0 && raw_gost_format(strFormat, strFormatL) == 0) {
      BV_TRACE_FAILURE();
      return SSF_ERR_FORMAT;
    }

    // 4. Something to copy, from and to somewhere.
    if (ostrInputDataL < 1) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrInputDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (ostrInputData == nullptr || ostrEncodedData == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    // 5. The block.
    auto* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(ostrInputDataL)));
    if (block == nullptr) {
      BV_TRACE_LAST_ERROR();
      BV_TRACE_FAILURE();
      return SSF_ERR_NOMEMORY;
    }

    // 6. No format needs a conversion: the output is the input.
    std::memcpy(block, ostrInputData, static_cast<size_t>(ostrInputDataL));
    if (ostrEncodedDataL != nullptr) *ostrEncodedDataL = static_cast<uint32_t>(ostrInputDataL);
    *ostrEncodedData = block;
    BV_TRACE_SUCCESS();
    return SSF_OK;
  });
}

SSF_RC SsfDecode(const char* strFormat, int32_t strFormatL, const unsigned char* ostrEncodedData,
                 int32_t ostrEncodedDataL, unsigned char** ostrOutputData, uint32_t* ostrOutputDataL) {
  constexpr const char* trace_function = "SsfDecode";
  return bv::frame::whole_export(SSF_ERR_INTERNAL, [&]() -> SSF_RC {
    // 1. Start banner.
    BV_TRACE_START();

    // 2. Unlike SsfEncode, the length has no allowance for a null place: a
    // host that gives none is refused rather than written through.
    if (ostrOutputDataL == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null length pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    *ostrOutputDataL = 0;

    // 3. Any accepted format, the bare signature names included.
    unsigned char isCades = 0;
    if (check_ssf_format(strFormat, strFormatL, &isCades) != 0 && raw_gost_format(strFormat, strFormatL) == 0) {
      BV_TRACE_FAILURE();
      return SSF_ERR_FORMAT;
    }

    // 4. Something to copy, from and to somewhere.
    if (ostrEncodedDataL < 1) {
      BV_TRACE(TRACE_NORMAL, "#error#: ostrEncodedDataL <= 0\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }
    if (ostrEncodedData == nullptr || ostrOutputData == nullptr) {
      BV_TRACE(TRACE_NORMAL, "#error#: null data pointer\n");
      BV_TRACE_FAILURE();
      return SSF_ERR_INPUT;
    }

    // 5. The block.
    auto* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(ostrEncodedDataL)));
    if (block == nullptr) {
      BV_TRACE_LAST_ERROR();
      BV_TRACE_FAILURE();
      return SSF_ERR_NOMEMORY;
    }

    // 6. The output is the input.
    std::memcpy(block, ostrEncodedData, static_cast<size_t>(ostrEncodedDataL));
    *ostrOutputDataL = static_cast<uint32_t>(ostrEncodedDataL);
    *ostrOutputData = block;
    BV_TRACE_SUCCESS();
    return SSF_OK;
  });
}

}  // extern "C"
