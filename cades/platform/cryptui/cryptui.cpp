#include "cryptui/cryptui.h"

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "crypt32/store.h"
#include "kernel32/hex.h"
#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"
#include "openssl/ossl.h"
#include "terminal/terminal.h"

namespace {

constexpr int kTerminalAttempts = 3;

// One line of the list, with the context it stands for.
struct Choice {
  PCCERT_CONTEXT context = nullptr;
  std::string hash;  // 40 upper-case hexadecimal digits
  std::string subject, issuer, not_before, not_after;
};

// Owns the contexts of the list.
struct Choices {
  std::vector<Choice> items;
  ~Choices() {
    for (const Choice& choice : items) CertFreeCertificateContext(choice.context);
  }
};

// A name as people read it (common name first, UTF-8), on one line.
std::string name_text(const X509_NAME* name) {
  bv::ossl::UniquePtr<BIO> bio(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(bio.get(), name, 0, (XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB & ~XN_FLAG_SEP_MASK) | XN_FLAG_SEP_CPLUS_SPC);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  std::string text(data, static_cast<size_t>(length > 0 ? length : 0));
  for (char& c : text)
    if (c == '\t' || c == '\n' || c == '\r') c = ' ';
  return text;
}

std::string date_text(const ASN1_TIME* time) {
  tm parts{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return "?";
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
  return text;
}

bool describe(PCCERT_CONTEXT context, Choice& choice) {
  X509* cert = bv::platform::certificate_x509(context);
  BYTE hash[20];
  DWORD hash_size = sizeof hash;
  if (cert == nullptr || !CertGetCertificateContextProperty(context, CERT_HASH_PROP_ID, hash, &hash_size)) return false;
  choice.hash = bv::platform::hex_text(hash, hash_size, bv::platform::HexLetters::kUpper);
  choice.subject = name_text(X509_get_subject_name(cert));
  choice.issuer = name_text(X509_get_issuer_name(cert));
  choice.not_before = date_text(X509_get0_notBefore(cert));
  choice.not_after = date_text(X509_get0_notAfter(cert));
  return true;
}

std::string trimmed(const std::string& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && isspace_l(static_cast<unsigned char>(text[begin]), bv::platform::ansi_locale())) ++begin;
  while (end > begin && isspace_l(static_cast<unsigned char>(text[end - 1]), bv::platform::ansi_locale())) --end;
  return text.substr(begin, end - begin);
}

// The index an answer names: a number from 1, or a SHA-1 hash in
// hexadecimal (blanks allowed, any case).  -1 if it names none.
int chosen_index(const std::string& raw, const std::vector<Choice>& items) {
  const std::string answer = trimmed(raw);
  if (answer.empty()) return -1;
  if (answer.size() <= 6 && answer.find_first_not_of("0123456789") == std::string::npos) {
    const int number = static_cast<int>(strtol_l(answer.c_str(), nullptr, 10, bv::platform::ansi_locale()));
    return number >= 1 && static_cast<size_t>(number) <= items.size() ? number - 1 : -1;
  }
  std::string hex;
  for (char c : answer)
    if (c != ' ') hex += static_cast<char>(toupper_l(static_cast<unsigned char>(c), bv::platform::ansi_locale()));
  for (size_t i = 0; i < items.size(); ++i)
    if (items[i].hash == hex) return static_cast<int>(i);
  return -1;
}

std::string terminal_list(const std::string& title, const std::string& text, const std::vector<Choice>& items,
                          DWORD hidden_columns) {
  std::string out = "\n" + (title.empty() ? std::string("Select a certificate") : title) + "\n";
  if (!text.empty()) out += text + "\n";
  out += "\n";
  for (size_t i = 0; i < items.size(); ++i) {
    const Choice& c = items[i];
    const std::string number = std::to_string(i + 1) + ") ";
    const std::string indent(number.size() + 2, ' ');
    out += "  " + number;
    out += (hidden_columns & CRYPTUI_SELECT_ISSUEDTO_COLUMN) == 0 ? c.subject + "\n" : "\n";
    if ((hidden_columns & CRYPTUI_SELECT_ISSUEDBY_COLUMN) == 0) out += indent + "Issuer: " + c.issuer + "\n";
    if ((hidden_columns & CRYPTUI_SELECT_EXPIRATION_COLUMN) == 0)
      out += indent + "Valid:  " + c.not_before + " to " + c.not_after + "\n";
    out += indent + "SHA-1:  " + c.hash + "\n";
  }
  return out;
}

// number, hash, subject, issuer, valid from, valid to: one certificate a line.
std::string program_list(const std::vector<Choice>& items) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    const Choice& c = items[i];
    out += std::to_string(i + 1) + "\t" + c.hash + "\t" + c.subject + "\t" + c.issuer + "\t" + c.not_before + "\t" +
           c.not_after + "\n";
  }
  return out;
}

}  // namespace

PCCERT_CONTEXT CryptUIDlgSelectCertificateFromStore(HCERTSTORE hCertStore, HWND /*hwnd*/, LPCWSTR pwszTitle,
                                                    LPCWSTR pwszDisplayString, DWORD dwDontUseColumn,
                                                    DWORD /*dwFlags*/, void* /*pvReserved*/) {
  // 1. The list, in the store's order.
  Choices choices;
  for (PCCERT_CONTEXT context = CertEnumCertificatesInStore(hCertStore, nullptr); context != nullptr;
       context = CertEnumCertificatesInStore(hCertStore, context)) {
    Choice choice;
    if (!describe(context, choice)) continue;
    choice.context = CertDuplicateCertificateContext(context);
    choices.items.push_back(std::move(choice));
  }
  if (choices.items.empty()) {
    SetLastError(CRYPT_E_NOT_FOUND);
    return nullptr;
  }
  const std::string title = bv::platform::utf8_of(pwszTitle);
  const std::string text = bv::platform::utf8_of(pwszDisplayString);

  // 2. The user at the terminal.
  int index = -1;
  if (auto terminal = bv::platform::Terminal::open()) {
    terminal->write(terminal_list(title, text, choices.items, dwDontUseColumn));
    for (int attempt = 0; attempt < kTerminalAttempts && index < 0; ++attempt) {
      std::string answer;
      if (!terminal->read_line("Number of the certificate (Enter to cancel): ", /*secret=*/false, answer) ||
          trimmed(answer).empty())
        break;
      index = chosen_index(answer, choices.items);
      if (index < 0) terminal->write("There is no certificate \"" + trimmed(answer) + "\".\n");
    }
    if (index < 0) {
      SetLastError(ERROR_CANCELLED);
      return nullptr;
    }
    return CertDuplicateCertificateContext(choices.items[static_cast<size_t>(index)].context);
  }

  // 3. The administrator's program.
  const char* program = std::getenv("BV_PLATFORM_SELECT");
  if (program == nullptr || *program == '\0') {
    SetLastError(ERROR_CANCELLED);
    return nullptr;
  }
  std::string answer;
  if (!bv::platform::run_helper_program(program, title.empty() ? "Select a certificate" : title,
                                        program_list(choices.items), answer))
    return nullptr;  // the last error says why
  const std::string first_line = answer.substr(0, answer.find('\n'));
  if (trimmed(first_line).empty()) {
    SetLastError(ERROR_CANCELLED);
    return nullptr;
  }
  index = chosen_index(first_line, choices.items);
  if (index < 0) {
    SetLastError(ERROR_INVALID_DATA);
    return nullptr;
  }
  return CertDuplicateCertificateContext(choices.items[static_cast<size_t>(index)].context);
}
