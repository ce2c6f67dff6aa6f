// Certificate contexts and stores.  A system store is a folder of
// certificate files (see docs/stores-and-keys.md); it is read once and the parsed
// certificates are reused while neither the folder nor any of its files
// changed.  Each open store
// has its own contexts, so properties set in one call (a PIN) never show in
// another.
#include <dirent.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "advapi32/provider_handle.h"
#include "checked_handle.h"
#include "crypt32/keys.h"
#include "crypt32/store.h"
#include "kernel32/files.h"
#include "kernel32/hex.h"
#include "kernel32/kernel32.h"
#include "kernel32/wide_text.h"
#include "output_space.h"
#include "shell32/shell32.h"

namespace bv::platform {

struct CertStoreObject {
  static constexpr uint32_t kMagic = 0x42564353;  // "BVCS"
  uint32_t magic = kMagic;
  // One for the open handle and one for each element still alive.
  std::atomic<int> references{1};
  std::mutex mutex;
  // The certificates as the folder was read, shared with the folder cache;
  // their elements are made when first found or enumerated, so a warm open
  // of a large store costs no element per certificate.
  std::shared_ptr<const std::vector<std::shared_ptr<const ParsedCertificate>>> read;
  // Index for index with `read` and beyond it (added ones); null where no
  // element was made yet.  The store holds one reference on each.
  std::vector<CertElement*> elements;
  bool closed = false;
  bool read_only = false;
  std::string folder;  // empty for a memory store
};

namespace {

void release_store(CertStoreObject* store) {
  if (store->references.fetch_sub(1) == 1) {
    store->magic = 0;
    delete store;
  }
}

void release_element(CertElement* element) {
  if (element->references.fetch_sub(1) != 1) return;
  element->magic = 0;
  if (element->cached_provider != 0) release_provider_handle(element->cached_provider);
  for (HCRYPTPROV retired : element->retired_providers) release_provider_handle(retired);
  if (element->key_prov_info) wipe_key_prov_info(*element->key_prov_info);
  CertStoreObject* store = element->store;
  delete element;
  if (store != nullptr) release_store(store);
}

CertStoreObject* store_from_handle(HCERTSTORE handle) {
  auto* store = static_cast<CertStoreObject*>(handle);
  if (store == nullptr || store->magic != CertStoreObject::kMagic || store->closed) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return store;
}

// A new element of `store` for `parsed`; the store's own reference is the
// element's first one.  Caller holds the store's mutex.
CertElement* new_element(CertStoreObject* store, std::shared_ptr<const ParsedCertificate> parsed) {
  auto* element = new CertElement;
  element->parsed = std::move(parsed);
  element->context.dwCertEncodingType = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
  element->context.pbCertEncoded = const_cast<BYTE*>(element->parsed->encoded.data());
  element->context.cbCertEncoded = static_cast<DWORD>(element->parsed->encoded.size());
  element->context.pCertInfo = const_cast<CERT_INFO*>(&element->parsed->info);
  element->context.hCertStore = store;
  element->store = store;
  store->references.fetch_add(1);
  return element;
}

// Both under the store's mutex.
const ParsedCertificate& parsed_at(const CertStoreObject& store, size_t index) {
  return store.elements[index] != nullptr ? *store.elements[index]->parsed : *(*store.read)[index];
}
CertElement* element_at(CertStoreObject& store, size_t index) {
  if (store.elements[index] == nullptr) {
    store.elements[index] = new_element(&store, (*store.read)[index]);
    store.elements[index]->position = index;
  }
  return store.elements[index];
}

PCCERT_CONTEXT handed_out(CertElement* element) {
  element->references.fetch_add(1);
  return &element->context;
}

// ---------------------------------------------------------------------------
// Folders and the cache of their contents

// Folder 28 (the user's) or 35 (the machine's), as the shell gives them.
std::string special_folder(int csidl) {
  char path[MAX_PATH] = {};
  return SHGetFolderPathA(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path) == S_OK ? std::string(path) : std::string();
}

enum class FileKind { kNone, kDer, kPem, kCrl };

FileKind kind_of(const std::string& name) {
  auto ends_with = [&](const char* suffix) {
    const size_t n = std::strlen(suffix);
    if (name.size() <= n) return false;
    return strcasecmp_l(name.c_str() + name.size() - n, suffix, ansi_locale()) == 0;
  };
  if (ends_with(".cer")) return FileKind::kDer;
  if (ends_with(".pem") || ends_with(".crt")) return FileKind::kPem;
  if (ends_with(".crl")) return FileKind::kCrl;
  return FileKind::kNone;
}

bool same_time(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

// What a file or folder was when it was read.  A renewal rewritten in place
// keeps the file's name and may keep the folder's times, but not all of these.
struct FileStamp {
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};
  timespec changed{};

  static FileStamp of(const std::string& path, const struct stat& info) {
    return {path, info.st_dev, info.st_ino, info.st_size, info.st_mtim, info.st_ctim};
  }
  bool matches(const struct stat& info) const {
    return device == info.st_dev && inode == info.st_ino && size == info.st_size &&
           same_time(modified, info.st_mtim) && same_time(changed, info.st_ctim);
  }
  bool unchanged() const {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && matches(info);
  }
};

struct FolderContents {
  FileStamp folder;
  std::vector<FileStamp> files;  // checked one by one only when the folder is not watched
  bool watched = false;
  std::vector<std::shared_ptr<const ParsedCertificate>> certificates;
  std::vector<std::shared_ptr<X509_CRL>> crls;
};

// Every certificate of a PEM file, in order.
void read_pem_certificates(const std::string& bytes, const std::string& path, const std::string& key_file,
                           std::vector<std::shared_ptr<const ParsedCertificate>>& out) {
  bv::ossl::UniquePtr<BIO> bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) return;
  for (;;) {
    bv::ossl::UniquePtr<X509> x509(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!x509) break;
    unsigned char* der = nullptr;
    const int length = i2d_X509(x509.get(), &der);
    if (length > 0) {
      auto parsed = parse_certificate(der, static_cast<size_t>(length), path);
      if (parsed) {
        const_cast<ParsedCertificate&>(*parsed).key_file = key_file;
        out.push_back(std::move(parsed));
      }
    }
    OPENSSL_free(der);
  }
  ERR_clear_error();
}

std::shared_ptr<FolderContents> read_folder(const std::string& folder, const struct stat& info) {
  auto contents = std::make_shared<FolderContents>();
  contents->folder = FileStamp::of(folder, info);
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) names.emplace_back(entry->d_name);
    closedir(dir);
  }
  std::sort(names.begin(), names.end());  // file name order is the store's order
  auto has_name = [&](const std::string& name) { return std::binary_search(names.begin(), names.end(), name); };
  for (const std::string& name : names) {
    const FileKind kind = kind_of(name);
    const std::string path = folder + "/" + name;
    // Stamped before reading: a write after the stamp shows at the next open.
    struct stat file_info {};
    if (kind != FileKind::kNone && stat(path.c_str(), &file_info) == 0)
      contents->files.push_back(FileStamp::of(path, file_info));
    if (kind == FileKind::kNone) continue;
    const std::string bytes = read_whole_file(path);
    if (bytes.empty()) continue;
    const std::string key_name = key_file_for(name);
    const std::string key_file = has_name(key_name) ? folder + "/" + key_name : std::string();
    if (kind == FileKind::kDer) {
      auto parsed = parse_certificate(reinterpret_cast<const BYTE*>(bytes.data()), bytes.size(), path);
      if (parsed) {
        const_cast<ParsedCertificate&>(*parsed).key_file = key_file;
        contents->certificates.push_back(std::move(parsed));
      }
    } else if (kind == FileKind::kPem) {
      read_pem_certificates(bytes, path, key_file, contents->certificates);
    } else {
      const unsigned char* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
      X509_CRL* crl = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(bytes.size()));
      if (crl == nullptr) {
        bv::ossl::UniquePtr<BIO> bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
        if (bio) crl = PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr);
      }
      if (crl != nullptr) contents->crls.emplace_back(crl, X509_CRL_free);
    }
  }
  ERR_clear_error();
  return contents;
}

std::mutex cache_mutex;
std::map<std::string, std::shared_ptr<const FolderContents>>& folder_cache() {
  static auto* cache = new std::map<std::string, std::shared_ptr<const FolderContents>>;
  return *cache;
}

// Changes inside cached folders, seen through inotify so that a warm open
// costs one read of the event queue instead of a stat per file.  Where no
// watch can be had (no inotify, the watch limit reached) the folder's files
// are compared one by one.  All members run under cache_mutex.
class FolderWatch {
 public:
  // Starts watching before the folder is read, so that a change made while
  // it is read is not lost.
  bool watch(const std::string& folder) {
    if (!ready()) return false;
    constexpr uint32_t kChanges = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                  IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    const int descriptor = inotify_add_watch(fd_, folder.c_str(), kChanges);
    if (descriptor < 0) return false;
    folders_[descriptor] = folder;
    return true;
  }

  // Drops from the cache every folder that changed since the last call.
  void forget_changed(std::map<std::string, std::shared_ptr<const FolderContents>>& cache) {
    if (!ready()) return;
    alignas(inotify_event) char buffer[8192];
    for (;;) {
      const ssize_t length = read(fd_, buffer, sizeof buffer);
      if (length <= 0) return;  // EAGAIN: nothing more happened
      for (const char* cursor = buffer; cursor < buffer + length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(cursor);
        cursor += sizeof(inotify_event) + event->len;
        if (event->mask & IN_Q_OVERFLOW) {
          cache.clear();
          continue;
        }
        const auto found = folders_.find(event->wd);
        if (found == folders_.end()) continue;
        cache.erase(found->second);
        if (event->mask & IN_IGNORED) folders_.erase(found);
      }
    }
  }

 private:
  // One queue per process: a child after fork must not drain its parent's.
  bool ready() {
    if (fd_ >= 0 && owner_ == getpid()) return true;
    if (fd_ >= 0) {
      close(fd_);
      folder_cache().clear();
    }
    folders_.clear();
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    owner_ = getpid();
    return fd_ >= 0;
  }

  int fd_ = -1;
  pid_t owner_ = 0;
  std::map<int, std::string> folders_;
};

FolderWatch& folder_watch() {
  static auto* watch = new FolderWatch;
  return *watch;
}

// The contents of a store folder, from the cache while it is unchanged.
// Null when the folder does not exist.
std::shared_ptr<const FolderContents> folder_contents(const std::string& folder) {
  // A watched folder reports its own removal or renaming too: no stat needed.
  {
    std::lock_guard<std::mutex> lock(cache_mutex);
    folder_watch().forget_changed(folder_cache());
    auto found = folder_cache().find(folder);
    if (found != folder_cache().end() && found->second->watched) return found->second;
  }
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return nullptr;
  bool watched = false;
  {
    std::lock_guard<std::mutex> lock(cache_mutex);
    folder_watch().forget_changed(folder_cache());
    auto found = folder_cache().find(folder);
    if (found != folder_cache().end()) {
      const FolderContents& cached = *found->second;
      if (cached.folder.matches(info) &&
          (cached.watched || std::all_of(cached.files.begin(), cached.files.end(),
                                         [](const FileStamp& file) { return file.unchanged(); })))
        return found->second;
    }
    watched = folder_watch().watch(folder);
  }
  auto contents = read_folder(folder, info);
  contents->watched = watched;
  std::lock_guard<std::mutex> lock(cache_mutex);
  folder_cache()[folder] = contents;
  return contents;
}

// Writes a certificate into a store folder, atomically: over the DER file
// the store read it from when it holds it already (whatever the case of
// that name, so a store filled by hand or an older tool gets no twin),
// otherwise as <sha1 in lower-case hex>.cer.
bool write_certificate_file(const std::string& folder, const ParsedCertificate& parsed, const CertElement* held) {
  const std::string& held_file = held != nullptr ? held->parsed->file : std::string();
  const bool rewrite_held = kind_of(held_file) == FileKind::kDer && held_file.rfind(folder + "/", 0) == 0;
  const std::string path =
      rewrite_held ? held_file : folder + "/" + hex_text(parsed.sha1, sizeof parsed.sha1, HexLetters::kLower) + ".cer";
  const int error = replace_file(
      path, std::string_view(reinterpret_cast<const char*>(parsed.encoded.data()), parsed.encoded.size()), 0644);
  if (error != 0) {
    SetLastError(error == EACCES ? ERROR_ACCESS_DENIED : CRYPT_E_FILE_ERROR);
    return false;
  }
  return true;
}

bool same_certificate(const ParsedCertificate& a, const ParsedCertificate& b) {
  return std::memcmp(a.sha1, b.sha1, sizeof b.sha1) == 0;
}

// Copies the properties a context carries in memory onto another element.
void copy_properties(CertElement& from, CertElement& to) {
  std::lock_guard<std::mutex> lock(from.mutex);
  to.key_prov_info_set = from.key_prov_info_set;
  if (from.key_prov_info) to.key_prov_info = std::make_unique<KeyProvInfo>(*from.key_prov_info);
}

// The matching of CertFindCertificateInStore for one certificate.
bool matches(const ParsedCertificate& parsed, DWORD find_type, const void* para) {
  const CERT_INFO& info = parsed.info;
  switch (find_type) {
    case CERT_FIND_ANY:
      return true;
    case CERT_FIND_SHA1_HASH: {
      const auto* hash = static_cast<const CRYPT_HASH_BLOB*>(para);
      return hash->cbData == sizeof parsed.sha1 && std::memcmp(hash->pbData, parsed.sha1, sizeof parsed.sha1) == 0;
    }
    case CERT_FIND_SUBJECT_NAME:
    case CERT_FIND_ISSUER_NAME: {
      const auto* name = static_cast<const CERT_NAME_BLOB*>(para);
      const CERT_NAME_BLOB& own = find_type == CERT_FIND_SUBJECT_NAME ? info.Subject : info.Issuer;
      return own.cbData == name->cbData && (own.cbData == 0 || std::memcmp(own.pbData, name->pbData, own.cbData) == 0);
    }
    case CERT_FIND_SUBJECT_CERT: {
      const auto* id = static_cast<const CERT_INFO*>(para);
      return CertCompareCertificate(X509_ASN_ENCODING, const_cast<CERT_INFO*>(id), const_cast<CERT_INFO*>(&info)) != 0;
    }
    case CERT_FIND_EXISTING: {
      const auto* other = static_cast<PCCERT_CONTEXT>(para);
      return other->cbCertEncoded == parsed.encoded.size() &&
             std::memcmp(other->pbCertEncoded, parsed.encoded.data(), other->cbCertEncoded) == 0;
    }
    default:
      return false;
  }
}

bool known_find_type(DWORD find_type) {
  switch (find_type) {
    case CERT_FIND_ANY:
    case CERT_FIND_SHA1_HASH:
    case CERT_FIND_SUBJECT_NAME:
    case CERT_FIND_ISSUER_NAME:
    case CERT_FIND_SUBJECT_CERT:
    case CERT_FIND_EXISTING:
      return true;
    default:
      return false;
  }
}

// Size of a CRYPT_KEY_PROV_INFO laid out flat as the platform hands it out:
// the record, its parameters, their data, then the two texts.
size_t flat_size(const KeyProvInfo& info) {
  auto align = [](size_t n) { return (n + 7) & ~size_t{7}; };
  size_t size = align(sizeof(CRYPT_KEY_PROV_INFO)) + align(info.params.size() * sizeof(CRYPT_KEY_PROV_PARAM));
  for (const auto& param : info.params) size += align(param.data.size());
  size += (info.container.size() + 1) * sizeof(WCHAR);
  if (info.has_provider) size += (info.provider.size() + 1) * sizeof(WCHAR);
  return align(size);
}

void write_flat(const KeyProvInfo& info, BYTE* out) {
  auto align = [](size_t n) { return (n + 7) & ~size_t{7}; };
  std::memset(out, 0, flat_size(info));
  auto* record = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(out);
  size_t offset = align(sizeof(CRYPT_KEY_PROV_INFO));
  record->dwProvType = info.dwProvType;
  record->dwFlags = info.dwFlags;
  record->dwKeySpec = info.dwKeySpec;
  record->cProvParam = static_cast<DWORD>(info.params.size());
  auto* params = reinterpret_cast<CRYPT_KEY_PROV_PARAM*>(out + offset);
  record->rgProvParam = info.params.empty() ? nullptr : params;
  offset += align(info.params.size() * sizeof(CRYPT_KEY_PROV_PARAM));
  for (size_t i = 0; i < info.params.size(); ++i) {
    params[i].dwParam = info.params[i].dwParam;
    params[i].dwFlags = info.params[i].dwFlags;
    params[i].cbData = static_cast<DWORD>(info.params[i].data.size());
    if (info.params[i].has_data) {
      params[i].pbData = out + offset;
      if (!info.params[i].data.empty()) std::memcpy(out + offset, info.params[i].data.data(), info.params[i].data.size());
      offset += align(info.params[i].data.size());
    }
  }
  record->pwszContainerName = reinterpret_cast<LPWSTR>(out + offset);
  std::memcpy(out + offset, info.container.data(), info.container.size() * sizeof(WCHAR));
  offset += (info.container.size() + 1) * sizeof(WCHAR);
  if (info.has_provider) {
    record->pwszProvName = reinterpret_cast<LPWSTR>(out + offset);
    std::memcpy(out + offset, info.provider.data(), info.provider.size() * sizeof(WCHAR));
  }
}

std::u16string wide_copy(LPCWSTR text) {
  return text == nullptr ? std::u16string() : std::u16string(text, wide_length(text));
}

}  // namespace

// ---------------------------------------------------------------------------

CertElement* element_from_context(PCCERT_CONTEXT context) {
  return checked_object<CertElement>(const_cast<CERT_CONTEXT*>(context), ERROR_INVALID_PARAMETER);
}

bool effective_key_prov_info(CertElement& element, KeyProvInfo& out) {
  {
    std::lock_guard<std::mutex> lock(element.mutex);
    if (element.key_prov_info_set) {
      if (!element.key_prov_info) return false;
      out = *element.key_prov_info;
      return true;
    }
  }
  return key_file_prov_info(element.parsed->key_file, element.parsed->key_oid, out);
}

std::string system_store_root(DWORD location) {
  std::string base;
  if (location == CERT_SYSTEM_STORE_CURRENT_USER) {
    base = special_folder(CSIDL_LOCAL_APPDATA);
  } else if (location == CERT_SYSTEM_STORE_LOCAL_MACHINE) {
    base = special_folder(CSIDL_COMMON_APPDATA);
  }
  if (base.empty()) return {};
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  return base + "/Brelvantec/Certificates";
}

std::string system_store_folder(const std::string& name, DWORD location) {
  const std::string root = system_store_root(location);
  if (root.empty()) return {};
  return root + "/" + name;
}

bool read_system_store(const std::string& name, DWORD location, StoreObjects& out, StoreVersion* version) {
  const std::string folder = system_store_folder(name, location);
  if (folder.empty()) return false;
  auto contents = folder_contents(folder);
  if (version != nullptr) *version = contents;
  if (!contents) return false;
  for (const auto& parsed : contents->certificates) {
    X509_up_ref(parsed->x509.get());
    out.certificates.emplace_back(parsed->x509.get());
  }
  for (const auto& crl : contents->crls) {
    X509_CRL_up_ref(crl.get());
    out.crls.emplace_back(crl.get());
  }
  return true;
}

StoreVersion system_store_version(const std::string& name, DWORD location) {
  const std::string folder = system_store_folder(name, location);
  return folder.empty() ? nullptr : folder_contents(folder);
}

bool store_certificates(HCERTSTORE handle, std::vector<bv::ossl::UniquePtr<X509>>& out) {
  CertStoreObject* store = store_from_handle(handle);
  if (store == nullptr) return false;
  std::lock_guard<std::mutex> lock(store->mutex);
  for (size_t i = 0; i < store->elements.size(); ++i) {
    X509* cert = parsed_at(*store, i).x509.get();
    X509_up_ref(cert);
    out.emplace_back(cert);
  }
  return true;
}

std::string store_folder(HCERTSTORE handle) {
  CertStoreObject* store = store_from_handle(handle);
  return store != nullptr ? store->folder : std::string();
}

void forget_cached_stores() {
  std::lock_guard<std::mutex> lock(cache_mutex);
  folder_cache().clear();
}

}  // namespace bv::platform

using namespace bv::platform;

// ---------------------------------------------------------------------------
// Contexts

PCCERT_CONTEXT CertCreateCertificateContext(DWORD dwCertEncodingType, const BYTE* pbCertEncoded,
                                            DWORD cbCertEncoded) {
  if ((dwCertEncodingType & X509_ASN_ENCODING) == 0) {
    SetLastError(E_INVALIDARG);
    return nullptr;
  }
  auto parsed = parse_certificate(pbCertEncoded, cbCertEncoded);
  if (!parsed) return nullptr;
  // As on the platform, the context lives in a store of its own, which goes
  // when the context goes.
  auto* store = new CertStoreObject;
  CertElement* element = nullptr;
  {
    std::lock_guard<std::mutex> lock(store->mutex);
    element = new_element(store, std::move(parsed));
  }
  store->closed = true;
  release_store(store);  // the element keeps it alive
  return &element->context;
}

PCCERT_CONTEXT CertDuplicateCertificateContext(PCCERT_CONTEXT pCertContext) {
  if (pCertContext == nullptr) return nullptr;
  CertElement* element = element_from_context(pCertContext);
  if (element == nullptr) return nullptr;
  return handed_out(element);
}

BOOL CertFreeCertificateContext(PCCERT_CONTEXT pCertContext) {
  if (pCertContext == nullptr) return TRUE;
  CertElement* element = element_from_context(pCertContext);
  if (element == nullptr) return FALSE;
  release_element(element);
  return TRUE;
}

BOOL CertGetCertificateContextProperty(PCCERT_CONTEXT pCertContext, DWORD dwPropId, void* pvData,
                                       DWORD* pcbData) {
  CertElement* element = element_from_context(pCertContext);
  if (element == nullptr) return FALSE;
  if (pcbData == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  switch (dwPropId) {
    case CERT_SHA1_HASH_PROP_ID:
      return copy_output(element->parsed->sha1, sizeof element->parsed->sha1, pvData, pcbData) ? TRUE : FALSE;
    case CERT_KEY_PROV_INFO_PROP_ID: {
      KeyProvInfo info;
      if (!effective_key_prov_info(*element, info)) {
        SetLastError(CRYPT_E_NOT_FOUND);
        return FALSE;
      }
      // A size query succeeds; a short buffer gets the size and ERROR_MORE_DATA.
      const BOOL ok = prepare_output_space(pvData, pcbData, static_cast<DWORD>(flat_size(info))) || pvData == nullptr;
      if (ok && pvData != nullptr) write_flat(info, static_cast<BYTE*>(pvData));
      wipe_key_prov_info(info);
      return ok;
    }
    case CERT_KEY_SPEC_PROP_ID: {
      KeyProvInfo info;
      if (!effective_key_prov_info(*element, info)) {
        SetLastError(CRYPT_E_NOT_FOUND);
        return FALSE;
      }
      const DWORD key_spec = info.dwKeySpec;
      wipe_key_prov_info(info);
      return copy_output(&key_spec, sizeof key_spec, pvData, pcbData) ? TRUE : FALSE;
    }
    default:
      SetLastError(CRYPT_E_NOT_FOUND);
      return FALSE;
  }
}

BOOL CertSetCertificateContextProperty(PCCERT_CONTEXT pCertContext, DWORD dwPropId, DWORD /*dwFlags*/,
                                       const void* pvData) {
  CertElement* element = element_from_context(pCertContext);
  if (element == nullptr) return FALSE;
  if (dwPropId != CERT_KEY_PROV_INFO_PROP_ID) {
    SetLastError(E_INVALIDARG);
    return FALSE;
  }
  // Properties live in memory only, with the element of this open store;
  // the key file on disk is the one persistent link, so a set with or
  // without CERT_SET_PROPERTY_INHIBIT_PERSIST_FLAG never writes anything.
  std::unique_ptr<KeyProvInfo> info;
  if (pvData != nullptr) {
    const auto* given = static_cast<const CRYPT_KEY_PROV_INFO*>(pvData);
    if (given->cProvParam != 0 && given->rgProvParam == nullptr) {
      SetLastError(E_INVALIDARG);
      return FALSE;
    }
    info = std::make_unique<KeyProvInfo>();
    info->container = wide_copy(given->pwszContainerName);
    info->has_provider = given->pwszProvName != nullptr;
    info->provider = wide_copy(given->pwszProvName);
    info->dwProvType = given->dwProvType;
    info->dwFlags = given->dwFlags;
    info->dwKeySpec = given->dwKeySpec;
    for (DWORD i = 0; i < given->cProvParam; ++i) {
      const CRYPT_KEY_PROV_PARAM& param = given->rgProvParam[i];
      KeyProvInfo::Param copy;
      copy.dwParam = param.dwParam;
      copy.dwFlags = param.dwFlags;
      copy.has_data = param.pbData != nullptr;
      if (param.pbData != nullptr) copy.data.assign(param.pbData, param.pbData + param.cbData);
      info->params.push_back(std::move(copy));
    }
  }
  std::lock_guard<std::mutex> lock(element->mutex);
  if (element->key_prov_info) wipe_key_prov_info(*element->key_prov_info);
  element->key_prov_info = std::move(info);
  element->key_prov_info_set = true;
  // A key opened under the old information no longer answers for this one;
  // a caller may still hold its handle, so it goes with the context.
  if (element->cached_provider != 0) {
    element->retired_providers.push_back(element->cached_provider);
    element->cached_provider = 0;
  }
  return TRUE;
}

// ---------------------------------------------------------------------------
// Stores

HCERTSTORE CertOpenStore(LPCSTR lpszStoreProvider, DWORD /*dwEncodingType*/, HCRYPTPROV_LEGACY /*hCryptProv*/,
                         DWORD dwFlags, const void* pvPara) {
  if (lpszStoreProvider == CERT_STORE_PROV_MEMORY) {
    auto* store = new CertStoreObject;
    return store;
  }
  std::string name;
  if (lpszStoreProvider == CERT_STORE_PROV_SYSTEM_W) {
    if (pvPara != nullptr) name = utf8_of(static_cast<LPCWSTR>(pvPara));
  } else if (lpszStoreProvider == CERT_STORE_PROV_SYSTEM_A) {
    if (pvPara != nullptr) name = static_cast<LPCSTR>(pvPara);
  } else {
    SetLastError(ERROR_FILE_NOT_FOUND);  // no such store provider here
    return nullptr;
  }
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
    SetLastError(E_INVALIDARG);
    return nullptr;
  }
  const DWORD location = dwFlags & CERT_SYSTEM_STORE_LOCATION_MASK;
  const std::string folder = system_store_folder(name, location);
  if (folder.empty()) {
    SetLastError(E_INVALIDARG);
    return nullptr;
  }
  struct stat info {};
  const bool exists = stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  if (!exists) {
    if (dwFlags & CERT_STORE_OPEN_EXISTING_FLAG) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return nullptr;
    }
    // A store folder holds key files beside the certificates: its owner's alone.
    const int error = (dwFlags & CERT_STORE_READONLY_FLAG) ? 0 : make_directories(folder, 0700);
    if (error != 0) {
      SetLastError(error == EACCES || error == EPERM || error == EROFS ? ERROR_ACCESS_DENIED : ERROR_PATH_NOT_FOUND);
      return nullptr;
    }
  }
  auto* store = new CertStoreObject;
  store->folder = folder;
  store->read_only = (dwFlags & CERT_STORE_READONLY_FLAG) != 0;
  if (auto contents = folder_contents(folder)) {
    std::lock_guard<std::mutex> lock(store->mutex);
    store->read = std::shared_ptr<const std::vector<std::shared_ptr<const ParsedCertificate>>>(
        contents, &contents->certificates);
    store->elements.assign(contents->certificates.size(), nullptr);
  }
  return store;
}

BOOL CertCloseStore(HCERTSTORE hCertStore, DWORD /*dwFlags*/) {
  if (hCertStore == nullptr) return TRUE;
  CertStoreObject* store = store_from_handle(hCertStore);
  if (store == nullptr) return FALSE;
  // Contexts the caller still holds stay valid (with or without
  // CERT_STORE_DEFER_CLOSE_UNTIL_LAST_FREE_FLAG): each keeps the store's
  // memory alive until it is freed.
  std::vector<CertElement*> elements;
  {
    std::lock_guard<std::mutex> lock(store->mutex);
    store->closed = true;
    elements.swap(store->elements);
  }
  store->references.fetch_add(1);  // keep it while its elements go
  for (CertElement* element : elements)
    if (element != nullptr) release_element(element);
  release_store(store);
  release_store(store);
  return TRUE;
}

PCCERT_CONTEXT CertEnumCertificatesInStore(HCERTSTORE hCertStore, PCCERT_CONTEXT pPrevCertContext) {
  return CertFindCertificateInStore(hCertStore, X509_ASN_ENCODING, 0, CERT_FIND_ANY, nullptr, pPrevCertContext);
}

PCCERT_CONTEXT CertFindCertificateInStore(HCERTSTORE hCertStore, DWORD /*dwCertEncodingType*/,
                                          DWORD /*dwFindFlags*/, DWORD dwFindType, const void* pvFindPara,
                                          PCCERT_CONTEXT pPrevCertContext) {
  CertStoreObject* store = store_from_handle(hCertStore);
  CertElement* previous = nullptr;
  if (pPrevCertContext != nullptr) {
    previous = element_from_context(pPrevCertContext);
    if (previous == nullptr) return nullptr;
  }
  auto finish = [&](PCCERT_CONTEXT found, DWORD error) {
    if (previous != nullptr) release_element(previous);  // the previous context is always freed
    if (found == nullptr) SetLastError(error);
    return found;
  };
  if (store == nullptr) return finish(nullptr, ERROR_INVALID_HANDLE);
  if (!known_find_type(dwFindType)) return finish(nullptr, E_INVALIDARG);
  if (dwFindType != CERT_FIND_ANY && pvFindPara == nullptr) return finish(nullptr, E_INVALIDARG);
  std::lock_guard<std::mutex> lock(store->mutex);
  size_t start = 0;
  if (previous != nullptr) {
    // A context of another store, or one replaced since, has no place here.
    if (previous->position >= store->elements.size() || store->elements[previous->position] != previous)
      return finish(nullptr, CRYPT_E_NOT_FOUND);
    start = previous->position + 1;
  }
  for (size_t i = start; i < store->elements.size(); ++i) {
    if (matches(parsed_at(*store, i), dwFindType, pvFindPara)) return finish(handed_out(element_at(*store, i)), 0);
  }
  return finish(nullptr, CRYPT_E_NOT_FOUND);
}

BOOL CertAddCertificateContextToStore(HCERTSTORE hCertStore, PCCERT_CONTEXT pCertContext, DWORD dwAddDisposition,
                                      PCCERT_CONTEXT* ppStoreContext) {
  if (ppStoreContext != nullptr) *ppStoreContext = nullptr;
  CertStoreObject* store = store_from_handle(hCertStore);
  if (store == nullptr) return FALSE;
  CertElement* source = element_from_context(pCertContext);
  if (source == nullptr) return FALSE;
  if (dwAddDisposition < CERT_STORE_ADD_NEW || dwAddDisposition > CERT_STORE_ADD_NEWER_INHERIT_PROPERTIES) {
    SetLastError(E_INVALIDARG);
    return FALSE;
  }
  if (store->read_only) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  std::lock_guard<std::mutex> lock(store->mutex);
  auto existing = store->elements.end();
  for (size_t i = 0; i < store->elements.size() && existing == store->elements.end(); ++i)
    if (same_certificate(parsed_at(*store, i), *source->parsed)) existing = store->elements.begin() + i;
  if (existing != store->elements.end()) element_at(*store, static_cast<size_t>(existing - store->elements.begin()));
  if (existing != store->elements.end() && dwAddDisposition != CERT_STORE_ADD_ALWAYS) {
    if (dwAddDisposition == CERT_STORE_ADD_NEW) {
      SetLastError(CRYPT_E_EXISTS);
      return FALSE;
    }
    if (dwAddDisposition == CERT_STORE_ADD_USE_EXISTING || dwAddDisposition == CERT_STORE_ADD_NEWER ||
        dwAddDisposition == CERT_STORE_ADD_NEWER_INHERIT_PROPERTIES) {
      if (ppStoreContext != nullptr) *ppStoreContext = handed_out(*existing);
      return TRUE;
    }
  }
  const CertElement* held = existing != store->elements.end() ? *existing : nullptr;
  if (!store->folder.empty() && !write_certificate_file(store->folder, *source->parsed, held)) return FALSE;
  CertElement* added = new_element(store, source->parsed);
  if (source != added) copy_properties(*source, *added);
  if (existing != store->elements.end() && dwAddDisposition != CERT_STORE_ADD_ALWAYS) {
    CertElement* replaced = *existing;
    if (dwAddDisposition == CERT_STORE_ADD_REPLACE_EXISTING_INHERIT_PROPERTIES && !added->key_prov_info_set) {
      copy_properties(*replaced, *added);
    }
    added->position = static_cast<size_t>(existing - store->elements.begin());
    *existing = added;
    release_element(replaced);
  } else {
    added->position = store->elements.size();
    store->elements.push_back(added);
  }
  if (ppStoreContext != nullptr) *ppStoreContext = handed_out(added);
  return TRUE;
}

BOOL CertAddEncodedCertificateToStore(HCERTSTORE hCertStore, DWORD dwCertEncodingType, const BYTE* pbCertEncoded,
                                      DWORD cbCertEncoded, DWORD dwAddDisposition, PCCERT_CONTEXT* ppCertContext) {
  PCCERT_CONTEXT context = CertCreateCertificateContext(dwCertEncodingType, pbCertEncoded, cbCertEncoded);
  if (context == nullptr) return FALSE;
  const BOOL added = CertAddCertificateContextToStore(hCertStore, context, dwAddDisposition, ppCertContext);
  const DWORD error = GetLastError();
  CertFreeCertificateContext(context);
  SetLastError(error);
  return added;
}

PCCERT_CONTEXT CertGetSubjectCertificateFromStore(HCERTSTORE hCertStore, DWORD dwCertEncodingType,
                                                  PCERT_INFO pCertId) {
  if (pCertId == nullptr) {
    SetLastError(E_INVALIDARG);
    return nullptr;
  }
  return CertFindCertificateInStore(hCertStore, dwCertEncodingType, 0, CERT_FIND_SUBJECT_CERT, pCertId, nullptr);
}

namespace bv::platform {

void close_cert_store(HCERTSTORE store) { CertCloseStore(store, 0); }
void free_cert_context(PCCERT_CONTEXT context) { CertFreeCertificateContext(context); }

}  // namespace bv::platform
