/* Compiles the public header as a C host would. */
#include "bvsapssf_api.h"

int bvsapssf_c_header_check(void) {
  SsfInfo info;
  SsfInfoNode node;
  node.info = &info;
  node.next = 0;
  return (int)sizeof node + (int)SSF_OK;
}
