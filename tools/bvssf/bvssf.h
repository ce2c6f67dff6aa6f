// bvssf: a host for the library.  It loads build/libbvsapssf.so with dlopen,
// as SAP does, and runs one export per command on files and arguments.
// Each command lives in its own file and registers itself here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bvsapssf_api.h"

namespace bvssf {

// Every export the host calls, named once: the record below and its
// resolution in main.cpp are both made from this list.
#define BVSSF_EXPORTS(X) \
  X(SsfVersion) X(SsfQueryProperties) X(SsfEncode) X(SsfDecode) X(SsfSign) X(SsfVerify) X(SsfEnvelope) \
  X(SsfDevelope) X(SsfAddSign) X(SsfDigest) X(SsfDELSsfOctetstring) X(SsfNEWSigRcpSsfInfo) \
  X(SsfDELSigRcpSsfInfo) X(SsfINSSigRcpSsfInfo) X(SsfDELSigRcpSsfInfoList) X(SsfPRISigRcpSsfInfo) \
  X(SsfPRISigRcpSsfInfoList)

// The exports, resolved from the library that $BVSSF_LIBRARY names, else
// libbvsapssf.so beside this program.
struct Library {
#define BVSSF_EXPORT_MEMBER(name) decltype(&::name) name;
  BVSSF_EXPORTS(BVSSF_EXPORT_MEMBER)
#undef BVSSF_EXPORT_MEMBER
};

const Library& library();

// "SSF_OK", "SSF_ERR_FORMAT", ... or the number for an unknown code.
std::string rc_name(SSF_RC rc);

// An input file's bytes: a regular file is mapped, so a large input costs
// no copy of its own (its pages are the page cache's); anything else (a
// pipe, a device) is read.  An empty path is an empty input.  Exits with a
// message if unreadable.
class InputFile {
 public:
  explicit InputFile(const std::string& path);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const char* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  const char* data_ = "";
  size_t size_ = 0;
  void* mapping_ = nullptr;
  std::string read_;
};
void write_file(const std::string& path, const unsigned char* data, uint32_t length);

// A record as the commands take it: ID[:PROFILE[:PIN]].  The PIN is the
// rest after the second colon, so it may hold colons itself.
struct RecordArgument {
  std::string id, profile, pin;
};
RecordArgument parse_record(const std::string& text);

// A new record for `argument` appended to `list` (which frees it); the
// library's code when it refuses.
SSF_RC add_record(const RecordArgument& argument, SsfInfoNode** list, SsfInfo** record);

// "OK", "UNKNOWN", ... for a record's Result.
const char* result_name(int32_t result);

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
