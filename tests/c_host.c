/* A plain C host: loads the library with dlopen, as SAP does, and asks for
 * its version through the public header's declarations. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "bvsapssf_api.h"

typedef SSF_RC (*VersionFn)(char**, uint32_t*);
typedef SSF_RC (*DeleteFn)(unsigned char**, uint32_t*);

int main(int argc, char** argv) {
  static const char expected[] = "Brelvantec SSF library for SAP Version 1.01";
  void* library;
  VersionFn version_fn;
  DeleteFn delete_fn;
  char* version = NULL;
  uint32_t length = 0;
  SSF_RC rc;
  int ok;

  if (argc != 2) {
    fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
    return 2;
  }
  library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  /* POSIX guarantees this conversion of dlsym's result. */
  *(void**)&version_fn = dlsym(library, "SsfVersion");
  *(void**)&delete_fn = dlsym(library, "SsfDELSsfOctetstring");
  if (version_fn == NULL || delete_fn == NULL) {
    fprintf(stderr, "missing export\n");
    return 1;
  }
  rc = version_fn(&version, &length);
  ok = rc == SSF_OK && length == sizeof expected - 1 && memcmp(version, expected, sizeof expected) == 0;
  printf("SsfVersion: rc %u, length %u, \"%s\"\n", (unsigned)rc, (unsigned)length, ok ? version : "?");
  delete_fn((unsigned char**)&version, &length);
  ok = ok && version == NULL && length == 0;
  dlclose(library);
  return ok ? 0 : 1;
}
