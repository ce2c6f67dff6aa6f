// Opened keys kept per process: a burst of signatures with one key pays its
// PIN's key derivation once.  An entry is found by the key file's identity
// (device, inode, size, modification time) and a keyed hash of the PIN it
// opened with, never the PIN itself: another PIN or a changed file misses and
// takes the whole way, where a wrong PIN is refused as always.  Entries hold
// the key (PKCS #8, and as scalar and point) in memory that is locked, kept out
// of core dumps and wiped in a forked child; an entry unused for
// BV_PLATFORM_KEY_CACHE_SECONDS (default 300; 0: no cache) is wiped at the
// next key opening.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "openssl/ossl.h"

namespace bv::platform::key_cache {

struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t modified_ns = 0;
};

// False when the file can't be looked at (then nothing is kept for it).
bool identity_of(const std::string& path, FileIdentity& identity);

// The key opened from that file with `pin` (null: without one) earlier in
// this process; null when there is none.  When `certificate_key` (may be
// null) has the kept key's public point, the key is made from its scalar
// and that point, the quick way.
bv::ossl::UniquePtr<EVP_PKEY> find(const FileIdentity& file, const std::string* pin, EVP_PKEY* certificate_key);

// Keeps `key`, just opened from that file with `pin`.
void keep(const FileIdentity& file, const std::string* pin, EVP_PKEY* key);

// Wipes every entry.
void forget_all();

}  // namespace bv::platform::key_cache
