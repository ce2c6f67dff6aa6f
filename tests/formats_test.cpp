// Format, hash and encryption names, the conversion pair that accepts every
// format name, the bare signature ones included, and identity texts: hash
// forms, DN keys and values, the escape sequence.  And SsfDigest through the
// shipped library, checked against published vectors and against tools
// nobody here wrote (openssl, gost12sum, gostsum).
#include "identity/names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "host.h"
#include "identity/identity.h"

namespace bv::test {

namespace {

const std::string kStart = "****************#start#****************\n";
const std::string kFailure = "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n";

// The message formats by check_ssf_format, the bare signature names by
// raw_gost_format: both by exact name and length.
TEST(CheckSsfFormat, ExactNamesAndTheTwoWarnings) {
  const std::string long_name(256, 'Z'), too_long(257, 'P');
  const std::string unknown = "#warn# Unknown format name ('", bad_length = "#warn# Invalid format name lnegth (";
  const struct {
    const char* text;
    int32_t length;
    int rc;
    unsigned char is_cades, raw;
    std::string warning;  // the one line check_ssf_format leaves, if any
  } cases[] = {
      {"PKCS7", 5, 0, 0, 0, ""},
      {"CADES", 5, 0, 1, 0, ""},
      {"PKCS7_CADES", 11, 0, 1, 0, ""},
      {"PKCS7_ANY", 9, 0, 0, 0, ""},
      {"cades", 5, 2, 0, 0, unknown + "cades').\n"},
      {"CADES", 3, 2, 0, 0, unknown + "CAD').\n"},
      {"RAW_GOST", 8, 2, 0, 1, unknown + "RAW_GOST').\n"},
      {"RAW_GOST_INVERTED", 17, 2, 0, 2, unknown + "RAW_GOST_INVERTED').\n"},
      {"RAW_GOST_INVERTED", 8, 2, 0, 1, unknown + "RAW_GOST').\n"},
      {"RAW_GOST_INVERTE", 16, 2, 0, 0, unknown + "RAW_GOST_INVERTE').\n"},
      {"raw_gost", 8, 2, 0, 0, unknown + "raw_gost').\n"},
      {"PKCS7", 0, 2, 0, 0, bad_length + "0)\n"},
      {nullptr, 5, 2, 0, 0, unknown + "').\n"},
      {"PKCS7", -3, 2, 0, 0, bad_length + "-3)\n"},
      {long_name.c_str(), 256, 2, 0, 0, unknown + long_name + "').\n"},  // 256 is still a length
      {too_long.c_str(), 257, 2, 0, 0, bad_length + "257)\n"},
  };
  CoreTrace trace;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text ? c.text : "(null)").substr(0, 20) + "/" + std::to_string(c.length));
    trace.clear();
    unsigned char is_cades = 7;
    EXPECT_EQ(check_ssf_format(c.text, c.length, &is_cades), c.rc);
    EXPECT_EQ(is_cades, c.is_cades);
    EXPECT_EQ(trace.messages(), c.warning.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.warning})
        << trace.dump();
    EXPECT_EQ(raw_gost_format(c.text, c.length), c.raw);
  }
}

// SsfEncode and SsfDecode through the loaded library.
using Convert = decltype(&::SsfEncode);

TEST(EncodeDecode, CopyUnderEveryAcceptedFormat) {
  const struct {
    const char* name;
    const char* format;
    int32_t format_length;
    const char* input;
    int32_t input_length;
    SSF_RC rc;
  } cases[] = {
      {"PKCS7, three bytes", "PKCS7", 5, "a\0c", 3, SSF_OK},
      {"RAW_GOST", "RAW_GOST", 8, "1234", 4, SSF_OK},
      {"RAW_GOST_INVERTED", "RAW_GOST_INVERTED", 17, "1234", 4, SSF_OK},
      {"RAW_GOS is no name", "RAW_GOST", 7, "1234", 4, SSF_ERR_FORMAT},
      {"the format is checked before the input", "NOPE", 4, "", 0, SSF_ERR_FORMAT},
      {"format length 257", "PKCS7", 257, "x", 1, SSF_ERR_FORMAT},
      {"empty input", "PKCS7", 5, "", 0, SSF_ERR_INPUT},
      {"negative input length", "PKCS7", 5, "x", -1, SSF_ERR_INPUT},
  };
  run_traced([&] {
    const SsfApi& api = SsfApi::get();
    const std::string padded_format = std::string("PKCS7") + std::string(300, '\0');
    for (const Convert convert : {api.SsfEncode, api.SsfDecode}) {
      for (const auto& c : cases) {
        SCOPED_TRACE(std::string(convert == api.SsfEncode ? "SsfEncode: " : "SsfDecode: ") + c.name);
        const char* format = c.format_length == 257 ? padded_format.c_str() : c.format;
        unsigned char sentinel = 0;
        unsigned char* output = &sentinel;
        uint32_t length = 99;
        EXPECT_EQ(convert(format, c.format_length, reinterpret_cast<const unsigned char*>(c.input), c.input_length,
                          &output, &length),
                  c.rc);
        if (c.rc != SSF_OK) {
          // Only the length has been cleared; no block was made.
          EXPECT_EQ(output, &sentinel);
          EXPECT_EQ(length, 0u);
          continue;
        }
        ASSERT_NE(output, &sentinel);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(output), length), std::string(c.input, c.input_length));
        EXPECT_NE(reinterpret_cast<const char*>(output), c.input);
        api.SsfDELSsfOctetstring(&output, &length);
      }
    }
  });
}

TEST(HashIdentity, FormsAndStops) {
  const struct {
    std::string text;
    bool is_hash;
    DWORD count;  // 777: the caller's count is left as it was
    std::vector<BYTE> bytes;
  } cases[] = {
      {"A1B2C3", true, 3, {0xA1, 0xB2, 0xC3}},
      {"  a1\tB2\n c3  ", true, 3, {0xA1, 0xB2, 0xC3}},
      {"\t\t\t", true, 0, {}},
      {"A1B", true, 777, {}},     // odd digit: both passes stop on it
      {"A 1B2", true, 777, {}},   // blank inside a pair
      {"CN=Test", false, 777, {}},
      {"$SELECT_CERTIFICATE$", false, 777, {}},
      {"a1\xC0", false, 777, {}},  // byte above 127 is neither digit nor space
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto length = static_cast<int32_t>(c.text.size());
    EXPECT_EQ(is_hash_id(c.text.data(), length), c.is_hash);
    DWORD count = 777;
    std::vector<BYTE> got(64, 0xEE);
    parse_hex_string(c.text.data(), length, got.data(), static_cast<DWORD>(got.size()), &count);
    EXPECT_EQ(count, c.count);
    if (c.count != 777) { EXPECT_EQ(std::vector<BYTE>(got.begin(), got.begin() + count), c.bytes); }
  }
}

// Values, quotes, commas and blanks; the escape sequence and code page 1251.
TEST(DnIdentity, ReadAsTheTableSays) {
  const struct {
    std::string text;
    int32_t rc;
    std::vector<std::string> items;
  } cases[] = {
      {"  ,  ", 0, {}},
      {"CN = Ivan ,O= Bank", 0, {"2.5.4.3=Ivan", "2.5.4.10=Bank"}},
      {"CN=Ivan  ", 0, {"2.5.4.3=Ivan  "}},  // blanks at the very end stay
      {"O=\"Roga, Kopyta\", C=RU", 0, {"2.5.4.10=Roga, Kopyta", "2.5.4.6=RU"}},
      {"O=Roga, Kopyta=1", 0, {"2.5.4.10=Roga", "Kopyta=1"}},
      {"O=\"say \\\"hi\\\"\"", 0, {"2.5.4.10=say hi"}},
      {"O=\"a\"\"b\"", 0, {"2.5.4.10=ab"}},
      {"O=\"open, end", 0, {"2.5.4.10=open, end"}},  // closing quote missing
      {"O=a\\,b", -1, {"2.5.4.10=a\\"}},               // no escape in a plain value
      {"CN=a;O=b+L=c", 0, {"2.5.4.3=a;O=b+L=c"}},
      {"CN=,", 0, {"2.5.4.3=,"}},                     // first byte taken as it is
      {"CN=a, =x", -1, {"2.5.4.3=a"}},
      {"CN=a, Ivan", -1, {"2.5.4.3=a"}},
      {"CN=a, O=", 24, {"2.5.4.3=a"}},
      {"CN=  ", 24, {}},
      // the subject as the certificate service renders it, terminator counted
      {std::string("2.5.4.3=Ivan, 2.5.4.6=RU\0", 25), 0, {"2.5.4.3=Ivan", "2.5.4.6=RU"}},
      {"CN=\\u0041BC", 0, {"2.5.4.3=ABC"}},
      {"CN=\\u0418\\u0432\\u0430\\u043d", 0, {"2.5.4.3=\xC8\xE2\xE0\xED"}},
      {"CN=a\\u12", 0, {"2.5.4.3=a"}},          // fewer than four bytes: the walk ends
      {"CN=a\\x\\u0042", 0, {"2.5.4.3=a\\xB"}},  // lone backslash kept
      {"CN=\xC8\xE2\xE0\xED \\u0041", 0, {"2.5.4.3=\xC8\xE2\xE0\xED \\u0041"}},  // byte above 127: untouched
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    RdnList rdns;
    EXPECT_EQ(parse_dn_string(c.text.data(), static_cast<int32_t>(c.text.size()), rdns), c.rc);
    EXPECT_EQ(std::vector<std::string>(rdns.begin(), rdns.end()), c.items);
  }
}

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

// The raw value against openssl and the sum tools; the messages verified by
// openssl, attached and detached, and byte for byte what it makes.
TEST(DigestCrossCheck, OpensslAndTheSumTools) {
  const struct {
    const char* name;
    const char* openssl_md;
    const char* sum_command;  // another implementation
    bool sum_reversed;        // gostsum prints the value as a number
    const char* oid;
  } hashes[] = {
      {"GOST2012-256", "md_gost12_256", "gost12sum", false, "1.2.643.7.1.1.2.2"},
      {"GOST2012-512", "md_gost12_512", "gost12sum -l", false, "1.2.643.7.1.1.2.3"},
      {"GOST3411", "md_gost94", "gostsum", true, "1.2.643.2.2.9"},
      {"SHA1", "sha1", "sha1sum", false, "1.3.14.3.2.26"},
      {"MD5", "md5", "md5sum", false, "1.2.840.113549.2.5"},
  };
  TempDir dir;
  const std::string data = sample_bytes(70000);  // long-form lengths of three octets
  const std::string content = dir / "content.bin";
  write_file(content, data);
  const std::string cms = "openssl cms -engine gost -binary ";
  for (const auto& h : hashes) {
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
      {"RAW_GOST", "GOST2012", 8, 8, SSF_OK, gost256},
      {"RAW_GOST", "GOST-R-34.11-2", 8, 14, SSF_OK, gost256},
      {"RAW_GOST", "GOST-R-32", 8, 9, SSF_OK, gost512},
      {"RAW_GOST", "GOST-R-34.11-2012-512", 8, 21, SSF_ERR_HASHALG, none},  // announced, yet refused
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

// The lines of each path, from the core linked into this program.  Only
// SsfEncode takes a null length pointer.
TEST(OperationTrace, LinesOfSuccessAndFailurePaths) {
  using Lines = std::vector<std::string>;
  const std::string success = "++++++++++++++++#success#++++++++++++++++\n";
  const std::string raw_warning = "#warn# Unknown format name ('RAW_GOST').\n";
  const unsigned char input[] = {7};
  unsigned char* output = nullptr;
  uint32_t length = 0;
  const auto convert = [&](Convert operation, const char* format, int32_t input_length, uint32_t* out_length) {
    return [=, &input, &output] {
      return operation(format, static_cast<int32_t>(std::strlen(format)), input, input_length, &output, out_length);
    };
  };
  const auto digest = [&](const char* format, const char* hash) {
    return [=, &input, &output, &length] {
      return SsfDigest(format, static_cast<int32_t>(std::strlen(format)), 0, input, 1, hash,
                       static_cast<int32_t>(std::strlen(hash)), &output, &length);
    };
  };
  const struct {
    std::function<SSF_RC()> call;
    SSF_RC rc;
    Lines lines;
  } cases[] = {
      {convert(SsfDecode, "PKCS7", 0, &length), SSF_ERR_INPUT, {kStart, "#error#: ostrEncodedDataL <= 0\n", kFailure}},
      {convert(SsfEncode, "PKCS7", 0, &length), SSF_ERR_INPUT, {kStart, "#error#: ostrInputDataL <= 0\n", kFailure}},
      {convert(SsfEncode, "BAD", 1, &length), SSF_ERR_FORMAT, {kStart, "#warn# Unknown format name ('BAD').\n", kFailure}},
      {convert(SsfDecode, "PKCS7", 1, nullptr), SSF_ERR_INPUT, {kStart, "#error#: null length pointer\n", kFailure}},
      {convert(SsfEncode, "PKCS7", 1, nullptr), SSF_OK, {kStart, success}},
      {digest("RAW_GOST", "SHA1"), SSF_OK, {kStart, raw_warning, "#trace# Using hash alg = 1.3.14.3.2.26.\n", success}},
      {digest("PKCS7", "GOST2012-256"), SSF_OK, {kStart, "#trace# Using hash alg = 1.2.643.7.1.1.2.2.\n", success}},
      // The one failure without a banner.
      {digest("CADES", "SHA256"), SSF_ERR_HASHALG, {kStart, "#error#: Invalid HashAlg name\n"}},
      {digest("RAW_GOST", "MD2"), SSF_ERR_ENCODE,
       {kStart, raw_warning, "#trace# Using hash alg = 1.2.840.113549.2.2.\n",
        "#error# CryptCreateHash for algid = 32769  FAILED.\n", "#error#: 80090008\n", "Invalid algorithm specified.\r\n",
        kFailure}},
      {digest("PKCS7", "MD2"), SSF_ERR_ENCODE,
       {kStart, "#trace# Using hash alg = 1.2.840.113549.2.2.\n", "#error#: 80090008\n",
        "Invalid algorithm specified.\r\n", kFailure}},
      {digest("XML", "SHA1"), SSF_ERR_FORMAT, {kStart, "#warn# Unknown format name ('XML').\n", kFailure}},
  };
  CoreTrace trace;
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    trace.clear();
    EXPECT_EQ(cases[i].call(), cases[i].rc);
    EXPECT_EQ(trace.messages(), cases[i].lines) << trace.dump();
    if (cases[i].rc == SSF_OK) SsfDELSsfOctetstring(&output, &length);
  }
}

}  // namespace

}  // namespace bv::test
