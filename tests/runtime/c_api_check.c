/* A C99 client of the public interface: compiled as strict C99, it proves the
 * headers are C, and it drives a few calls the way a C program would.
 * Returns 0, or the number of the first step that went wrong. */
#include <stdlib.h>
#include <string.h>

#include "kestrel/kestrel.h"

int kestrel_c_api_check(void);

int kestrel_c_api_check(void) {
  char version[16];
  void* block = NULL;
  int32_t used = -1, capacity = -1;
  int32_t retries = -1;

  if (DBInitialize(25, 3) != DB_OK) return 1;
  if (DBGetVersion(version) != 0 || strcmp(version, "4.00 Revision F") != 0) return 2;
  if (DBSetErrorCode(DB_ERR_NULL) != -221) return 3;
  if (strcmp(DBGetErrorStr(), "ERROR - parameter address NULL") != 0) return 4;
  if (DBAllocateMemory(&block, 32) != 0 || block == NULL) return 5;
  if (((const unsigned char*)block)[31] != 0) return 6;
  if (DBReAllocateMemory(&block, 64) != 0) return 7;
  if (DBFreeMemory(block) != 0) return 8;
  if (DBGetLockCount(&used, &capacity) != 0 || used != 0 || capacity != 40) return 9;
  if (DBSetLockRetryCount(3) != 0 || DBGetLockRetryCount(&retries) != 0 || retries != 3) return 10;
  if (DBGetVersion(NULL) != DB_ERR_NULL || DBGetErrorCode() != DB_ERR_NULL) return 11;
  if (DBTerminate() != 0 || DBGetErrorCode() != 0) return 12;
  DBSetLockRetryCount(0);
  return 0;
}
