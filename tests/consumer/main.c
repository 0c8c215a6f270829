/* Prints the engine's version through the installed header and library. Plain C: the public
 * header must serve C callers too. */
#include <stdio.h>

#include <zolt_pano.h>

int main(void) {
  const char* version = ZOLT_PANO_GetVersion();
  if (version == NULL) return 1;
  printf("%s\n", version);
  return 0;
}
