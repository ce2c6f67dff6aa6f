// The administrator's view of the settings: what the library reads in this
// environment, with each value's source, and the texts it would read
// otherwise than a person might expect.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "bvstore.h"
#include "cadesmsg/timestamp.h"
#include "crypt32/store.h"
#include "kernel32/kernel32.h"
#include "kernel32/profile.h"
#include "kernel32/wide_text.h"
#include "shell32/shell32.h"
#include "trace/settings.h"

namespace bvstore {
namespace {

std::string special_folder(int folder) {
  char path[MAX_PATH] = {};
  return SHGetFolderPathA(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) == S_OK ? std::string(path)
                                                                                      : std::string();
}

bool same_name(const std::string& a, const char* b) { return strcasecmp(a.c_str(), b) == 0; }

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  const size_t last = text.find_last_not_of(" \t\r");
  return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

// Sections and keys of an ini file the library does not know.  `keys` empty:
// any key of a known section is fine.
void note_unknown_names(const std::string& path, const char* section, const std::vector<const char*>& keys,
                        std::vector<std::string>& notes) {
  std::ifstream in(path);
  std::string line, current;
  while (std::getline(in, line)) {
    line = trimmed(line);
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line[0] == '[') {
      current = trimmed(line.substr(1, line.find(']') == std::string::npos ? std::string::npos : line.find(']') - 1));
      if (!same_name(current, section)) notes.push_back(path + ": section [" + current + "] is not read");
      continue;
    }
    const std::string key = trimmed(line.substr(0, line.find('=')));
    if (!same_name(current, section) || keys.empty()) continue;
    bool known = false;
    for (const char* name : keys) known = known || same_name(key, name);
    if (!known) notes.push_back(path + ": key " + key + " in [" + current + "] is not read");
  }
}

bool exists(const std::string& path) { return std::ifstream(path).good(); }

}  // namespace

int run_settings() {
  std::FILE* out = stdout;
  static const char* const kKeys[] = {"BV_SSF_USERID",
                                      "BV_SSF_VERIFYCERTFLAGS",
                                      "BV_SSF_VERIFYCERTFLAGS_ONSELECT",
                                      "BV_SSF_VERIFYCERTACCEPTABLESTATUS",
                                      "BV_SSF_VERIFYCERTFLAGS_ONSIGN",
                                      "BV_SSF_ASK_PIN_WHEN_EMPTY",
                                      "BV_SSF_ADD_TSP"};
  std::vector<std::string> notes = config.notes;
  const std::string user = special_folder(CSIDL_LOCAL_APPDATA), machine = special_folder(CSIDL_COMMON_APPDATA);

  std::fprintf(out, "Settings (the environment, then ssf.ini of the user's folder, then of the machine's: "
                    "the last one given wins)\n");
  std::string tsp;
  for (const std::string& address : config.additionalTSP) tsp += (tsp.empty() ? "" : ";") + address;
  char number[32];
  const auto hex = [&](DWORD value) {
    std::snprintf(number, sizeof number, "0x%08x", value);
    return std::string(number);
  };
  const std::string values[] = {config.UserIdAsCertHash ? "CERT_HASH" : "(off)",
                                hex(config.VerifyCertFlags),
                                hex(config.VerifyCertFlagsOnSelect),
                                hex(config.AcceptableCertStatus),
                                config.VerifyCertOnSign != 0 ? "on" : "off",
                                config.globalAskPinWhenEmpty ? "on" : "off",
                                tsp.empty() ? "(none)" : tsp};
  for (size_t i = 0; i < std::size(kKeys); ++i) {
    const auto origin = config.origins.find(kKeys[i]);
    std::fprintf(out, "  %-34s %-12s %s\n", kKeys[i], values[i].c_str(),
                 origin != config.origins.end() ? origin->second.c_str() : "default");
  }
  for (const std::string& folder : {user, machine}) {
    const std::string path = folder + "/Brelvantec/ssf.ini";
    std::fprintf(out, "  file %s: %s\n", path.c_str(), exists(path) ? "read" : "absent");
    if (exists(path)) note_unknown_names(path, "bvsapssf", {std::begin(kKeys), std::end(kKeys)}, notes);
  }

  std::fprintf(out, "Stores\n");
  const char* user_source = std::getenv("BV_PLATFORM_LOCAL_APPDATA") ? "BV_PLATFORM_LOCAL_APPDATA"
                            : std::getenv("XDG_DATA_HOME")          ? "XDG_DATA_HOME"
                                                                    : "default: ~/.local/share";
  const char* machine_source =
      std::getenv("BV_PLATFORM_COMMON_APPDATA") ? "BV_PLATFORM_COMMON_APPDATA" : "default: /var/opt";
  std::fprintf(out, "  current user   %s (%s)\n", bv::platform::system_store_root(CERT_SYSTEM_STORE_CURRENT_USER).c_str(),
               user_source);
  std::fprintf(out, "  local machine  %s (%s)\n",
               bv::platform::system_store_root(CERT_SYSTEM_STORE_LOCAL_MACHINE).c_str(), machine_source);

  std::fprintf(out, "Trace of libbvsapssf.so\n");
  const bv::trace::SettingsDescription trace = bv::trace::describe_settings(u"libbvsapssf.so");
  if (trace.setting_from.empty()) {
    std::fprintf(out, "  off: no setting in the registry (registry.reg) or Trace.ini\n");
  } else {
    std::fprintf(out, "  setting \"%s\" (%s)\n", trace.setting.c_str(), trace.setting_from.c_str());
    std::fprintf(out, "  log file %s\n", trace.log_name.empty() ? "none: standard error"
                                                                 : (trace.log_path + " (" + trace.log_from + ")").c_str());
  }
  for (const std::string& folder : {machine, user}) {
    const std::string path = folder + "/Brelvantec/Trace.ini";
    if (exists(path)) note_unknown_names(path, "Trace", {}, notes);
  }

  std::fprintf(out, "Time stamps\n");
  const std::string service = bv::cades::default_time_stamp_service();
  std::string service_source = std::getenv("BV_CADES_DEFAULT_TSP") ? "BV_CADES_DEFAULT_TSP" : "";
  for (const std::string& folder : {user, machine}) {
    const std::string path = folder + "/Brelvantec/cades.ini";
    if (!exists(path)) continue;
    char value[2048] = {};
    if (GetPrivateProfileStringA("cades", "DefaultTSP", "", value, sizeof value, path.c_str()) > 0)
      service_source = path;
    note_unknown_names(path, "cades", {"DefaultTSP"}, notes);
  }
  std::fprintf(out, "  default service %s%s\n", service.empty() ? "(none)" : service.c_str(),
               service_source.empty() ? "" : (" (" + service_source + ")").c_str());

  std::fprintf(out, notes.empty() ? "No warnings.\n" : "Warnings\n");
  for (const std::string& note : notes) std::fprintf(out, "  %s\n", note.c_str());
  return bv::cli::kDone;
}

}  // namespace bvstore
