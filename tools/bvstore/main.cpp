// bvstore: create, list, fill and empty the certificate stores that the
// library reads, and build a demonstration PKI.
#include <dirent.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/pkcs12.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "bvstore.h"
#include "crypt32/keys.h"
#include "crypt32/store.h"
#include "kernel32/files.h"
#include "kernel32/hex.h"
#include "secrets.h"

namespace bvstore {
namespace {

const bv::cli::Help kHelp{
    "bvstore",
    {"COMMAND [-m] [ARGUMENTS]", "help [COMMAND] | --help | --version"},
    "Creates, lists, fills and empties the certificate stores and key files the library reads.",
    "Stores are folders of certificate files (docs/stores-and-keys.md of the installed documentation);\n"
    "a certificate's key is a key file beside it.  A store is made by create only: every other\n"
    "command refuses a store that does not exist and names the closest one that does.\n"
    "\n"
    "SOURCE, for each password and PIN, is pass:TEXT, env:VAR, file:PATH (its first line), fd:N (a\n"
    "line from that descriptor), stdin (a line of standard input) or, without a prefix, the text\n"
    "itself.  Without the option, it is asked on the terminal with echo off when standard input is\n"
    "one.  HASH is 40 hexadecimal digits, in either case, with blanks or colons between them or not.",
    {{"Commands",
      {{"create [-m] STORE", "Creates the store's folder and prints it."},
       {"list [-m] [STORE]",
        "Without STORE, the stores of the location; with it, each certificate: hash (its SSF identity),\n"
        "subject, validity, [key] when it has a key file, issuer; then each CRL: issuer, this update,\n"
        "next update and how many certificates it revokes."},
       {"import [-m] STORE FILE [--key KEYFILE] [--password SOURCE] [--pin SOURCE | --no-pin] [--chain]",
        "Puts a certificate or a CRL into STORE.  FILE is a certificate or a CRL (PEM or DER, - for\n"
        "standard input) or a PKCS #12 file.  The key (from the PKCS #12 file, a PEM FILE holding both, or\n"
        "KEYFILE) is stored beside the certificate, encrypted under the PIN; --no-pin stores it without\n"
        "one.  A CRL replaces the older CRLs of its issuer in STORE.  The CA certificates of a PKCS #12\n"
        "file go, with --chain, into CA (intermediates) and Root (self-signed) of the same location;\n"
        "without it they are named on standard error and left out."},
       {"hash FILE", "The certificate's hash, as list shows it and as an SSF identity takes it."},
       {"settings",
        "The settings the library reads in this environment, each with its value and source\n"
        "(environment, which ssf.ini, default), the store folders, the trace setting and log file,\n"
        "the default time stamp service; warnings for unknown keys and for values read otherwise\n"
        "than they may look."},
       {"check ID[:PROFILE[:PIN]]",
        "Runs the library's search for that signer with its settings: the profile's store, every\n"
        "certificate the identity names, each one's chain with its status bits in words, its key\n"
        "file and, given a PIN, whether the key opens.  Exit 0 when a certificate would sign."},
       {"delete [-m] STORE HASH [--yes]",
        "Removes the certificate with that hash.  When it has a key file, that goes too: asked on the\n"
        "terminal, else only with --yes."},
       {"export [-m] STORE HASH OUT [--pin SOURCE] [--password SOURCE]",
        "Writes the certificate and its key to the PKCS #12 file OUT (mode 0600, - for standard output),\n"
        "encrypted under the password with GOST 28147-89 and a GOST R 34.11-2012 MAC (AES-256 and SHA-256\n"
        "where the GOST engine lacks them).  --pin opens the stored key."},
       {"pin [-m] STORE HASH [--pin SOURCE] [--new-pin SOURCE | --no-pin]",
        "Changes the PIN of the certificate's key file: --pin is the present one (a wrong one is\n"
        "refused), --new-pin the new one, --no-pin stores the key without a PIN."},
       {"demo DIR",
        "Writes a complete GOST demo PKI into DIR: root, CA, signers, recipients, CRLs, the time stamp\n"
        "authority and OCSP responder, and DIR/demo.txt with every certificate, hash and PIN."}}},
     {"Options",
      {{"-m", "the local machine's stores (folder 35) instead of the current user's (folder 28)"},
       {"-u", "the current user's stores (the default)"},
       {"--key KEYFILE", "the certificate's key, PKCS #8 in PEM or DER, encrypted or not"},
       {"--password SOURCE", "opens the PKCS #12 file or an encrypted key; protects the exported file"},
       {"--pin SOURCE", "the PIN the stored key is (import) or is now (export, pin) encrypted under"},
       {"--new-pin SOURCE", "the PIN the key is encrypted under from now on (pin)"},
       {"--no-pin", "stores the key without a PIN: anyone who can read the file can sign with it"},
       {"--chain", "imports a PKCS #12 file's CA certificates into CA and Root"},
       {"--yes", "deletes a certificate's key without asking"}}},
     {"Environment",
      {{"BV_PLATFORM_LOCAL_APPDATA", "folder 28, of the user's stores; else $XDG_DATA_HOME, else ~/.local/share"},
       {"BV_PLATFORM_COMMON_APPDATA", "folder 35, of the machine's stores; else /var/opt"}}},
     bv::cli::exit_status("refused: no such store or certificate, not a certificate, a wrong password or PIN,\n"
                          "a key that is not the certificate's, a key to delete without --yes")}};

// Thrown for wrong arguments: main prints it with the usage hint, exits 2.
struct UsageFailure {
  std::string text;
};

// Wrong arguments for `command`: its usage line.
UsageFailure usage_of(const std::string& command) {
  for (const bv::cli::Entry& entry : kHelp.sections[0].entries)
    if (entry.term.compare(0, command.size() + 1, command + " ") == 0) return {"usage: bvstore " + entry.term};
  return {"no command " + command};
}

struct Arguments {
  DWORD location = CERT_SYSTEM_STORE_CURRENT_USER;
  std::vector<std::string> words;
  std::string key_file;
  SecretOption password{"--password", {}}, pin{"--pin", {}}, new_pin{"--new-pin", {}};
  bool no_pin = false, chain = false, yes = false;
};

Arguments parse_arguments(int argc, char** argv) {
  Arguments arguments;
  for (int i = 2; i < argc; ++i) {
    const std::string word = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw UsageFailure{word + " needs a value"};
      return argv[++i];
    };
    if (word == "-m") {
      arguments.location = CERT_SYSTEM_STORE_LOCAL_MACHINE;
    } else if (word == "-u") {
      arguments.location = CERT_SYSTEM_STORE_CURRENT_USER;
    } else if (word == "--key") {
      arguments.key_file = value();
    } else if (word == "--password") {
      arguments.password.source = value();
    } else if (word == "--pin") {
      arguments.pin.source = value();
    } else if (word == "--new-pin") {
      arguments.new_pin.source = value();
    } else if (word == "--no-pin") {
      arguments.no_pin = true;
    } else if (word == "--chain") {
      arguments.chain = true;
    } else if (word == "--yes") {
      arguments.yes = true;
    } else {
      arguments.words.push_back(word);
    }
  }
  return arguments;
}

// Standard input can be read once: as FILE or as one secret after another,
// not both.
void refuse_two_readers_of_standard_input(const Arguments& arguments, const std::string& file) {
  if (!bv::cli::is_standard_stream(file)) return;
  for (const SecretOption* option : {&arguments.password, &arguments.pin, &arguments.new_pin})
    if (option->source == "stdin")
      throw UsageFailure{"FILE and " + std::string(option->option) + " cannot both be standard input"};
}

// The whole file; "-" is standard input.
std::string read_bytes(const std::string& path) {
  std::ifstream file;
  if (!bv::cli::is_standard_stream(path)) {
    file.open(path, std::ios::binary);
    if (!file) throw file_failure("read", path);
  }
  std::ostringstream bytes;
  bytes << (file.is_open() ? file.rdbuf() : std::cin.rdbuf());
  if (bytes.str().empty() && (file.is_open() ? file.bad() : std::cin.bad())) throw file_failure("read", path);
  return bytes.str();
}

std::string folder_of(const Arguments& arguments, const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
    throw Failure{"bad store name '" + name + "'"};
  const std::string folder = bv::platform::system_store_folder(name, arguments.location);
  if (folder.empty()) throw Failure{"no folder for that location"};
  return folder;
}

bool is_folder(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::vector<std::string> store_names(DWORD location) {
  const std::string root = bv::platform::system_store_root(location);
  std::vector<std::string> names;
  if (DIR* dir = opendir(root.c_str())) {
    while (dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name[0] != '.' && is_folder(root + "/" + name)) names.push_back(name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Levenshtein distance, letters compared without case.
size_t edit_distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      const size_t next = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = row[j];
      row[j] = next;
    }
  }
  return row[b.size()];
}

// The folder of a store that exists.  Only create makes one: an import into
// a mistyped name would fill a folder the library never reads.
std::string existing_store_folder(const Arguments& arguments, const std::string& name) {
  const std::string folder = folder_of(arguments, name);
  if (is_folder(folder)) return folder;
  const std::vector<std::string> names = store_names(arguments.location);
  std::string text = "no store " + name + " in " +
                     (arguments.location == CERT_SYSTEM_STORE_LOCAL_MACHINE ? "the machine's" : "the current user's") +
                     " stores";
  const auto closest = std::min_element(names.begin(), names.end(), [&](const std::string& x, const std::string& y) {
    return edit_distance(name, x) < edit_distance(name, y);
  });
  if (closest != names.end() && edit_distance(name, *closest) <= std::max<size_t>(2, name.size() / 3))
    text += "; did you mean " + *closest + "?";
  else if (!names.empty())
    text += " (there are: " + [&] {
      std::string all;
      for (const std::string& n : names) all += (all.empty() ? "" : ", ") + n;
      return all;
    }() + ")";
  throw Failure{text + "  'bvstore create" + (arguments.location == CERT_SYSTEM_STORE_LOCAL_MACHINE ? " -m " : " ") +
                name + "' makes a new store."};
}

// A certificate hash as people paste it: "AB:CD...", "ab cd ...", "ABCD...".
std::string normalised_hash(const std::string& text) {
  std::string hex;
  for (char c : text) {
    if (c == ' ' || c == ':' || c == '\t') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) throw Failure{"bad hash " + text, bv::cli::kUsageOrFile};
    hex += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  if (hex.size() != 40) throw Failure{"a hash has 40 hexadecimal digits, not " + std::to_string(hex.size()), bv::cli::kUsageOrFile};
  return hex;
}

std::string ansi_name(PCERT_NAME_BLOB name) {
  const DWORD size = CertNameToStrA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, 0);
  std::string text(size, '\0');
  CertNameToStrA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, text.data(), size);
  text.resize(size - 1);
  return text;
}

// An OpenSSL name the way list shows a certificate's.
std::string ansi_name(const X509_NAME* name) {
  std::string der = bv::ossl::der_of(name, i2d_X509_NAME);
  CERT_NAME_BLOB blob{static_cast<DWORD>(der.size()), reinterpret_cast<BYTE*>(der.data())};
  return ansi_name(&blob);
}

std::string date_of(const FILETIME& time) {
  SYSTEMTIME parts{};
  FileTimeToSystemTime(&time, &parts);
  char text[32];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u", parts.wYear, parts.wMonth, parts.wDay);
  return text;
}

// A CRL's time to the minute, UTC: CRLs are issued daily or more often.
std::string time_of(const ASN1_TIME* time) {
  std::tm parts{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return "-";
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
  return text;
}

struct StoreCloser {
  void operator()(void* store) const { CertCloseStore(store, 0); }
};
using StoreHandle = std::unique_ptr<void, StoreCloser>;

// A certificate found in a store by its hash, with the files behind it.
struct StoredCertificate {
  bv::ossl::UniquePtr<X509> certificate;
  std::string file, key_file;  // key_file empty when there is none
};

StoredCertificate find_stored(const Arguments& arguments, const std::string& store_name, const std::string& hash_text) {
  existing_store_folder(arguments, store_name);
  const std::string hex = normalised_hash(hash_text);
  BYTE hash[20];
  for (int i = 0; i < 20; ++i) std::sscanf(hex.c_str() + 2 * i, "%2hhx", &hash[i]);
  const std::u16string name = bv::platform::utf16_of(store_name);
  StoreHandle store(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                                  arguments.location | CERT_STORE_OPEN_EXISTING_FLAG | CERT_STORE_READONLY_FLAG,
                                  name.c_str()));
  if (!store) throw Failure{"no store " + store_name};
  CRYPT_HASH_BLOB blob{20, hash};
  PCCERT_CONTEXT context = CertFindCertificateInStore(store.get(), X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                                      CERT_FIND_SHA1_HASH, &blob, nullptr);
  if (context == nullptr) throw Failure{"no certificate " + hex + " in " + store_name};
  StoredCertificate found;
  X509* x509 = bv::platform::certificate_x509(context);
  X509_up_ref(x509);
  found.certificate.reset(x509);
  found.file = bv::platform::certificate_file(context);
  const std::string key_file = bv::platform::key_file_for(found.file);
  if (access(key_file.c_str(), F_OK) == 0) found.key_file = key_file;
  CertFreeCertificateContext(context);
  return found;
}

// Opens a key file, asking for its PIN (from `option`) only when it is
// encrypted.
bv::ossl::UniquePtr<EVP_PKEY> open_key_file(const std::string& path, const SecretOption& option) {
  bv::ossl::UniquePtr<EVP_PKEY> key;
  auto opened = bv::platform::read_key_file(path, nullptr, key);
  if (opened == bv::platform::KeyFileResult::kNeedsPin) {
    Secret secret;
    if (!obtain_secret(option, "PIN of " + path, false, secret))
      throw Failure{path + " is encrypted: give " + option.option + " SOURCE"};
    opened = bv::platform::read_key_file(path, &secret.text(), key);
    if (opened == bv::platform::KeyFileResult::kWrongPin) throw Failure{"wrong " + std::string(option.option) + " for " + path};
  }
  if (opened != bv::platform::KeyFileResult::kOpened) throw Failure{"cannot read the key in " + path};
  return key;
}

// The PIN a key is stored under from now on; empty only with --no-pin.
void obtain_new_pin(const Arguments& arguments, const SecretOption& option, Secret& pin) {
  if (arguments.no_pin) {
    if (option.source) throw UsageFailure{std::string(option.option) + " and --no-pin exclude each other"};
    return;
  }
  if (!obtain_secret(option, "PIN for the stored key", true, pin))
    throw Failure{"the key needs a PIN: give " + std::string(option.option) +
                      " SOURCE (pass:, env:, file:, fd:, stdin), or --no-pin to store it unencrypted",
                  bv::cli::kUsageOrFile};
  if (pin.empty()) throw Failure{"an empty PIN: give --no-pin to store the key unencrypted", bv::cli::kUsageOrFile};
}

void write_key(const std::string& path, EVP_PKEY* key, const Secret& pin) {
  if (!bv::platform::write_key_file(path, key, pin.text())) throw Failure{"cannot write " + path, bv::cli::kUsageOrFile};
}

int command_create(const Arguments& arguments) {
  if (arguments.words.size() != 1) throw usage_of("create");
  const std::string folder = folder_of(arguments, arguments.words[0]);
  make_folders(folder);
  std::printf("%s\n", folder.c_str());
  return 0;
}

void list_crls(const Arguments& arguments, const std::string& name) {
  bv::platform::StoreObjects objects;
  if (!bv::platform::read_system_store(name, arguments.location, objects)) return;
  for (const auto& crl : objects.crls) {
    const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl.get());
    std::printf("CRL  %s\n    this update: %s  next update: %s  revoked: %d\n",
                ansi_name(X509_CRL_get_issuer(crl.get())).c_str(), time_of(X509_CRL_get0_lastUpdate(crl.get())).c_str(),
                time_of(X509_CRL_get0_nextUpdate(crl.get())).c_str(), revoked ? sk_X509_REVOKED_num(revoked) : 0);
  }
}

int command_list(const Arguments& arguments) {
  if (arguments.words.empty()) {
    for (const std::string& name : store_names(arguments.location)) std::printf("%s\n", name.c_str());
    return 0;
  }
  if (arguments.words.size() != 1) throw usage_of("list");
  existing_store_folder(arguments, arguments.words[0]);
  const std::u16string name = bv::platform::utf16_of(arguments.words[0]);
  StoreHandle store(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                                  arguments.location | CERT_STORE_OPEN_EXISTING_FLAG | CERT_STORE_READONLY_FLAG,
                                  name.c_str()));
  if (!store) throw Failure{"no store " + arguments.words[0]};
  PCCERT_CONTEXT context = nullptr;
  while ((context = CertEnumCertificatesInStore(store.get(), context)) != nullptr) {
    BYTE hash[20];
    DWORD size = sizeof hash;
    CertGetCertificateContextProperty(context, CERT_HASH_PROP_ID, hash, &size);
    const std::string hex = bv::platform::hex_text(hash, size, bv::platform::HexLetters::kUpper);
    DWORD info_size = 0;
    const bool has_key = CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &info_size);
    std::printf("%s  %s  %s..%s%s\n    issuer: %s\n", hex.c_str(), ansi_name(&context->pCertInfo->Subject).c_str(),
                date_of(context->pCertInfo->NotBefore).c_str(), date_of(context->pCertInfo->NotAfter).c_str(),
                has_key ? "  [key]" : "", ansi_name(&context->pCertInfo->Issuer).c_str());
  }
  list_crls(arguments, arguments.words[0]);
  return 0;
}

// What an import file holds.
struct ImportFile {
  bv::ossl::UniquePtr<X509> certificate;
  bv::ossl::UniquePtr<EVP_PKEY> key;
  bv::ossl::UniquePtr<STACK_OF(X509)> authorities;  // a PKCS #12 file's other certificates
  bv::ossl::UniquePtr<X509_CRL> crl;
};

void open_pkcs12(const std::string& path, PKCS12* p12, const SecretOption& option, ImportFile& out) {
  Secret password;
  // A file without a password opens without asking for one.
  if (option.source || PKCS12_verify_mac(p12, "", 0) != 1) {
    if (!obtain_secret(option, "Password of " + bv::cli::display_name(path, false), false, password))
      throw Failure{path + " is protected by a password: give --password SOURCE"};
  }
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* authorities = nullptr;
  if (PKCS12_parse(p12, password.text().c_str(), &key, &certificate, &authorities) != 1)
    throw Failure{"cannot open " + path + " (wrong --password?): " + bv::ossl::take_error_text()};
  out.key.reset(key);
  out.certificate.reset(certificate);
  out.authorities.reset(authorities);
}

// The certificate, CRL or PKCS #12 contents of a file.
ImportFile read_import_file(const std::string& path, const Arguments& arguments) {
  bv::ossl::gost_engine();
  const std::string bytes = read_bytes(path);
  ImportFile file;
  auto bio = [&] { return bv::ossl::UniquePtr<BIO>(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size()))); };
  if (bytes.find("-----BEGIN X509 CRL") != std::string::npos) {
    file.crl.reset(PEM_read_bio_X509_CRL(bio().get(), nullptr, nullptr, nullptr));
  } else if (bytes.find("-----BEGIN") != std::string::npos) {
    file.certificate.reset(PEM_read_bio_X509(bio().get(), nullptr, nullptr, nullptr));
    if (bytes.find("PRIVATE KEY-----") != std::string::npos) {
      Secret password;
      if (bytes.find("ENCRYPTED") != std::string::npos &&
          !obtain_secret(arguments.password, "Password of the key in " + path, false, password))
        throw Failure{"the key in " + path + " is encrypted: give --password SOURCE"};
      file.key.reset(PEM_read_bio_PrivateKey(bio().get(), nullptr, nullptr, const_cast<char*>(password.text().c_str())));
      if (!file.key) throw Failure{"cannot read the key in " + path + " (wrong --password?)"};
    }
  } else {
    const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
    file.certificate.reset(d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size())));
    if (!file.certificate) {
      cursor = reinterpret_cast<const unsigned char*>(bytes.data());
      file.crl.reset(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(bytes.size())));
    }
    if (!file.certificate && !file.crl) {
      cursor = reinterpret_cast<const unsigned char*>(bytes.data());
      bv::ossl::UniquePtr<PKCS12> p12(d2i_PKCS12(nullptr, &cursor, static_cast<long>(bytes.size())));
      if (!p12) throw Failure{path + " is no certificate, CRL or PKCS #12 file"};
      open_pkcs12(path, p12.get(), arguments.password, file);
    }
  }
  if (!file.certificate && !file.crl) throw Failure{"no certificate or CRL in " + path};
  ERR_clear_error();
  return file;
}

// A CRL is named by its own hash; it replaces the CRLs of the same issuer
// that are older, so the store never holds two for one CA.
void import_crl(const std::string& folder, X509_CRL* crl) {
  const std::string der = bv::pki::der_of(crl);
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(der.data()), der.size(), digest);
  const std::string name = bv::platform::hex_text(digest, sizeof digest, bv::platform::HexLetters::kLower) + ".crl";
  std::vector<std::string> older;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) {
      const std::string file = entry->d_name;
      if (file.size() < 4 || file.compare(file.size() - 4, 4, ".crl") != 0 || file == name) continue;
      const std::string bytes = bv::platform::read_whole_file(folder + "/" + file);
      const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
      bv::ossl::UniquePtr<X509_CRL> kept(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(bytes.size())));
      if (!kept || X509_NAME_cmp(X509_CRL_get_issuer(kept.get()), X509_CRL_get_issuer(crl)) != 0) continue;
      if (ASN1_TIME_compare(X509_CRL_get0_lastUpdate(kept.get()), X509_CRL_get0_lastUpdate(crl)) > 0)
        throw Failure{folder + "/" + file + " is a newer CRL of " + ansi_name(X509_CRL_get_issuer(crl)) + ": kept"};
      older.push_back(folder + "/" + file);
    }
    closedir(dir);
  }
  write_der_crl(folder + "/" + name, crl);
  for (const std::string& file : older)
    if (unlink(file.c_str()) == 0) std::printf("replaced %s\n", file.c_str());
  std::printf("CRL of %s, next update %s\n", ansi_name(X509_CRL_get_issuer(crl)).c_str(),
              time_of(X509_CRL_get0_nextUpdate(crl)).c_str());
}

bool is_self_signed(X509* certificate) { return X509_check_issued(certificate, certificate) == X509_V_OK; }

std::string stored_file(const std::string& folder, X509* certificate) {
  return folder + "/" + certificate_hash(certificate, bv::platform::HexLetters::kLower) + ".cer";
}

int command_import(const Arguments& arguments) {
  if (arguments.words.size() != 2) throw usage_of("import");
  const std::string& path = arguments.words[1];
  refuse_two_readers_of_standard_input(arguments, path);
  const std::string folder = existing_store_folder(arguments, arguments.words[0]);
  ImportFile file = read_import_file(path, arguments);
  if (file.crl) {
    import_crl(folder, file.crl.get());
    return 0;
  }
  if (!arguments.key_file.empty()) file.key = open_key_file(arguments.key_file, arguments.password);
  if (file.key && !bv::platform::key_matches_certificate(file.key.get(), file.certificate.get()))
    throw Failure{"the key is not the certificate's"};

  const int authorities = file.authorities ? sk_X509_num(file.authorities.get()) : 0;
  std::string root_folder, ca_folder;
  if (arguments.chain && authorities > 0) {  // both refused before anything is written
    root_folder = existing_store_folder(arguments, "Root");
    ca_folder = existing_store_folder(arguments, "CA");
  }
  Secret pin;
  if (file.key) obtain_new_pin(arguments, arguments.pin, pin);

  const std::string certificate_file = stored_file(folder, file.certificate.get());
  // The key first: a key file without its certificate is never read.
  if (file.key) write_key(bv::platform::key_file_for(certificate_file), file.key.get(), pin);
  write_der_certificate(certificate_file, file.certificate.get());
  std::printf("%s%s\n", certificate_hash(file.certificate.get()).c_str(),
              file.key ? (pin.empty() ? "  with key (no PIN)" : "  with key") : "");

  for (int i = 0; i < authorities; ++i) {
    X509* authority = sk_X509_value(file.authorities.get(), i);
    const std::string described = certificate_hash(authority) + "  " + ansi_name(X509_get_subject_name(authority));
    if (!arguments.chain) {
      std::fprintf(stderr, "bvstore: left out %s (give --chain to import it into %s)\n", described.c_str(),
                   is_self_signed(authority) ? "Root" : "CA");
      continue;
    }
    const bool root = is_self_signed(authority);
    write_der_certificate(stored_file(root ? root_folder : ca_folder, authority), authority);
    std::printf("%s  into %s\n", described.c_str(), root ? "Root" : "CA");
  }
  return 0;
}

int command_hash(const Arguments& arguments) {
  if (arguments.words.size() != 1) throw usage_of("hash");
  ImportFile file = read_import_file(arguments.words[0], arguments);
  if (!file.certificate) throw Failure{arguments.words[0] + " holds no certificate"};
  std::printf("%s\n", certificate_hash(file.certificate.get()).c_str());
  return 0;
}

int command_delete(const Arguments& arguments) {
  if (arguments.words.size() != 2) throw usage_of("delete");
  const StoredCertificate stored = find_stored(arguments, arguments.words[0], arguments.words[1]);
  if (!stored.key_file.empty() && !arguments.yes) {
    const std::string subject = ansi_name(X509_get_subject_name(stored.certificate.get()));
    if (!can_prompt())
      throw Failure{"the certificate of " + subject + " has a private key (" + stored.key_file +
                    "): give --yes to delete both"};
    if (!confirmed("Delete the certificate of " + subject + " and its private key " + stored.key_file + "?"))
      throw Failure{"nothing deleted"};
  }
  if (unlink(stored.file.c_str()) != 0) throw file_failure("delete", stored.file);
  std::printf("deleted %s\n", stored.file.c_str());
  if (!stored.key_file.empty()) {
    if (unlink(stored.key_file.c_str()) != 0) throw file_failure("delete", stored.key_file);
    std::printf("deleted the private key %s\n", stored.key_file.c_str());
  }
  return 0;
}

// PKCS #12 that openssl pkcs12 with the GOST engine reads back: PBES2 with
// GOST 28147-89 (its PRF is HMAC GOST R 34.11-2012-512) and a
// GOST R 34.11-2012-512 MAC; AES-256-CBC and SHA-256 without the engine.
std::string pkcs12_of(X509* certificate, EVP_PKEY* key, const Secret& password) {
  bv::ossl::gost_engine();
  const EVP_MD* gost_digest = bv::ossl::digest_by_nid(NID_id_GostR3411_2012_512);
  const bool gost = gost_digest != nullptr && bv::ossl::cipher_by_nid(NID_id_Gost28147_89) != nullptr;
  const int cipher = gost ? NID_id_Gost28147_89 : NID_aes_256_cbc;
  bv::ossl::UniquePtr<PKCS12> p12(PKCS12_create(password.text().c_str(), nullptr, key, certificate, nullptr, cipher,
                                                cipher, PKCS12_DEFAULT_ITER, -1, 0));
  if (!p12 || PKCS12_set_mac(p12.get(), password.text().c_str(), -1, nullptr, 0, PKCS12_DEFAULT_ITER,
                             gost ? gost_digest : EVP_sha256()) != 1)
    throw Failure{"cannot make the PKCS #12 file: " + bv::ossl::take_error_text()};
  unsigned char* der = nullptr;
  const int length = i2d_PKCS12(p12.get(), &der);
  if (length <= 0) throw Failure{"cannot encode the PKCS #12 file: " + bv::ossl::take_error_text()};
  std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return bytes;
}

int command_export(const Arguments& arguments) {
  if (arguments.words.size() != 3) throw usage_of("export");
  const std::string& out = arguments.words[2];
  const StoredCertificate stored = find_stored(arguments, arguments.words[0], arguments.words[1]);
  if (stored.key_file.empty()) throw Failure{"the certificate " + stored.file + " has no key file"};
  const auto key = open_key_file(stored.key_file, arguments.pin);
  Secret password;
  if (!obtain_secret(arguments.password, "Password for the PKCS #12 file", true, password))
    throw Failure{"give --password SOURCE for the PKCS #12 file", bv::cli::kUsageOrFile};
  if (password.empty()) throw Failure{"a PKCS #12 file holding a key needs a password", bv::cli::kUsageOrFile};
  const std::string bytes = pkcs12_of(stored.certificate.get(), key.get(), password);
  if (bv::cli::is_standard_stream(out)) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0)
      throw file_failure("write", out);
    std::fprintf(stderr, "certificate and key written to standard output\n");
  } else {
    if (const int error = bv::platform::replace_file(out, bytes, 0600)) throw file_failure("write", out, error);
    std::printf("certificate and key written to %s\n", out.c_str());
  }
  return 0;
}

int command_pin(const Arguments& arguments) {
  if (arguments.words.size() != 2) throw usage_of("pin");
  const StoredCertificate stored = find_stored(arguments, arguments.words[0], arguments.words[1]);
  if (stored.key_file.empty()) throw Failure{"the certificate " + stored.file + " has no key file"};
  const auto key = open_key_file(stored.key_file, arguments.pin);
  Secret pin;
  obtain_new_pin(arguments, arguments.new_pin, pin);
  write_key(stored.key_file, key.get(), pin);
  std::printf("%s %s\n", stored.key_file.c_str(), pin.empty() ? "is stored without a PIN now" : "has its new PIN");
  return 0;
}

}  // namespace
}  // namespace bvstore

int main(int argc, char** argv) {
  using namespace bvstore;
  if (const auto handled = bv::cli::common_arguments(kHelp, argc, argv)) return *handled;
  if (argc < 2) {
    bv::cli::print_help(kHelp, stderr);
    return bv::cli::kUsageOrFile;
  }
  const std::string command = argv[1];
  try {
    const Arguments arguments = parse_arguments(argc, argv);
    if (command == "create") return command_create(arguments);
    if (command == "list") return command_list(arguments);
    if (command == "import") return command_import(arguments);
    if (command == "hash") return command_hash(arguments);
    if (command == "settings") {
      if (!arguments.words.empty()) throw usage_of("settings");
      return run_settings();
    }
    if (command == "check") {
      if (arguments.words.size() != 1) throw usage_of("check");
      return run_check(arguments.words[0]);
    }
    if (command == "delete") return command_delete(arguments);
    if (command == "export") return command_export(arguments);
    if (command == "pin") return command_pin(arguments);
    if (command == "demo") {
      if (arguments.words.size() != 1) throw usage_of("demo");
      return run_demo(arguments.words[0]);
    }
    throw usage_of(command);
  } catch (const UsageFailure& failure) {
    return bv::cli::usage_error("bvstore", failure.text);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "bvstore: %s\n", failure.text.c_str());
    return failure.exit_code;
  } catch (const std::runtime_error& failure) {  // from the certificate factory
    std::fprintf(stderr, "bvstore: %s\n", failure.what());
    return 1;
  }
}
