// The library's internal functions and its one settings object.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wintypes.h"

// Settings, filled once at load from the environment and the two ssf.ini
// files, read-only afterwards.
class Config {
 public:
  Config();

  DWORD VerifyCertFlags = 0x40000000;
  DWORD VerifyCertFlagsOnSelect = 0x40000000;
  int32_t VerifyCertOnSign = 1;
  DWORD AcceptableCertStatus = 0;
  bool UserIdAsCertHash = false;
  bool globalAskPinWhenEmpty = false;
  std::vector<std::string> additionalTSP;

  void print_Config() const;

 private:
  // Applies Brelvantec\ssf.ini of a special folder (CSIDL_*), section bvsapssf.
  void read_ini_file(int folder);
};

extern Config config;

// The licence gate of the message operations: returns, or throws on refusal.
int SSFAPICheckLicense();
