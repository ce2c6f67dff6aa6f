// bvstore: create, list, fill and empty the certificate stores that the
// library reads, and build a demonstration PKI.
#include <dirent.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "bvstore.h"
#include "crypt32/keys.h"
#include "kernel32/hex.h"
#include "crypt32/store.h"

namespace bvstore {
namespace {

const bv::cli::Help kHelp{
    "bvstore",
    {"COMMAND [-m] [ARGUMENTS]", "help [COMMAND] | --help | --version"},
    "Creates, lists, fills and empties the certificate stores and key files the library reads.",
    "Stores are folders of certificate files (docs/stores-and-keys.md of the installed documentation);\n"
    "a certificate's key is a key file beside it.",
    {{"Commands",
      {{"create [-m] STORE", "Creates the store's folder and prints it."},
       {"list [-m] [STORE]",
        "Without STORE, the stores of the location; with it, each certificate: hash (its SSF identity),\n"
        "subject, validity, [key] when it has a key file, issuer."},
       {"import [-m] STORE FILE [--key KEYFILE] [--password PASSWORD] [--pin PIN]",
        "Puts a certificate into STORE.  FILE is a certificate (PEM or DER, - for standard input) or a\n"
        "PKCS #12 file; the key (from the PKCS #12 file, a PEM FILE holding both, or KEYFILE) is\n"
        "stored beside the certificate, encrypted under PIN (plain when PIN is empty)."},
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
       {"delete [-m] STORE HASH", "Removes the certificate with that hash (40 hex digits) and its key file."},
       {"demo DIR",
        "Writes a complete GOST demo PKI into DIR: root, CA, signers, recipients, CRLs, the time stamp\n"
        "authority and OCSP responder, and DIR/demo.txt with every certificate, hash and PIN."}}},
     {"Options",
      {{"-m", "the local machine's stores (folder 35) instead of the current user's (folder 28)"},
       {"-u", "the current user's stores (the default)"},
       {"--key KEYFILE", "the certificate's key, PKCS #8 in PEM or DER, encrypted or not"},
       {"--password PASSWORD", "opens the PKCS #12 file, or an encrypted key"},
       {"--pin PIN", "the PIN the stored key is encrypted under"}}},
     {"Environment",
      {{"BV_PLATFORM_LOCAL_APPDATA", "folder 28, of the user's stores; else $XDG_DATA_HOME, else ~/.local/share"},
       {"BV_PLATFORM_COMMON_APPDATA", "folder 35, of the machine's stores; else /var/opt"}}},
     bv::cli::exit_status("refused: no such store or certificate, not a certificate, a wrong password,\n"
                          "a key that is not the certificate's")}};

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
  std::string key_file, password, pin;
  bool has_password = false;
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
      arguments.password = value();
      arguments.has_password = true;
    } else if (word == "--pin") {
      arguments.pin = value();
    } else {
      arguments.words.push_back(word);
    }
  }
  return arguments;
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

std::string ansi_name(PCERT_NAME_BLOB name) {
  const DWORD size = CertNameToStrA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, 0);
  std::string text(size, '\0');
  CertNameToStrA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, text.data(), size);
  text.resize(size - 1);
  return text;
}

std::string date_of(const FILETIME& time) {
  SYSTEMTIME parts{};
  FileTimeToSystemTime(&time, &parts);
  char text[32];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u", parts.wYear, parts.wMonth, parts.wDay);
  return text;
}

int command_create(const Arguments& arguments) {
  if (arguments.words.size() != 1) throw usage_of("create");
  const std::string folder = folder_of(arguments, arguments.words[0]);
  make_folders(folder);
  std::printf("%s\n", folder.c_str());
  return 0;
}

int command_list(const Arguments& arguments) {
  if (arguments.words.empty()) {
    const std::string root = bv::platform::system_store_root(arguments.location);
    std::vector<std::string> names;
    if (DIR* dir = opendir(root.c_str())) {
      while (dirent* entry = readdir(dir)) {
        struct stat info {};
        const std::string name = entry->d_name;
        if (name[0] != '.' && stat((root + "/" + name).c_str(), &info) == 0 && S_ISDIR(info.st_mode))
          names.push_back(name);
      }
      closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) std::printf("%s\n", name.c_str());
    return 0;
  }
  if (arguments.words.size() != 1) throw usage_of("list");
  const std::u16string name = bv::platform::utf16_of(arguments.words[0]);
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                                   arguments.location | CERT_STORE_OPEN_EXISTING_FLAG | CERT_STORE_READONLY_FLAG,
                                   name.c_str());
  if (store == nullptr) throw Failure{"no store " + arguments.words[0]};
  PCCERT_CONTEXT context = nullptr;
  while ((context = CertEnumCertificatesInStore(store, context)) != nullptr) {
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
  CertCloseStore(store, 0);
  return 0;
}

int password_callback(char* buffer, int size, int, void* user) {
  const auto* password = static_cast<const std::string*>(user);
  const int length = std::min(size, static_cast<int>(password->size()));
  std::memcpy(buffer, password->data(), static_cast<size_t>(length));
  return length;
}

// The certificate (and key, for PKCS #12 or a PEM file holding both) of a file.
void read_certificate_file(const std::string& path, const Arguments& arguments, bv::ossl::UniquePtr<X509>& certificate,
                           bv::ossl::UniquePtr<EVP_PKEY>& key) {
  bv::ossl::gost_engine();
  const std::string bytes = read_bytes(path);
  bv::ossl::UniquePtr<BIO> bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (bytes.find("-----BEGIN") != std::string::npos) {
    certificate.reset(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    bv::ossl::UniquePtr<BIO> again(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    std::string password = arguments.password;
    key.reset(PEM_read_bio_PrivateKey(again.get(), nullptr, password_callback, &password));
  } else {
    const unsigned char* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
    certificate.reset(d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size())));
    if (!certificate) {
      cursor = reinterpret_cast<const unsigned char*>(bytes.data());
      bv::ossl::UniquePtr<PKCS12> p12(d2i_PKCS12(nullptr, &cursor, static_cast<long>(bytes.size())));
      if (!p12) throw Failure{path + " is no certificate and no PKCS #12 file"};
      EVP_PKEY* p12_key = nullptr;
      X509* p12_certificate = nullptr;
      if (PKCS12_parse(p12.get(), arguments.password.c_str(), &p12_key, &p12_certificate, nullptr) != 1)
        throw Failure{"cannot open " + path + " (wrong --password?): " + bv::ossl::take_error_text()};
      key.reset(p12_key);
      certificate.reset(p12_certificate);
    }
  }
  if (!certificate) throw Failure{"no certificate in " + path};
  ERR_clear_error();
}

int command_import(const Arguments& arguments) {
  if (arguments.words.size() != 2) throw usage_of("import");
  const std::string folder = folder_of(arguments, arguments.words[0]);
  bv::ossl::UniquePtr<X509> certificate;
  bv::ossl::UniquePtr<EVP_PKEY> key;
  read_certificate_file(arguments.words[1], arguments, certificate, key);
  if (!arguments.key_file.empty()) {
    const std::string password = arguments.password;
    const auto opened = bv::platform::read_key_file(arguments.key_file, arguments.has_password ? &password : nullptr, key);
    if (opened == bv::platform::KeyFileResult::kNeedsPin) throw Failure{arguments.key_file + " is encrypted: give --password"};
    if (opened != bv::platform::KeyFileResult::kOpened) throw Failure{"cannot read the key in " + arguments.key_file};
  }
  if (key && !bv::platform::key_matches_certificate(key.get(), certificate.get()))
    throw Failure{"the key is not the certificate's"};
  make_folders(folder);
  const std::string stem = folder + "/" + certificate_hash(certificate.get(), bv::platform::HexLetters::kLower);
  const std::string key_file = bv::platform::key_file_for(stem + ".cer");
  // The key first: a key file without its certificate is never read.
  if (key && !bv::platform::write_key_file(key_file, key.get(), arguments.pin))
    throw Failure{"cannot write " + key_file};
  write_der_certificate(stem + ".cer", certificate.get());
  std::printf("%s%s\n", certificate_hash(certificate.get()).c_str(), key ? "  with key" : "");
  return 0;
}

int command_hash(const Arguments& arguments) {
  if (arguments.words.size() != 1) throw usage_of("hash");
  bv::ossl::UniquePtr<X509> certificate;
  bv::ossl::UniquePtr<EVP_PKEY> key;
  read_certificate_file(arguments.words[0], arguments, certificate, key);
  std::printf("%s\n", certificate_hash(certificate.get()).c_str());
  return 0;
}

int command_delete(const Arguments& arguments) {
  if (arguments.words.size() != 2) throw usage_of("delete");
  const std::string& hex = arguments.words[1];
  BYTE hash[20];
  if (hex.size() != 40) throw Failure{"a hash has 40 hexadecimal digits"};
  for (int i = 0; i < 20; ++i) {
    if (std::sscanf(hex.c_str() + 2 * i, "%2hhx", &hash[i]) != 1) throw Failure{"bad hash " + hex};
  }
  const std::u16string name = bv::platform::utf16_of(arguments.words[0]);
  HCERTSTORE store =
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, arguments.location | CERT_STORE_OPEN_EXISTING_FLAG, name.c_str());
  if (store == nullptr) throw Failure{"no store " + arguments.words[0]};
  CRYPT_HASH_BLOB blob{20, hash};
  PCCERT_CONTEXT context = CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                                      CERT_FIND_SHA1_HASH, &blob, nullptr);
  int status = 1;
  if (context == nullptr) {
    std::fprintf(stderr, "bvstore: no certificate %s in %s\n", hex.c_str(), arguments.words[0].c_str());
  } else {
    const std::string file = bv::platform::certificate_file(context);
    const std::string key_file = bv::platform::key_file_for(file);
    if (unlink(file.c_str()) != 0) {
      std::fprintf(stderr, "bvstore: cannot delete %s\n", file.c_str());
    } else {
      unlink(key_file.c_str());
      std::printf("deleted %s\n", file.c_str());
      status = 0;
    }
    CertFreeCertificateContext(context);
  }
  CertCloseStore(store, 0);
  return status;
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
