// sign and verify: SsfSign over a file, with signers given as
// ID[:PROFILE[:PIN]], and SsfVerify of a message with each signer's record.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bvssf.h"

namespace {

int sign(const std::vector<std::string>& args) {
  std::vector<std::string> positional;
  std::vector<bvssf::RecordArgument> signer_args;
  bool detached = false, include_certs = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--signer" && i + 1 < args.size()) {
      signer_args.push_back(bvssf::parse_record(args[++i]));
    } else if (args[i] == "--detached") {
      detached = true;
    } else if (args[i] == "--certs") {
      include_certs = true;
    } else {
      positional.push_back(args[i]);
    }
  }
  if (positional.size() != 3) return bvssf::usage_of("sign");
  bvssf::prepare_output(positional[2], {positional[1]});
  const auto& lib = bvssf::library();
  const std::string& format = positional[0];
  const bvssf::InputFile input(positional[1]);

  SsfInfoNode* list = nullptr;
  std::vector<SsfInfo*> records;
  for (const bvssf::RecordArgument& s : signer_args) {
    SsfInfo* info = nullptr;
    const SSF_RC rc = bvssf::add_record(s, &list, &info);
    if (rc != SSF_OK) {
      if (list != nullptr) lib.SsfDELSigRcpSsfInfoList(&list);
      return bvssf::report(rc);
    }
    records.push_back(info);
  }

  unsigned char* signed_data = nullptr;
  uint32_t signed_length = 0;
  const SSF_RC rc = lib.SsfSign(format.data(), static_cast<int32_t>(format.size()), nullptr, 0,
                                include_certs ? 1 : 0, detached ? 1 : 0,
                                reinterpret_cast<const unsigned char*>(input.data()),
                                static_cast<int32_t>(input.size()), list, &signed_data, &signed_length);
  for (size_t i = 0; i < records.size(); ++i) {
    std::fprintf(bvssf::info(), "signer %zu: %s (%d)\n", i + 1, bvssf::result_name(records[i]->Result),
                 records[i]->Result);
    if (records[i]->Result != SSF_RES_OK) bvssf::point_to_check(signer_args[i]);
  }
  if (rc == SSF_OK) {
    bvssf::write_file(positional[2], signed_data, signed_length);
    bvssf::note_written(positional[2], signed_length);
    lib.SsfDELSsfOctetstring(&signed_data, &signed_length);
  }
  if (list != nullptr) lib.SsfDELSigRcpSsfInfoList(&list);
  return bvssf::report(rc);
}

int verify(const std::vector<std::string>& args) {
  std::vector<std::string> positional;
  std::string content_file, pab, out_file;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--content" && i + 1 < args.size()) content_file = args[++i];
    else if (args[i] == "--pab" && i + 1 < args.size()) pab = args[++i];
    else if (args[i] == "--out" && i + 1 < args.size()) out_file = args[++i];
    else positional.push_back(args[i]);
  }
  if (positional.size() != 2) return bvssf::usage_of("verify");
  if (!out_file.empty()) bvssf::prepare_output(out_file, {positional[1], content_file});
  const auto& lib = bvssf::library();
  const std::string& format = positional[0];
  const bvssf::InputFile message(positional[1]);
  const bvssf::InputFile content(content_file);
  SsfInfoNode* list = nullptr;
  unsigned char* out = nullptr;
  uint32_t out_length = 0;
  const SSF_RC rc = lib.SsfVerify(
      format.data(), static_cast<int32_t>(format.size()), 0, reinterpret_cast<const unsigned char*>(message.data()),
      static_cast<int32_t>(message.size()),
      content_file.empty() ? nullptr : reinterpret_cast<const unsigned char*>(content.data()),
      static_cast<int32_t>(content.size()), pab.empty() ? nullptr : pab.data(), static_cast<int32_t>(pab.size()),
      nullptr, 0, &list, &out, &out_length);
  // One block per signer: the identifier, the result, each time text (a
  // record's Profile holds them one after the other, each ended by a NUL).
  size_t index = 0;
  for (SsfInfoNode* node = list; node != nullptr; node = node->next) {
    const SsfInfo& info = *node->info;
    std::fprintf(bvssf::info(), "signer %zu: %s (%d)\n  id: %.*s\n", ++index, bvssf::result_name(info.Result),
                 info.Result, info.strSigRcpIdL, info.strSigRcpId);
    const std::string times(info.Profile != nullptr ? info.Profile : "", info.ProfileL > 0 ? info.ProfileL : 0);
    for (size_t at = 0; at < times.size();) {
      const size_t end = std::min(times.find('\0', at), times.size());
      std::fprintf(bvssf::info(), "  %s\n", times.substr(at, end - at).c_str());
      at = end + 1;
    }
    std::fprintf(bvssf::info(), "  certificate: %d bytes\n", info.PasswordL);
  }
  if (out != nullptr && !out_file.empty()) {
    bvssf::write_file(out_file, out, out_length);
    bvssf::note_written(out_file, out_length, "content: ");
  }
  lib.SsfDELSsfOctetstring(&out, &out_length);
  if (list != nullptr) lib.SsfDELSigRcpSsfInfoList(&list);
  return bvssf::report(rc);
}

int add_sign(const std::vector<std::string>& args) {
  std::vector<std::string> positional;
  std::string signer_arg, content_file;
  bool include_certs = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--signer" && i + 1 < args.size()) signer_arg = args[++i];
    else if (args[i] == "--content" && i + 1 < args.size()) content_file = args[++i];
    else if (args[i] == "--certs") include_certs = true;
    else positional.push_back(args[i]);
  }
  if (positional.size() != 3 || signer_arg.empty()) return bvssf::usage_of("add-sign");
  bvssf::prepare_output(positional[2], {positional[1], content_file});
  const auto& lib = bvssf::library();
  const std::string& format = positional[0];
  const bvssf::InputFile message(positional[1]);
  const bvssf::InputFile content(content_file);
  SsfInfoNode* list = nullptr;
  SsfInfo* record = nullptr;
  SSF_RC rc = bvssf::add_record(bvssf::parse_record(signer_arg), &list, &record);
  if (rc != SSF_OK) return bvssf::report(rc);

  unsigned char* signed_data = nullptr;
  uint32_t signed_length = 0;
  rc = lib.SsfAddSign(format.data(), static_cast<int32_t>(format.size()), nullptr, 0, include_certs ? 1 : 0,
                      reinterpret_cast<const unsigned char*>(message.data()), static_cast<int32_t>(message.size()),
                      content_file.empty() ? nullptr : reinterpret_cast<const unsigned char*>(content.data()),
                      static_cast<int32_t>(content.size()), record, &signed_data, &signed_length);
  std::fprintf(bvssf::info(), "signer: %s (%d)\n", bvssf::result_name(record->Result), record->Result);
  if (record->Result != SSF_RES_OK) bvssf::point_to_check(bvssf::parse_record(signer_arg));
  if (rc == SSF_OK) {
    bvssf::write_file(positional[2], signed_data, signed_length);
    bvssf::note_written(positional[2], signed_length);
    lib.SsfDELSsfOctetstring(&signed_data, &signed_length);
  }
  lib.SsfDELSigRcpSsfInfoList(&list);
  return bvssf::report(rc);
}

const bool registered_add_sign = bvssf::add_command(
    {"add-sign", "FORMAT MSG OUT --signer ID[:PROFILE[:PIN]] [--content FILE] [--certs]",
     "SsfAddSign: one more signer for a signed message (the content of a detached one from FILE)", add_sign,
     "--signer ID[:PROFILE[:PIN]]: looked up as for sign.\n"
     "--content FILE: the content of a detached message.\n"
     "--certs: the new signer's certificate goes into the message."});

const bool registered_verify = bvssf::add_command(
    {"verify", "FORMAT MSG [--content FILE] [--pab STORE] [--out FILE]",
     "SsfVerify: each signer's identifier, result, signing and time stamp times", verify,
     "--content FILE: the content of a detached message.\n"
     "--pab STORE: where signers' certificates missing from the message are looked up.\n"
     "--out FILE: the content the message carries is written there."});

const bool registered = bvssf::add_command(
    {"sign", "FORMAT IN OUT --signer ID[:PROFILE[:PIN]] ... [--detached] [--certs]",
     "SsfSign: PKCS7, PKCS7_ANY, CADES, PKCS7_CADES, RAW_GOST, RAW_GOST_INVERTED", sign,
     "--signer ID[:PROFILE[:PIN]]: once per signer.  ID is a certificate hash (hex digits, blanks\n"
     "allowed) or a DN whose items are all in the subject; PROFILE the store (empty: My of the user;\n"
     "a leading m: the machine's stores, u: the user's); PIN the key's.\n"
     "--detached: the message without its content.\n"
     "--certs: the signers' certificates go into the message.\n"
     "Nothing is written unless every signer was found."});
}  // namespace
