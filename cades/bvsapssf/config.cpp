#include "bvsapssf.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel32/kernel32.h"
#include "kernel32/profile.h"
#include "shell32/shell32.h"
#include "trace/trace.h"

namespace {

// Case as the library's code page has it, whatever the host's locale says.
bool same_word(const char* text, const char* word) {
  return strcasecmp_l(text, word, bv::platform::ansi_locale()) == 0;
}

bool is_on_value(const char* text) {
  return same_word(text, "YES") || same_word(text, "TRUE") || std::strcmp(text, "1") == 0;
}

bool is_off_value(const char* text) {
  return same_word(text, "NO") || same_word(text, "FALSE") || std::strcmp(text, "0") == 0;
}

// Read as "%x" reads: blanks, a sign and "0x" allowed, and it stops at the
// first character that is no hex digit; a text that does not start with
// one leaves the field.
void read_hex(const char* text, DWORD& field) {
  char* end = nullptr;
  const unsigned long value = strtoul_l(text, &end, 16, bv::platform::ansi_locale());
  if (end != text) field = static_cast<DWORD>(value);
}

// Pieces between ';', kept as they are: a leading or doubled separator gives
// an empty entry, a trailing one none.
std::vector<std::string> split_addresses(const char* text) {
  std::vector<std::string> addresses;
  const size_t length = std::strlen(text);
  size_t position = 0;
  while (position < length) {
    const char* separator = std::strchr(text + position, ';');
    const size_t end = separator != nullptr ? static_cast<size_t>(separator - text) : length;
    addresses.emplace_back(text + position, end - position);
    position = end + 1;
  }
  return addresses;
}

}  // namespace

namespace {

bool is_switch_word(const char* text) { return is_on_value(text) || is_off_value(text); }

// Notes on a value that reads otherwise than it may look: hexadecimal
// without "0x", text after the number, a switch word the library does not know.
void note_value(const char* key, const char* text, const std::string& origin, std::vector<std::string>& notes) {
  const std::string where = std::string(key) + " = \"" + text + "\" (" + origin + "): ";
  const bool is_hex = std::strcmp(key, "BV_SSF_VERIFYCERTFLAGS") == 0 ||
                      std::strcmp(key, "BV_SSF_VERIFYCERTFLAGS_ONSELECT") == 0 ||
                      std::strcmp(key, "BV_SSF_VERIFYCERTACCEPTABLESTATUS") == 0;
  if (is_hex) {
    char* end = nullptr;
    const unsigned long value = strtoul_l(text, &end, 16, bv::platform::ansi_locale());
    char read[32];
    std::snprintf(read, sizeof read, "0x%lx", value);
    if (end == text)
      notes.push_back(where + "no hexadecimal number: ignored");
    else if (*end != '\0')
      notes.push_back(where + "read as " + read + ", the rest ignored");
    else if (std::strspn(text, "0123456789") == std::strlen(text) && std::strlen(text) > 1)
      notes.push_back(where + "read as hexadecimal " + read + " (these numbers are always hexadecimal)");
  } else if (std::strcmp(key, "BV_SSF_USERID") == 0) {
    if (*text != '\0' && std::strcmp(text, "CERT_HASH") != 0)
      notes.push_back(where + "only CERT_HASH (in capitals) means anything: read as unset");
  } else if (std::strcmp(key, "BV_SSF_ADD_TSP") != 0 && !is_switch_word(text)) {
    notes.push_back(where + "not one of YES, TRUE, 1, NO, FALSE, 0: read as " +
                    (std::strcmp(key, "BV_SSF_VERIFYCERTFLAGS_ONSIGN") == 0 ? "on" : "off"));
  }
}

}  // namespace

Config::Config() {
  // The environment: a switch can only be turned away from its default here.
  const auto given = [&](const char* key) -> const char* {
    const char* value = std::getenv(key);
    if (value != nullptr) {
      origins[key] = "environment";
      note_value(key, value, "environment", notes);
    }
    return value;
  };
  if (const char* value = given("BV_SSF_USERID"); value != nullptr && std::strcmp(value, "CERT_HASH") == 0)
    UserIdAsCertHash = true;
  if (const char* value = given("BV_SSF_VERIFYCERTFLAGS")) read_hex(value, VerifyCertFlags);
  if (const char* value = given("BV_SSF_VERIFYCERTACCEPTABLESTATUS")) read_hex(value, AcceptableCertStatus);
  if (const char* value = given("BV_SSF_VERIFYCERTFLAGS_ONSELECT")) read_hex(value, VerifyCertFlagsOnSelect);
  if (const char* value = given("BV_SSF_ASK_PIN_WHEN_EMPTY"); value != nullptr && is_on_value(value))
    globalAskPinWhenEmpty = true;
  if (const char* value = given("BV_SSF_VERIFYCERTFLAGS_ONSIGN"); value != nullptr && is_off_value(value))
    VerifyCertOnSign = 0;
  if (const char* value = given("BV_SSF_ADD_TSP")) additionalTSP = split_addresses(value);

  // Then the files, the machine-wide one last and so strongest.
  read_ini_file(CSIDL_LOCAL_APPDATA);
  read_ini_file(CSIDL_COMMON_APPDATA);
}

void Config::read_ini_file(int folder) {
  char path[MAX_PATH];
  if (SHGetFolderPathA(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) return;
  if (!PathAppendA(path, "Brelvantec\\ssf.ini")) return;

  // An absent or empty key reads as 0 characters and changes nothing; a
  // value turns a switch either way.
  char value[MAX_PATH];
  const auto read = [&](const char* key) {
    if (GetPrivateProfileStringA("bvsapssf", key, "", value, MAX_PATH, path) == 0) return false;
    origins[key] = path;
    note_value(key, value, path, notes);
    return true;
  };
  if (read("BV_SSF_USERID")) UserIdAsCertHash = std::strcmp(value, "CERT_HASH") == 0;
  if (read("BV_SSF_VERIFYCERTFLAGS")) read_hex(value, VerifyCertFlags);
  if (read("BV_SSF_VERIFYCERTFLAGS_ONSELECT")) read_hex(value, VerifyCertFlagsOnSelect);
  if (read("BV_SSF_VERIFYCERTACCEPTABLESTATUS")) read_hex(value, AcceptableCertStatus);
  if (read("BV_SSF_VERIFYCERTFLAGS_ONSIGN")) VerifyCertOnSign = is_off_value(value) ? 0 : 1;
  if (read("BV_SSF_ASK_PIN_WHEN_EMPTY")) globalAskPinWhenEmpty = is_on_value(value);
  if (read("BV_SSF_ADD_TSP")) additionalTSP = split_addresses(value);
}

void Config::print_Config() const {
  constexpr const char* trace_function = "Config::print_Config";
  constexpr const char* trace_file = "bvsapssf.h";
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: UserIdAsCertHash = %d\n", UserIdAsCertHash ? 1 : 0);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: VerifyCertFlags = %x\n", VerifyCertFlags);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: VerifyCertOnSign = %d\n", VerifyCertOnSign);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: AcceptableCertStatus = %x\n", AcceptableCertStatus);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: VerifyCertFlagsOnSelect = %x\n", VerifyCertFlagsOnSelect);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: globalAskPinWhenEmpty = %d\n", globalAskPinWhenEmpty ? 1 : 0);
  BV_TRACE(TRACE_INFO, "#info#: bvsapssf parameters: additionalTSP count = %d\n",
           static_cast<int>(additionalTSP.size()));
  for (const std::string& address : additionalTSP)
    BV_TRACE(TRACE_NORMAL, "#info#: bvsapssf parameters: additionalTSP  = %s\n", address.c_str());
}
