/* Prints the engine's version through the installed shared library. */
#include <stdio.h>

#include <kestrel/kestrel.h>

int main(void) {
  char version[16];
  if (DBInitialize(20, 0) != 0) return 1;
  if (DBGetVersion(version) != 0) return 2;
  printf("engine %s\n", version);
  return DBTerminate() == 0 ? 0 : 3;
}
