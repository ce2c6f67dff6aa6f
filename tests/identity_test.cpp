// Identity texts: hash forms, DN keys and values, the escape sequence.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "identity/identity.h"

namespace {

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

void check_dn(const DnCase& c) {
  SCOPED_TRACE(c.text);
  RdnList rdns;
  EXPECT_EQ(parse_dn_string(c.text.data(), static_cast<int32_t>(c.text.size()), rdns), c.rc);
  EXPECT_EQ(std::vector<std::string>(rdns.begin(), rdns.end()), c.items);
}

TEST(DnIdentity, ValuesQuotesCommasBlanks) {
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
  };
  for (const auto& c : cases) check_dn(c);
}

TEST(DnIdentity, EscapeSequenceAndCodePage1251) {
  const std::vector<DnCase> cases = {
      {"CN=\\u0041BC", 0, {"2.5.4.3=ABC"}},
      {"CN=\\u0418\\u0432\\u0430\\u043d", 0, {"2.5.4.3=\xC8\xE2\xE0\xED"}},
      {"CN=a\\u12", 0, {"2.5.4.3=a"}},          // fewer than four bytes: the walk ends
      {"CN=a\\x\\u0042", 0, {"2.5.4.3=a\\xB"}},  // lone backslash kept
      {"CN=\xC8\xE2\xE0\xED \\u0041", 0, {"2.5.4.3=\xC8\xE2\xE0\xED \\u0041"}},  // byte above 127: untouched
      {"CN=\xC8\xE2\xE0\xED", 0, {"2.5.4.3=\xC8\xE2\xE0\xED"}},
  };
  for (const auto& c : cases) check_dn(c);
}

}  // namespace
