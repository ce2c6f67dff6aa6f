// settings: the library's settings as it reads them in this environment.
// Reading them needs the library's own code, which a host that loads it
// with dlopen cannot reach; bvstore links it, so this runs bvstore's report.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "bvssf.h"

namespace {

int settings(const std::vector<std::string>& args) {
  if (!args.empty()) return bvssf::usage_of("settings");
  const std::string bvstore = bvssf::program_folder() + "bvstore";
  std::fflush(nullptr);
  execl(bvstore.c_str(), "bvstore", "settings", static_cast<char*>(nullptr));
  std::fprintf(stderr, "bvssf: %s\n", bv::cli::file_error("run", bvstore, errno).c_str());
  return bv::cli::kUsageOrFile;
}

const bool registered = bvssf::add_command(
    {"settings", "", "The settings the library reads here, each with its source, and warnings (bvstore settings)",
     settings});
}  // namespace
