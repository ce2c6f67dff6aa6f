// bvssf: a host for the library.  It loads build/libbvsapssf.so with dlopen,
// as SAP does, and runs one export per command on files and arguments.
// Each command lives in its own file and registers itself here.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "bvsapssf_api.h"
#include "cli.h"

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
// pipe, a device) is read.  "-" is standard input (mapped too when it is a
// regular file), and only one input may be.  An empty path is an empty
// input.  Exits with code 2 and the system's reason if unreadable.
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

// To be called for an output path before the library is: exits with code 2
// when it is one of `inputs` (the same file, however named); for "-" the
// informational lines go to standard error from now on, so that standard
// output holds the data alone.
void prepare_output(const std::string& path, const std::vector<std::string>& inputs);
// Where informational lines go: standard output unless the data does.
FILE* info();
// Writes the output ("-": standard output); exits with code 2 and the
// system's reason if it cannot.
void write_file(const std::string& path, const unsigned char* data, uint32_t length);
// "N bytes written to PATH" (or "to standard output") as an informational line.
void note_written(const std::string& path, uint32_t length, const char* what = "");

using bv::cli::parse_record;
using bv::cli::RecordArgument;

// The folder of this program, with its trailing '/'; empty if unknown.
std::string program_folder();

// The one line that sends an administrator from a refused signer to the
// tool that explains the refusal (never with the PIN).
void point_to_check(const RecordArgument& signer);

// A new record for `argument` appended to `list` (which frees it); the
// library's code when it refuses.
SSF_RC add_record(const RecordArgument& argument, SsfInfoNode** list, SsfInfo** record);

// "OK", "UNKNOWN", ... for a record's Result.
const char* result_name(int32_t result);

// Prints the code by name (an informational line) and returns the exit
// code for it: 0 for SSF_OK, else 1.
int report(SSF_RC rc);

using CommandFn = int (*)(const std::vector<std::string>& args);

struct Command {
  const char* name;
  const char* usage;  // arguments after the name
  const char* help;   // one line
  CommandFn run;
  const char* details = nullptr;  // further lines for `bvssf help NAME`, '\n' between them
};

// Registers a command at static initialisation; returns true.
bool add_command(const Command& command);

// The command's usage on standard error; returns the exit code 2.
int usage_of(const char* name);

}  // namespace bvssf
