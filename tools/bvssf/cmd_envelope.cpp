// envelope and develope: SsfEnvelope of a file for recipients found in the
// PAB store, and SsfDevelope of a message with one recipient's key.
#include <cstdio>
#include <string>
#include <vector>

#include "bvssf.h"

namespace {

int envelope(const std::vector<std::string>& args) {
  std::vector<std::string> positional, ids;
  std::string pab;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--recipient" && i + 1 < args.size()) ids.push_back(args[++i]);
    else if (args[i] == "--pab" && i + 1 < args.size()) pab = args[++i];
    else positional.push_back(args[i]);
  }
  if (positional.size() != 4) return bvssf::usage_of("envelope");
  bvssf::prepare_output(positional[3], {positional[2]});
  const auto& lib = bvssf::library();
  const std::string& format = positional[0];
  const std::string& algorithm = positional[1];
  const bvssf::InputFile input(positional[2]);

  SsfInfoNode* list = nullptr;
  std::vector<SsfInfo*> records;
  for (const std::string& id : ids) {
    SsfInfo* info = nullptr;
    const SSF_RC rc = bvssf::add_record({id, "", ""}, &list, &info);
    if (rc != SSF_OK) {
      if (list != nullptr) lib.SsfDELSigRcpSsfInfoList(&list);
      return bvssf::report(rc);
    }
    records.push_back(info);
  }

  unsigned char* enveloped = nullptr;
  uint32_t enveloped_length = 0;
  const SSF_RC rc = lib.SsfEnvelope(format.data(), static_cast<int32_t>(format.size()), algorithm.data(),
                                    static_cast<int32_t>(algorithm.size()),
                                    reinterpret_cast<const unsigned char*>(input.data()),
                                    static_cast<int32_t>(input.size()), pab.empty() ? nullptr : pab.data(),
                                    static_cast<int32_t>(pab.size()), nullptr, 0, list, &enveloped, &enveloped_length);
  for (size_t i = 0; i < records.size(); ++i)
    std::fprintf(bvssf::info(), "recipient %zu: %s (%d)\n", i + 1, bvssf::result_name(records[i]->Result),
                 records[i]->Result);
  if (rc == SSF_OK) {
    bvssf::write_file(positional[3], enveloped, enveloped_length);
    bvssf::note_written(positional[3], enveloped_length);
    lib.SsfDELSsfOctetstring(&enveloped, &enveloped_length);
  }
  if (list != nullptr) lib.SsfDELSigRcpSsfInfoList(&list);
  return bvssf::report(rc);
}

int develope(const std::vector<std::string>& args) {
  std::vector<std::string> positional;
  std::string recipient_arg;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--recipient" && i + 1 < args.size()) recipient_arg = args[++i];
    else positional.push_back(args[i]);
  }
  if (positional.size() != 3 || recipient_arg.empty()) return bvssf::usage_of("develope");
  bvssf::prepare_output(positional[2], {positional[1]});
  const auto& lib = bvssf::library();
  const std::string& format = positional[0];
  const bvssf::InputFile message(positional[1]);
  SsfInfoNode* list = nullptr;
  SsfInfo* record = nullptr;
  SSF_RC rc = bvssf::add_record(bvssf::parse_record(recipient_arg), &list, &record);
  if (rc != SSF_OK) return bvssf::report(rc);

  unsigned char* content = nullptr;
  uint32_t content_length = 0;
  rc = lib.SsfDevelope(format.data(), static_cast<int32_t>(format.size()),
                       reinterpret_cast<const unsigned char*>(message.data()), static_cast<int32_t>(message.size()),
                       record, &content, &content_length);
  std::fprintf(bvssf::info(), "recipient: %s (%d)\n", bvssf::result_name(record->Result), record->Result);
  if (rc == SSF_OK) {
    bvssf::write_file(positional[2], content, content_length);
    bvssf::note_written(positional[2], content_length);
    lib.SsfDELSsfOctetstring(&content, &content_length);
  }
  lib.SsfDELSigRcpSsfInfoList(&list);
  return bvssf::report(rc);
}

const bool registered_envelope = bvssf::add_command(
    {"envelope", "FORMAT ALG IN OUT --recipient ID [--recipient ID ...] [--pab STORE]",
     "SsfEnvelope: GOST28147 for every recipient, found in STORE (default Addressbook)", envelope,
     "ALG: GOST28147.\n"
     "--recipient ID: a certificate hash or a DN whose items are all in the subject; once per recipient.\n"
     "--pab STORE: the store the recipients' certificates are looked up in."});

const bool registered_develope = bvssf::add_command(
    {"develope", "FORMAT IN OUT --recipient ID[:PROFILE[:PIN]]",
     "SsfDevelope: opens the message with the recipient's key (store PROFILE, default My)", develope,
     "--recipient ID[:PROFILE[:PIN]]: the recipient's certificate, the store it is in (empty: My of the\n"
     "user; a leading m: the machine's stores) and the PIN of its key."});
}  // namespace
