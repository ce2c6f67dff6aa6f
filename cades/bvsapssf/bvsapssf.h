// The library's internal functions and its one settings object.
#pragma once

#include <cstdint>
#include <map>
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

  // Where each setting that was given came from, by its key
  // ("BV_SSF_VERIFYCERTFLAGS"...): "environment" or the ssf.ini file's path;
  // and the values read otherwise than their text may suggest.  For the
  // administrator's report, not for the library's own work.
  std::map<std::string, std::string> origins;
  std::vector<std::string> notes;

  void print_Config() const;

 private:
  // Applies Brelvantec\ssf.ini of a special folder (CSIDL_*), section bvsapssf.
  void read_ini_file(int folder);
};

extern Config config;

// The licence gate of the message operations: returns, or throws on refusal.
int SSFAPICheckLicense();
