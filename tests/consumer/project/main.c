/* Prints the engine's version, then creates, fills and reads back a small
 * table (named by the first argument) through the installed library. */
#include <stdio.h>
#include <string.h>

#include <kestrel/kestrel.h>

int main(int argc, char** argv) {
  char version[16];
  DBFIELD field;
  int32_t table = -1, recno = 0;
  char name[11] = {0};
  if (argc < 2 || DBInitialize(20, 0) != 0) return 1;
  if (DBGetVersion(version) != 0) return 2;
  memset(&field, 0, sizeof field);
  strcpy(field.name, "NAME");
  field.type = 'C';
  field.length = 10;
  if (DBCreateFile(argv[1], 1, &field, 1) != 0) return 3;
  if (DBOpenFile(&table, argv[1], 1) != 0) return 4;
  if (DBPutNamedData(table, "NAME", "SMITH") < 0 || DBPutRecord(table, &recno, 0) < 0) return 5;
  if (DBGetRecord(table, recno) != 0 || DBGetFieldData(table, 0, name) < 0) return 6;
  if (strncmp(name, "SMITH", 5) != 0 || DBCloseFile(table) != 0) return 7;
  printf("engine %s\n", version);
  return DBTerminate() == 0 ? 0 : 8;
}
