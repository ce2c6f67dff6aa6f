// bvssf: a host for the library.  It loads build/libbvsapssf.so with dlopen,
// as SAP does, and runs one export per command on files and arguments.
// Each command lives in its own file and registers itself here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bvsapssf_api.h"

namespace bvssf {

// The exports, resolved from the library that $BVSSF_LIBRARY names, else
// libbvsapssf.so beside this program.
struct Library {
  decltype(&::SsfVersion) SsfVersion;
  decltype(&::SsfQueryProperties) SsfQueryProperties;
  decltype(&::SsfEncode) SsfEncode;
  decltype(&::SsfDecode) SsfDecode;
  decltype(&::SsfSign) SsfSign;
  decltype(&::SsfVerify) SsfVerify;
  decltype(&::SsfEnvelope) SsfEnvelope;
  decltype(&::SsfDevelope) SsfDevelope;
  decltype(&::SsfAddSign) SsfAddSign;
  decltype(&::SsfDigest) SsfDigest;
  decltype(&::SsfDELSsfOctetstring) SsfDELSsfOctetstring;
  decltype(&::SsfNEWSigRcpSsfInfo) SsfNEWSigRcpSsfInfo;
  decltype(&::SsfDELSigRcpSsfInfo) SsfDELSigRcpSsfInfo;
  decltype(&::SsfINSSigRcpSsfInfo) SsfINSSigRcpSsfInfo;
  decltype(&::SsfDELSigRcpSsfInfoList) SsfDELSigRcpSsfInfoList;
  decltype(&::SsfPRISigRcpSsfInfo) SsfPRISigRcpSsfInfo;
  decltype(&::SsfPRISigRcpSsfInfoList) SsfPRISigRcpSsfInfoList;
};

const Library& library();

// "SSF_OK", "SSF_ERR_FORMAT", ... or the number for an unknown code.
std::string rc_name(SSF_RC rc);

std::string read_file(const std::string& path);  // exits with a message if unreadable
void write_file(const std::string& path, const unsigned char* data, uint32_t length);

// Prints the code by name and returns the process exit status for it.
int report(SSF_RC rc);

using CommandFn = int (*)(const std::vector<std::string>& args);

struct Command {
  const char* name;
  const char* usage;  // arguments after the name
  const char* help;
  CommandFn run;
};

// Registers a command at static initialisation; returns true.
bool add_command(const Command& command);

}  // namespace bvssf
