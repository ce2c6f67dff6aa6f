// records: builds a signer list from the arguments and prints it as the
// library does, then deletes it.
#include <cstdio>
#include <string>

#include "bvssf.h"

namespace {

int records(const std::vector<std::string>& args) {
  if (args.empty()) return bvssf::usage_of("records");
  const auto& lib = bvssf::library();
  SsfInfoNode* list = nullptr;
  SSF_RC rc = SSF_OK;
  for (const std::string& arg : args) {
    rc = bvssf::add_record(bvssf::parse_record(arg), &list, nullptr);
    if (rc != SSF_OK) {
      std::fprintf(stderr, "bvssf: record '%s' refused\n", arg.substr(0, arg.find(':')).c_str());
      break;
    }
  }
  if (rc == SSF_OK) {
    char* text = nullptr;
    uint32_t length = 0;
    rc = lib.SsfPRISigRcpSsfInfoList(list, &text, &length);
    if (rc == SSF_OK) {
      std::fwrite(text, 1, length, stdout);
      lib.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&text), &length);
    }
  }
  if (list != nullptr) lib.SsfDELSigRcpSsfInfoList(&list);
  return bvssf::report(rc);
}

const bool registered = bvssf::add_command(
    {"records", "ID[:PROFILE[:PIN]] ...",
     "SsfNEWSigRcpSsfInfo, SsfINSSigRcpSsfInfo, SsfPRISigRcpSsfInfoList: builds a list and prints it", records});
}  // namespace
