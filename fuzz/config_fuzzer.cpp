// The settings readers, each on the file it reads: ssf.ini through the
// library's settings object, Trace.ini and cades.ini through the ini reader
// (A and W forms, values and the lists of names), registry.reg through the
// registry functions and as the trace setting is read at load, a .trc file
// through the trace table.  The input's
// pieces are those five files in that order.
#include "advapi32/registry.h"
#include "cadesmsg/timestamp.h"
#include "kernel32/profile.h"
#include "kernel32/wide_text.h"
#include "trace/settings.h"
#include "world.h"

using namespace bv::fuzz;

namespace {

void read_ini(const fs::path& file, const char* section, const char* key) {
  char narrow[512];
  GetPrivateProfileStringA(section, key, "default", narrow, sizeof narrow, file.c_str());
  GetPrivateProfileStringA(section, nullptr, "", narrow, sizeof narrow, file.c_str());
  GetPrivateProfileStringA(nullptr, nullptr, "", narrow, 16, file.c_str());
  char16_t wide[512];
  const std::u16string wide_file = bv::platform::utf16_from_utf8(file.string());
  const std::u16string wide_section = bv::platform::utf16_from_utf8(section);
  const std::u16string wide_key = bv::platform::utf16_from_utf8(key);
  GetPrivateProfileStringW(wide_section.c_str(), wide_key.c_str(), u"", wide, 512, wide_file.c_str());
  GetPrivateProfileStringW(wide_section.c_str(), nullptr, u"", wide, 8, wide_file.c_str());
}

void read_registry() {
  HKEY key = nullptr;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Brelvantec\\Trace", 0, KEY_READ, &key) != ERROR_SUCCESS) return;
  for (const char* name : {"libbvsapssf.so", "libbvsapssf.so.logfile", "ProcessFlags", ""}) {
    BYTE small[4], large[512];
    DWORD type = 0, size = sizeof small;
    RegQueryValueExA(key, name, nullptr, &type, small, &size);
    size = sizeof large;
    RegQueryValueExA(key, name, nullptr, &type, large, &size);
    const std::u16string wide_name = bv::platform::utf16_from_utf8(name);
    size = sizeof large;
    RegQueryValueExW(key, wide_name.c_str(), nullptr, &type, large, &size);
  }
  RegCloseKey(key);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  world();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> files = pieces(data, size, 5);
  const fs::path common = world().common / "Brelvantec", local = world().local / "Brelvantec";
  const fs::path ssf_ini = common / "ssf.ini", trace_ini = common / "Trace.ini", registry = common / "registry.reg",
                 trc = world().dir / "module.trc", cades_ini = local / "cades.ini";
  const fs::path paths[] = {ssf_ini, trace_ini, registry, trc, cades_ini};
  for (size_t i = 0; i < 5; ++i) {
    std::error_code ignored;
    fs::remove(paths[i], ignored);
    if (i < files.size()) write_file(paths[i], files[i]);
  }
  const Config settings;
  read_ini(trace_ini, "Trace", "libbvsapssf.so");
  read_registry();
  // The load-time reading without its side effect: a log file named by the input is never opened.
  bv::trace::describe_settings(u"libbvsapssf.so");
  bv::trace::apply_settings_file(bv::platform::utf16_from_utf8(trc.string()), u"/opt/sap/libbvsapssf.so");
  read_ini(cades_ini, "cades", "DefaultTSP");
  bv::cades::default_time_stamp_service();
  return 0;
}
