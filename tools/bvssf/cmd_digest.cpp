// digest: SsfDigest of a file, written to a file.
#include <string>

#include "bvssf.h"

namespace {

int digest(const std::vector<std::string>& args) {
  bool detached = false;
  std::vector<std::string> positional;
  for (const std::string& arg : args) {
    if (arg == "--detached")
      detached = true;
    else
      positional.push_back(arg);
  }
  if (positional.size() != 4) return bvssf::usage_of("digest");
  bvssf::prepare_output(positional[3], {positional[2]});
  const std::string& format = positional[0];
  const std::string& hash = positional[1];
  const bvssf::InputFile input(positional[2]);

  const auto& lib = bvssf::library();
  unsigned char* output = nullptr;
  uint32_t length = 0;
  const SSF_RC rc = lib.SsfDigest(format.data(), static_cast<int32_t>(format.size()), detached ? 1 : 0,
                                  reinterpret_cast<const unsigned char*>(input.data()),
                                  static_cast<int32_t>(input.size()), hash.data(), static_cast<int32_t>(hash.size()),
                                  &output, &length);
  if (rc == SSF_OK) {
    bvssf::write_file(positional[3], output, length);
    bvssf::note_written(positional[3], length);
    lib.SsfDELSsfOctetstring(&output, &length);
  }
  return bvssf::report(rc);
}

const bool registered = bvssf::add_command(
    {"digest", "FORMAT HASHALG IN OUT [--detached]",
     "SsfDigest: a CMS digested message (PKCS7, CADES, ...) or the bare hash (RAW_GOST) of IN", digest,
     "HASHALG: a name of `bvssf properties HASHALGS` (a prefix will do), e.g. GOST2012-256.\n"
     "--detached: the message without its content."});
}  // namespace
