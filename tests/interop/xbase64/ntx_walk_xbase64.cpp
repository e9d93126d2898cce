// Reads an .NTX index with Xbase64 (libxbase64) and prints its keys in order,
// one line per key: the record number, a tab and the key bytes in hexadecimal
// as Xbase64 took them from the index page.
//
//   ntx_walk_xbase64 walk TABLE INDEX   Xbase64's own first-key / next-key walk.
//                                       It steps over the keys held in branch
//                                       pages and visits leaf keys only.
//   ntx_walk_xbase64 tree TABLE INDEX   every key: an in-order descent through
//                                       the pages as Xbase64 reads them (items,
//                                       child pages, record numbers, keys);
//                                       each line ends in a tab and "leaf" or
//                                       "branch".
//   ntx_walk_xbase64 probe              exits with 0 when the library loads.
//
// The table is needed because Xbase64 opens an index only through one, and
// parses the index's key expression against its fields; the walk also reads
// the record of every key.  Exit status 1 on any error (on stderr).
#include <xbase64/xbase64.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

void PrintKey(long record, const char* key, int length, const char* suffix) {
  std::printf("%ld\t", record);
  for (int i = 0; i < length; ++i) std::printf("%02x", static_cast<unsigned char>(key[i]));
  std::printf("%s\n", suffix);
}

// Opens up the page-level reads of xbNtx that its public interface keeps to itself.
class Reader : public xbNtx {
 public:
  explicit Reader(xbDbf* table) : xbNtx(table) {}

  int KeyLength() const { return HeadNode.KeyLen; }

  // The key of the item the walk stands on, as stored in the page.
  const char* CurrentPageKey() { return GetKeyData(CurNode->CurKeyNo, CurNode); }

  // Prints the keys below `page` in order; false on a read error or a tree
  // deeper than any sound index.
  bool Descend(long page, int depth) {
    if (depth > 32) {
      std::fprintf(stderr, "tree deeper than 32 levels at page %ld\n", page);
      return false;
    }
    int rc = GetLeafNode(page, 1);
    if (rc != XB_NO_ERROR) {
      std::fprintf(stderr, "page %ld: %s\n", page, xbXBase::GetErrorMessage(rc));
      return false;
    }
    struct Item {
      long child;
      long record;
      std::string key;
    };
    std::vector<Item> items;
    xbNodeLink* node = CurNode;
    int count = node->Leaf.NoOfKeysThisNode;
    for (int i = 0; i <= count; ++i) {
      items.push_back({GetLeftNodeNo(i, node), GetDbfNo(i, node),
                       std::string(GetKeyData(i, node), static_cast<size_t>(KeyLength()))});
    }
    for (int i = 0; i <= count; ++i) {
      if (items[i].child != 0 && !Descend(items[i].child, depth + 1)) return false;
      if (i < count) {
        PrintKey(items[i].record, items[i].key.data(), KeyLength(),
                 items[i].child != 0 ? "\tbranch" : "\tleaf");
      }
    }
    return true;
  }

  long Root() const { return HeadNode.StartNode; }
};

int Fail(const char* what, const char* path, int rc) {
  std::fprintf(stderr, "%s %s: %s (%d)\n", what, path, xbXBase::GetErrorMessage(rc), rc);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "probe" && argc == 2) {
    xbXBase xbase;
    xbDbf table(&xbase);
    Reader index(&table);
    return sizeof(long) == 4 ? 0 : 1;
  }
  if ((mode != "walk" && mode != "tree") || argc != 4) {
    std::fprintf(stderr, "usage: %s walk|tree TABLE INDEX, or %s probe\n", argv[0], argv[0]);
    return 2;
  }
  xbXBase xbase;
  xbDbf table(&xbase);
  int rc = table.OpenDatabase(argv[2]);
  if (rc != XB_NO_ERROR) return Fail("table", argv[2], rc);
  table.AutoLockOff();  // read-only use; the files are not shared while it runs
  Reader index(&table);
  rc = index.OpenIndex(argv[3]);
  if (rc != XB_NO_ERROR) return Fail("index", argv[3], rc);
  if (mode == "tree") {
    if (!index.Descend(index.Root(), 0)) return 1;
  } else {
    for (rc = index.GetFirstKey(); rc == XB_NO_ERROR; rc = index.GetNextKey()) {
      PrintKey(static_cast<long>(index.GetCurDbfRec()), index.CurrentPageKey(), index.KeyLength(),
               "");
    }
    if (rc != XB_EOF) return Fail("walk of", argv[3], rc);
  }
  index.CloseIndex();
  table.CloseDatabase();
  return std::fflush(stdout) == 0 ? 0 : 1;
}
