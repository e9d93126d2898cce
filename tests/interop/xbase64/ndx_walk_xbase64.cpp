// Reads an .NDX index with Xbase64 (libxbase64) and prints its keys in order,
// one line per key: the record number, a tab and the key bytes in
// hexadecimal as Xbase64 took them from the index page.
//
//   ndx_walk_xbase64 walk TABLE INDEX   Xbase64's own first-key / next-key walk
//   ndx_walk_xbase64 probe              exits with 0 when the library loads
//
// Xbase64 opens an index only through its table and reads the record of
// every key.  Exit status 1 on any error (on stderr).
#include <xbase64/xbase64.h>

#include <cstdio>
#include <string>

namespace {

// Opens up the key of the current position, which xbNdx keeps to itself.
class Reader : public xbNdx {
 public:
  explicit Reader(xbDbf* table) : xbNdx(table) {}
  int KeyLength() const { return HeadNode.KeyLen; }
  const char* CurrentPageKey() { return GetKeyData(CurNode->CurKeyNo, CurNode); }
};

int Fail(const char* what, const char* path, int rc) {
  std::fprintf(stderr, "%s %s: %s (%d)\n", what, path, xbXBase::GetErrorMessage(rc), rc);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "probe" && argc == 2) return sizeof(long) == 4 ? 0 : 1;
  if (mode != "walk" || argc != 4) {
    std::fprintf(stderr, "usage: %s walk TABLE INDEX, or %s probe\n", argv[0], argv[0]);
    return 2;
  }
  xbXBase xbase;
  xbDbf table(&xbase);
  int rc = table.OpenDatabase(argv[2]);
  if (rc != XB_NO_ERROR) return Fail("table", argv[2], rc);
  table.AutoLockOff();
  Reader index(&table);
  rc = index.OpenIndex(argv[3]);
  if (rc != XB_NO_ERROR) return Fail("index", argv[3], rc);
  for (rc = index.GetFirstKey(); rc == XB_NO_ERROR; rc = index.GetNextKey()) {
    std::printf("%ld\t", static_cast<long>(index.GetCurDbfRec()));
    const char* key = index.CurrentPageKey();
    for (int i = 0; i < index.KeyLength(); ++i)
      std::printf("%02x", static_cast<unsigned char>(key[i]));
    std::printf("\n");
  }
  if (rc != XB_EOF) return Fail("walk of", argv[3], rc);
  index.CloseIndex();
  table.CloseDatabase();
  return std::fflush(stdout) == 0 ? 0 : 1;
}
