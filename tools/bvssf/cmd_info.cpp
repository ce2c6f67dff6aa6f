// version, properties: the two queries.
#include <cstdio>
#include <string>

#include "bvssf.h"

namespace {

int version(const std::vector<std::string>&) {
  const auto& lib = bvssf::library();
  char* text = nullptr;
  uint32_t length = 0;
  const SSF_RC rc = lib.SsfVersion(&text, &length);
  if (rc == SSF_OK) {
    std::printf("%.*s\n", static_cast<int>(length), text);
    lib.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&text), &length);
  }
  return bvssf::report(rc);
}

int properties(const std::vector<std::string>& args) {
  if (args.size() != 1) return bvssf::usage_of("properties");
  const auto& lib = bvssf::library();
  char* value = nullptr;
  uint32_t length = 0;
  const SSF_RC rc = lib.SsfQueryProperties(args[0].data(), static_cast<int32_t>(args[0].size()), nullptr, 0,
                                           &value, &length);
  if (rc == SSF_OK) {
    std::printf("%.*s\n", static_cast<int>(length), value);
    lib.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&value), &length);
  }
  return bvssf::report(rc);
}

const bool registered = bvssf::add_command({"version", "", "SsfVersion", version}) &&
                        bvssf::add_command({"properties", "NAME", "SsfQueryProperties", properties,
                                            "NAME: FORMATS, HASHALGS, ... (a prefix selects a key)"});
}  // namespace
