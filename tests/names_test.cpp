// Format, hash and encryption names, the conversion pair that accepts every
// format name, the bare signature ones included, and identity texts: hash
// forms, DN keys and values, the escape sequence.
#include "identity/names.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host.h"
#include "identity/identity.h"

namespace bv::test {

namespace {

const std::string kStart = "****************#start#****************\n";
const std::string kFailure = "!!!!!!!!!!!!!!!!#error#!!!!!!!!!!!!!!!!\n";

TEST(CheckSsfFormat, ExactNamesAndTheTwoWarnings) {
  const std::string long_name(256, 'Z'), too_long(257, 'P');
  const std::string unknown = "#warn# Unknown format name ('", bad_length = "#warn# Invalid format name lnegth (";
  const struct {
    const char* text;
    int32_t length;
    int rc;
    unsigned char is_cades;
    std::string warning;  // the one line check_ssf_format leaves, if any
  } cases[] = {
      {"PKCS7", 5, 0, 0, ""},
      {"CADES", 5, 0, 1, ""},
      {"PKCS7_CADES", 11, 0, 1, ""},
      {"PKCS7_ANY", 9, 0, 0, ""},
      {"cades", 5, 2, 0, unknown + "cades').\n"},
      {"CADES", 3, 2, 0, unknown + "CAD').\n"},
      {"RAW_GOST", 8, 2, 0, unknown + "RAW_GOST').\n"},
      {"PKCS7", 0, 2, 0, bad_length + "0)\n"},
      {nullptr, 0, 2, 0, bad_length + "0)\n"},
      {nullptr, 5, 2, 0, unknown + "').\n"},
      {"PKCS7", -3, 2, 0, bad_length + "-3)\n"},
      {long_name.c_str(), 256, 2, 0, unknown + long_name + "').\n"},  // 256 is still a length
      {too_long.c_str(), 257, 2, 0, bad_length + "257)\n"},
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
  }
}

TEST(RawGostFormat, NeedsTheExactLength) {
  const struct {
    const char* text;
    int32_t length;
    unsigned char value;
  } cases[] = {
      {"RAW_GOST", 8, 1},          {"RAW_GOST_INVERTED", 17, 2}, {"RAW_GOS", 7, 0}, {"RAW_GOST_INVERTED", 8, 1},
      {"RAW_GOST_INVERTE", 16, 0}, {"raw_gost", 8, 0},           {nullptr, 8, 0},   {nullptr, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.length));
    EXPECT_EQ(raw_gost_format(c.text, c.length), c.value);
  }
}

// SsfEncode and SsfDecode through the loaded library.
using Convert = decltype(&::SsfEncode);

struct ConvertCase {
  const char* name;
  const char* format;
  int32_t format_length;
  const char* input;
  int32_t input_length;
  SSF_RC rc;
};

TEST(EncodeDecode, CopyUnderEveryAcceptedFormat) {
  const ConvertCase cases[] = {
      {"PKCS7, three bytes", "PKCS7", 5, "a\0c", 3, SSF_OK},
      {"RAW_GOST", "RAW_GOST", 8, "1234", 4, SSF_OK},
      {"RAW_GOST_INVERTED", "RAW_GOST_INVERTED", 17, "1234", 4, SSF_OK},
      {"RAW_GOS is no name", "RAW_GOST", 7, "1234", 4, SSF_ERR_FORMAT},
      {"the format is checked before the input", "NOPE", 4, "", 0, SSF_ERR_FORMAT},
      {"format length 257", "PKCS7", 257, "x", 1, SSF_ERR_FORMAT},
      {"empty input", "PKCS7", 5, "", 0, SSF_ERR_INPUT},
      {"negative input length", "PKCS7", 5, "x", -1, SSF_ERR_INPUT},
      {"no input bytes", "PKCS7", 5, nullptr, 4, SSF_ERR_INPUT},
  };
  run_traced([&] {
    const SsfApi& api = SsfApi::get();
    const std::string padded_format = std::string("PKCS7") + std::string(300, '\0');
    for (const Convert convert : {api.SsfEncode, api.SsfDecode}) {
      for (const ConvertCase& c : cases) {
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

TEST(EncodeDecode, OnlyEncodeAllowsANullLengthPointer) {
  std::string log;
  run_traced(
      [] {
        const SsfApi& api = SsfApi::get();
        const unsigned char input[] = {1, 2, 3};
        unsigned char* output = nullptr;
        ASSERT_EQ(api.SsfEncode("PKCS7", 5, input, 3, &output, nullptr), SSF_OK);
        ASSERT_NE(output, nullptr);
        EXPECT_EQ(std::memcmp(output, input, 3), 0);
        std::free(output);

        output = nullptr;
        EXPECT_EQ(api.SsfDecode("PKCS7", 5, input, 3, &output, nullptr), SSF_ERR_INPUT);
        EXPECT_EQ(output, nullptr);
      },
      &log);
  const auto lines = log_messages(log);
  ASSERT_GE(lines.size(), 3u) << log;
  EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
            (std::vector<std::string>{kStart, "#error#: null length pointer\n", kFailure}));
}

TEST(EncodeDecode, RefusalsNameTheirCause) {
  CoreTrace trace;
  const unsigned char input[] = {7};
  unsigned char* output = nullptr;
  uint32_t length = 0;
  const struct {
    Convert convert;
    const char* format;
    int32_t format_length;
    int32_t input_length;
    const char* cause;
  } cases[] = {
      {SsfDecode, "PKCS7", 5, 0, "#error#: ostrEncodedDataL <= 0\n"},
      {SsfEncode, "PKCS7", 5, 0, "#error#: ostrInputDataL <= 0\n"},
      {SsfEncode, "BAD", 3, 1, "#warn# Unknown format name ('BAD').\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cause);
    trace.clear();
    EXPECT_NE(c.convert(c.format, c.format_length, input, c.input_length, &output, &length), SSF_OK);
    EXPECT_EQ(trace.messages(), (std::vector<std::string>{kStart, c.cause, kFailure}));
  }
}

std::vector<BYTE> bytes_of(const std::string& hex_text, DWORD initial_count, DWORD* count_out) {
  DWORD count = initial_count;
  std::vector<BYTE> out(64, 0xEE);
  parse_hex_string(hex_text.data(), static_cast<int32_t>(hex_text.size()), out.data(), static_cast<DWORD>(out.size()),
                   &count);
  *count_out = count;
  out.resize(count < out.size() ? count : out.size());
  return out;
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
    EXPECT_EQ(is_hash_id(c.text.data(), static_cast<int32_t>(c.text.size())), c.is_hash);
    DWORD count = 0;
    const auto got = bytes_of(c.text, 777, &count);
    EXPECT_EQ(count, c.count);
    if (c.count != 777) {
      EXPECT_EQ(got, c.bytes);
    }
  }
}

struct DnCase {
  std::string text;
  int32_t rc;
  std::vector<std::string> items;
};

// Values, quotes, commas and blanks; the escape sequence and code page 1251.
TEST(DnIdentity, ReadAsTheTableSays) {
  const std::vector<DnCase> cases = {
      {"", 0, {}},
      {"  ,  ", 0, {}},
      {"CN=Ivan, O=Bank", 0, {"2.5.4.3=Ivan", "2.5.4.10=Bank"}},
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
      {"=x", -1, {}},
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
      {"CN=\xC8\xE2\xE0\xED", 0, {"2.5.4.3=\xC8\xE2\xE0\xED"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    RdnList rdns;
    EXPECT_EQ(parse_dn_string(c.text.data(), static_cast<int32_t>(c.text.size()), rdns), c.rc);
    EXPECT_EQ(std::vector<std::string>(rdns.begin(), rdns.end()), c.items);
  }
}

}  // namespace

}  // namespace bv::test
