// records: builds a signer list from the arguments and prints it as the
// library does, then deletes it.
#include <cstdio>
#include <string>

#include "bvssf.h"

namespace {

// ID[:PROFILE[:PIN]] -> one record.  The PIN is copied into the record and
// never printed.
SSF_RC add_record(const std::string& arg, SsfInfoNode** list) {
  const auto& lib = bvssf::library();
  const size_t first = arg.find(':');
  const size_t second = first == std::string::npos ? std::string::npos : arg.find(':', first + 1);
  const std::string id = arg.substr(0, first);
  const std::string profile =
      first == std::string::npos
          ? ""
          : arg.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
  const std::string pin = second == std::string::npos ? "" : arg.substr(second + 1);
  SsfInfo* info = nullptr;
  SSF_RC rc = lib.SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0, profile.data(),
                                      static_cast<int32_t>(profile.size()), pin.data(),
                                      static_cast<int32_t>(pin.size()), SSF_RES_UNDEFINED, &info);
  if (rc != SSF_OK) return rc;
  rc = lib.SsfINSSigRcpSsfInfo(info, list);
  if (rc != SSF_OK) lib.SsfDELSigRcpSsfInfo(&info);
  return rc;
}

int records(const std::vector<std::string>& args) {
  if (args.empty()) return 2;
  const auto& lib = bvssf::library();
  SsfInfoNode* list = nullptr;
  SSF_RC rc = SSF_OK;
  for (const std::string& arg : args) {
    rc = add_record(arg, &list);
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
