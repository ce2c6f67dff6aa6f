// SsfDigest through the shipped library, checked against published vectors
// and against tools nobody here wrote (openssl, gost12sum, gostsum).
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "host.h"

namespace bv::test {

namespace {

struct Digest {
  SSF_RC rc = 0;
  std::string output;
  uint32_t length = 12345;
  bool pointer_untouched = false;  // the output pointer is as the caller left it
};

unsigned char caller_sentinel;

// One SsfDigest call; a hash length below 0 stands for the name's own.
Digest ssf_digest(const std::string& format, const std::string& hash, const std::string& data, bool detached = false,
                  int32_t hash_length = -99, int32_t format_length = -99) {
  const SsfApi& api = SsfApi::get();
  unsigned char* block = &caller_sentinel;
  Digest d;
  d.rc = api.SsfDigest(format.data(), format_length == -99 ? static_cast<int32_t>(format.size()) : format_length,
                       detached ? 1 : 0, reinterpret_cast<const unsigned char*>(data.data()),
                       static_cast<int32_t>(data.size()), hash.data(),
                       hash_length == -99 ? static_cast<int32_t>(hash.size()) : hash_length, &block, &d.length);
  d.pointer_untouched = block == &caller_sentinel;
  if (d.rc == SSF_OK) {
    d.output.assign(reinterpret_cast<char*>(block), d.length);
    uint32_t length = d.length;
    api.SsfDELSsfOctetstring(&block, &length);
  }
  return d;
}

std::string tool_hex(const std::string& command) {
  int status = -1;
  std::string out = run_command(command + " 2>/dev/null", &status);
  EXPECT_EQ(status, 0) << command;
  return out.substr(0, out.find_first_of(" \n"));
}

std::string sample_bytes(size_t size) {
  std::string data(size, '\0');
  uint32_t x = 2463534242u;
  for (char& c : data) x ^= x << 13, x ^= x >> 17, x ^= x << 5, c = static_cast<char>(x);
  return data;
}

// The published vectors, one a line: NAME DIGEST hex:<bytes> | text:<text> | repeat:<count>:<text>.
TEST(DigestKnownAnswers, PublishedVectors) {
  std::ifstream in(BV_SOURCE_DIR "/tests/data/hash_vectors.txt");
  int vectors = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string hash, digest_hex, rest, message;
    fields >> hash >> digest_hex;
    std::getline(fields >> std::ws, rest);
    if (rest.rfind("hex:", 0) == 0) message = bytes_of_hex(rest.substr(4));
    if (rest.rfind("text:", 0) == 0) message = rest.substr(5);
    if (rest.rfind("repeat:", 0) == 0) {
      const size_t colon = rest.find(':', 7);
      for (size_t i = std::stoul(rest.substr(7, colon - 7)); i > 0; --i) message += rest.substr(colon + 1);
    }
    SCOPED_TRACE(hash + " of " + std::to_string(message.size()) + " bytes");
    const Digest d = ssf_digest("RAW_GOST", hash, message);
    ASSERT_EQ(d.rc, SSF_OK);
    EXPECT_EQ(hex_of(d.output), digest_hex);
    ++vectors;
  }
  EXPECT_GE(vectors, 20);
}

struct ToolHash {
  const char* name;
  const char* openssl_md;
  const char* sum_command;  // another implementation, if there is one
  bool sum_reversed;        // gostsum prints the value as a number
  const char* oid;
};

const ToolHash kToolHashes[] = {
    {"GOST2012-256", "md_gost12_256", "gost12sum", false, "1.2.643.7.1.1.2.2"},
    {"GOST2012-512", "md_gost12_512", "gost12sum -l", false, "1.2.643.7.1.1.2.3"},
    {"GOST3411", "md_gost94", "gostsum", true, "1.2.643.2.2.9"},
    {"SHA1", "sha1", "sha1sum", false, "1.3.14.3.2.26"},
    {"MD5", "md5", "md5sum", false, "1.2.840.113549.2.5"},
};

// The raw value against openssl and the sum tools; the messages verified by
// openssl, attached and detached, and byte for byte what it makes.
TEST(DigestCrossCheck, OpensslAndTheSumTools) {
  TempDir dir;
  const std::string data = sample_bytes(70000);  // long-form lengths of three octets
  const std::string content = dir / "content.bin";
  write_file(content, data);
  const std::string cms = "openssl cms -engine gost -binary ";
  for (const ToolHash& h : kToolHashes) {
    SCOPED_TRACE(h.name);
    const Digest raw = ssf_digest("RAW_GOST", h.name, data);
    ASSERT_EQ(raw.rc, SSF_OK);
    EXPECT_EQ(hex_of(raw.output), tool_hex(std::string("openssl dgst -engine gost -r -") + h.openssl_md + " " + content));
    std::string sum = bytes_of_hex(tool_hex(std::string(h.sum_command) + " " + content));
    if (h.sum_reversed) sum.assign(sum.rbegin(), sum.rend());
    EXPECT_EQ(hex_of(raw.output), hex_of(sum));

    const Digest attached = ssf_digest("PKCS7", h.name, data);
    const Digest detached = ssf_digest("CADES", h.name, data, true);
    ASSERT_EQ(attached.rc, SSF_OK);
    ASSERT_EQ(detached.rc, SSF_OK);
    write_file(dir / "attached.der", attached.output);
    write_file(dir / "detached.der", detached.output);
    run_checked(cms + "-digest_verify -inform DER -in " + dir / "attached.der" + " -out " + dir / "out.bin" + " 2>&1");
    EXPECT_TRUE(read_file(dir / "out.bin") == data);
    run_checked(cms + "-digest_verify -inform DER -in " + dir / "detached.der" + " -content " + content + " -out /dev/null 2>&1");
    const std::string printed = run_command(cms + "-cmsout -print -inform DER -in " + dir / "detached.der" + " 2>/dev/null");
    EXPECT_TRUE(contains(printed, std::string("(") + h.oid + ")")) << printed;
    EXPECT_TRUE(contains(printed, "eContent: <ABSENT>")) << printed;
    EXPECT_TRUE(attached.output == run_command(cms + "-digest_create -outform DER -md " + h.openssl_md + " -in " +
                                               content + " 2>/dev/null"))
        << "differs from openssl cms -digest_create";
  }
}

// Sizes around the steps of DER's length octets, for the content and for
// the structures around it; every message format gives the same message.
TEST(DigestCms, LengthOctetsAtEveryStepAndEveryFormat) {
  TempDir dir;
  for (size_t size : {1, 60, 80, 127, 128, 200, 255, 256, 300, 65535, 65536, 16777216}) {
    SCOPED_TRACE(size);
    const std::string data = sample_bytes(size);
    const Digest d = ssf_digest("PKCS7", "SHA1", data);
    ASSERT_EQ(d.rc, SSF_OK);
    write_file(dir / "content.bin", data);
    EXPECT_TRUE(d.output == run_command("openssl cms -digest_create -binary -outform DER -md sha1 -in " +
                                                  dir / "content.bin" + " 2>/dev/null"));
  }
  const std::string data = "the same content";
  const std::string pkcs7 = ssf_digest("PKCS7", "GOST2012-256", data).output;
  for (const char* format : {"CADES", "PKCS7_CADES", "PKCS7_ANY"}) EXPECT_EQ(ssf_digest(format, "GOST2012-256", data).output, pkcs7) << format;
  // On the raw paths the inversion and the detached flag change nothing.
  const std::string raw = ssf_digest("RAW_GOST", "SHA1", data).output;
  EXPECT_EQ(ssf_digest("RAW_GOST", "SHA1", data, true).output, raw);
  EXPECT_EQ(ssf_digest("RAW_GOST_INVERTED", "SHA1", data).output, raw);
}

// A name is compared over its own length only, so prefixes pick a row; the
// checks come in their order, and a refusal leaves the pointer alone.
TEST(DigestNames, PrefixesAndRefusals) {
  const std::string data = "prefix check";
  const std::string sha1 = ssf_digest("RAW_GOST", "SHA1", data).output;
  const std::string gost94 = ssf_digest("RAW_GOST", "GOST3411", data).output;
  const std::string gost256 = ssf_digest("RAW_GOST", "GOST2012-256", data).output;
  const std::string gost512 = ssf_digest("RAW_GOST", "GOST2012-512", data).output;
  const std::string md5 = ssf_digest("RAW_GOST", "MD5", data).output;
  ASSERT_EQ(sha1.size(), 20u);
  ASSERT_EQ(gost94.size(), 32u);
  ASSERT_EQ(gost512.size(), 64u);
  const std::string none;
  const struct {
    std::string format, hash;
    int32_t format_length, hash_length;
    SSF_RC rc;
    const std::string& expected;
    std::string data = "prefix check";
  } cases[] = {
      {"RAW_GOST", "S", 8, 1, SSF_OK, sha1},
      {"RAW_GOST", std::string("SHA1\0", 5), 8, 5, SSF_OK, sha1},  // the terminator inside the length still matches
      {"RAW_GOST", "SHA1x", 8, 5, SSF_ERR_HASHALG, none},
      {"RAW_GOST", "G", 8, 1, SSF_OK, gost94},
      {"RAW_GOST", "GOST-R-34.11-94", 8, 15, SSF_OK, gost94},
      {"RAW_GOST", "GOST2012", 8, 8, SSF_OK, gost256},
      {"RAW_GOST", "GOST-R-34.11-2", 8, 14, SSF_OK, gost256},
      {"RAW_GOST", "GOST-R-32", 8, 9, SSF_OK, gost512},
      {"RAW_GOST", "GOST-R-32.11-2012-512", 8, 21, SSF_OK, gost512},
      {"RAW_GOST", "GOST-R-34.11-2012-512", 8, 21, SSF_ERR_HASHALG, none},  // announced, yet refused
      {"RAW_GOST", "MD5", 8, 3, SSF_OK, md5},
      {"RAW_GOST", "sha1", 8, 4, SSF_ERR_HASHALG, none},
      {"PEM", "NOPE", 3, 4, SSF_ERR_FORMAT, none},  // bad format before bad hash
      {"RAW_GOST", "SHA1", 7, 4, SSF_ERR_FORMAT, none},  // raw name one byte short
      {"XML", "SHA1", 3, 4, SSF_ERR_FORMAT, none, ""},  // unknown format before empty data
      {"PKCS7", "NOPE", 5, 4, SSF_ERR_INPUT, none, ""},  // empty data before a bad hash
      {"PKCS7", "SHA1", 5, 0, SSF_ERR_HASHALG, none},
      {"RAW_GOST", "SHA1", 8, -1, SSF_ERR_HASHALG, none},
      {"PKCS7", "SHA256", 5, 6, SSF_ERR_HASHALG, none},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format + " " + c.hash + " " + std::to_string(c.hash_length));
    const Digest d = ssf_digest(c.format, c.hash, c.data, false, c.hash_length, c.format_length);
    ASSERT_EQ(d.rc, c.rc);
    EXPECT_EQ(d.output, c.expected);
    EXPECT_EQ(d.length, d.output.size());
    EXPECT_EQ(d.pointer_untouched, c.rc != SSF_OK);
  }
}

// Without the GOST engine no provider type exists.  A fresh process, since
// this one has the engine loaded already.
TEST(DigestFailures, ProviderThatCannotBeAcquired) {
  TempDir dir;
  write_file(dir / "in", "data");
  for (const char* format : {"RAW_GOST", "PKCS7"}) {
    SCOPED_TRACE(format);
    const std::string out = run_command("OPENSSL_ENGINES=" + dir.path() + " " BV_TOOLS_DIR "/bvssf digest " +
                                                  format + " SHA1 " + dir / "in" + " " + dir / "out");
    EXPECT_EQ(out, "SSF_ERR_INTERNAL (13)\n");
  }
}

// The lines of each path, from the core linked into this program.
TEST(DigestTrace, LinesOfSuccessAndFailurePaths) {
  using Lines = std::vector<std::string>;
  const std::string start = "****************#start#****************\n";
  const std::string failure = "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n";
  const std::string success = "++++++++++++++++#success#++++++++++++++++\n";
  const struct {
    const char* format;
    const char* hash;
    SSF_RC rc;
    Lines lines;
  } cases[] = {
      {"RAW_GOST", "SHA1", SSF_OK,
       {start, "#warn# Unknown format name ('RAW_GOST').\n", "#trace# Using hash alg = 1.3.14.3.2.26.\n", success}},
      {"PKCS7", "GOST2012-256", SSF_OK, {start, "#trace# Using hash alg = 1.2.643.7.1.1.2.2.\n", success}},
      // The one failure without a banner.
      {"CADES", "SHA256", SSF_ERR_HASHALG, {start, "#error#: Invalid HashAlg name\n"}},
      {"RAW_GOST", "MD2", SSF_ERR_ENCODE,
       {start, "#warn# Unknown format name ('RAW_GOST').\n", "#trace# Using hash alg = 1.2.840.113549.2.2.\n",
        "#error# CryptCreateHash for algid = 32769  FAILED.\n", "#error#: 80090008\n",
        "Invalid algorithm specified.\r\n", failure}},
      {"PKCS7", "MD2", SSF_ERR_ENCODE,
       {start, "#trace# Using hash alg = 1.2.840.113549.2.2.\n", "#error#: 80090008\n",
        "Invalid algorithm specified.\r\n", failure}},
      {"XML", "SHA1", SSF_ERR_FORMAT, {start, "#warn# Unknown format name ('XML').\n", failure}},
  };
  CoreTrace trace;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.format) + " " + c.hash);
    trace.clear();
    unsigned char* out = nullptr;
    uint32_t length = 0;
    const SSF_RC rc =
        SsfDigest(c.format, static_cast<int32_t>(std::strlen(c.format)), 0, reinterpret_cast<const unsigned char*>("x"),
                  1, c.hash, static_cast<int32_t>(std::strlen(c.hash)), &out, &length);
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(trace.messages(), c.lines) << trace.dump();
    if (rc == SSF_OK) SsfDELSsfOctetstring(&out, &length);
  }
}

}  // namespace

}  // namespace bv::test
