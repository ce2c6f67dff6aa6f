// encode, decode: the conversion pair on a file.
#include <string>

#include "bvssf.h"

namespace {

using Convert = decltype(&::SsfEncode);

int convert(Convert function, const std::vector<std::string>& args) {
  if (args.size() != 3) return bvssf::usage_of(function == bvssf::library().SsfEncode ? "encode" : "decode");
  bvssf::prepare_output(args[2], {args[1]});
  const std::string& format = args[0];
  const bvssf::InputFile input(args[1]);
  unsigned char* output = nullptr;
  uint32_t length = 0;
  const SSF_RC rc =
      function(format.data(), static_cast<int32_t>(format.size()), reinterpret_cast<const unsigned char*>(input.data()),
               static_cast<int32_t>(input.size()), &output, &length);
  if (rc == SSF_OK) {
    bvssf::write_file(args[2], output, length);
    bvssf::note_written(args[2], length);
    bvssf::library().SsfDELSsfOctetstring(&output, &length);
  }
  return bvssf::report(rc);
}

int encode(const std::vector<std::string>& args) { return convert(bvssf::library().SsfEncode, args); }
int decode(const std::vector<std::string>& args) { return convert(bvssf::library().SsfDecode, args); }

const bool registered =
    bvssf::add_command({"encode", "FORMAT IN OUT", "SsfEncode: IN converted under FORMAT into OUT", encode}) &&
    bvssf::add_command({"decode", "FORMAT IN OUT", "SsfDecode: IN converted back under FORMAT into OUT", decode});
}  // namespace
