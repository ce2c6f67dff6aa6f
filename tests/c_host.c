/* A plain C host: loads the library with dlopen, as SAP does, and asks for
 * its version through the public header's declarations. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "bvsapssf_api.h"

int main(int argc, char** argv) {
  static const char expected[] = "Brelvantec SSF library for SAP Version 1.01";
  SSF_RC (*version_fn)(char**, uint32_t*);
  SSF_RC (*delete_fn)(unsigned char**, uint32_t*);
  char* version = NULL;
  uint32_t length = 0;
  int ok;
  void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
  if (library == NULL) return fprintf(stderr, "usage: c_host LIBRARY (%s)\n", argc == 2 ? dlerror() : ""), 1;
  /* POSIX guarantees this conversion of dlsym's result. */
  *(void**)&version_fn = dlsym(library, "SsfVersion");
  *(void**)&delete_fn = dlsym(library, "SsfDELSsfOctetstring");
  if (version_fn == NULL || delete_fn == NULL) return fprintf(stderr, "missing export\n"), 1;
  ok = version_fn(&version, &length) == SSF_OK && length == sizeof expected - 1 &&
       memcmp(version, expected, sizeof expected) == 0;
  printf("SsfVersion: length %u, \"%s\"\n", (unsigned)length, ok ? version : "?");
  delete_fn((unsigned char**)&version, &length);
  ok = ok && version == NULL && length == 0;
  dlclose(library);
  return ok ? 0 : 1;
}
