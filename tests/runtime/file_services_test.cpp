// File services on real files: share-mode opens, exact-size transfers, size
// and position, rename and delete codes, and null arguments.
#include <cstring>
#include <string>

#include "runtime/file_services.h"
#include "runtime/library_state.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

class FileServicesTest : public LibraryTestOf<20> {
 protected:
  std::string MakeFile(const std::string& name, const std::string& content) {
    std::string path = dir_.File(name);
    WriteFileBytes(path, std::vector<uint8_t>(content.begin(), content.end()));
    return path;
  }
  // Opens with mode; checks the code, the handle and the attribute bits
  // (read-only 1, shared 4, the caller's other bits kept).  A success
  // returns the code it found, so the code is cleared first.
  FileHandle Open(const std::string& path, int32_t mode, int32_t expect = 0) {
    FileHandle h = 12345;
    uint32_t attributes = 0xF0;
    DBSetErrorCode(0);
    int32_t rc = FileOpen(&h, path.c_str(), mode, &attributes);
    EXPECT_EQ(rc < 0 ? rc : 0, expect) << path << " mode " << mode;
    if (rc < 0) {
      EXPECT_EQ(h, kNoFile);
    } else {
      EXPECT_EQ(attributes, 0xF0 | ((mode & 0x100) ? 1u : 0u) | ((mode & 0x400) ? 4u : 0u));
    }
    return h;
  }
};

TEST_F(FileServicesTest, ExclusiveAndSharedOpens) {
  std::string path = MakeFile("t.dbf", "abc");
  FileHandle h = Open(path, 0);
  for (int32_t mode : {0x400, 0x500, 0}) Open(path, mode, -246);
  FileHandle created = 0;
  EXPECT_EQ(FileCreate(&created, path.c_str()), -246);
  EXPECT_EQ(ReadFileText(path), "abc");  // refused before it was truncated
  EXPECT_EQ(FileExists(path.c_str()), 0);
  FileClose(h);
  EXPECT_EQ(FileExists(path.c_str()), 1);

  // Shared opens admit shared opens only.
  FileHandle a = Open(path, 0x400);
  FileHandle b = Open(path, 0x500);
  for (int32_t mode : {0, 0x100}) Open(path, mode, -246);
  DBSetErrorCode(0);
  EXPECT_EQ(FileExists(path.c_str()), 0);  // someone holds it open
  EXPECT_EQ(FileExists(dir_.File("none").c_str()), 0);
  EXPECT_EQ(FileExists(nullptr), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);  // FileExists never sets a code
  FileClose(a);
  FileClose(b);
  EXPECT_EQ(FileExists(path.c_str()), 1);
}

TEST_F(FileServicesTest, BadNamesShortTransfersAndBadHandles) {
  FileHandle h = 0;
  uint32_t attributes = 0;
  EXPECT_EQ(FileOpen(&h, "", 0, &attributes), -214);
  EXPECT_EQ(FileOpen(&h, "x", 0, nullptr), -221);
  Open(dir_.File("missing.dbf"), 0, -246);
  Open(dir_.path(), 0x100, -246);  // a directory is not a file
  EXPECT_EQ(FileCreate(&h, ""), -214);
  EXPECT_EQ(FileCreate(&h, dir_.File("no/such/dir.dbf").c_str()), -246);
  EXPECT_EQ(h, kNoFile);

  h = Open(MakeFile("t.dbf", "abcde"), 0x100);
  char buf[16];
  EXPECT_EQ(FileRead(h, buf, 6), -202);  // only five bytes there
  EXPECT_EQ(FileReadAt(h, 3, buf, 3), -202);
  EXPECT_EQ(FileWrite(h, "x", 1, 0), -201);  // opened read-only
  FileClose(h);
  uint64_t size = 0;
  EXPECT_EQ(FileSize(-1, &size), -204);
  EXPECT_EQ(FileSeek(-1, 0), -280);
  EXPECT_EQ(FileFlush(-1), -213);
  DBSetErrorCode(-233);
  EXPECT_EQ(FileClose(-1), -233);  // a close never reports an error
}

TEST_F(FileServicesTest, CreateWriteReadRoundTrip) {
  std::string path = MakeFile("t.dbf", "old contents that must go");
  FileHandle h = kNoFile;
  uint64_t size = 99;
  int32_t at_end = -1;
  char buf[8] = {};
  DBSetErrorCode(0);
  ASSERT_EQ(FileCreate(&h, path.c_str()), 0);
  EXPECT_EQ(R(FileSize(h, &size), size), "0 0");
  EXPECT_EQ(FileWrite(h, "0123456789", 10, 1), 0);
  EXPECT_EQ(FileWriteAt(h, 20, "XY", 2, 0), 0);  // the gap reads as zeros
  EXPECT_EQ(FileSeek(h, 4), 0);
  EXPECT_EQ(R(FileSize(h, &size), size), "0 22");
  EXPECT_EQ(FileRead(h, buf, 3), 0);  // FileSize kept the position at 4
  EXPECT_EQ(R(FileAtEnd(h, &at_end), at_end), "0 0");
  EXPECT_EQ(FileReadAt(h, 18, buf + 3, 4), 0);
  EXPECT_EQ(std::string(buf, 7), std::string("456\0\0XY", 7));
  EXPECT_EQ(FileTruncate(h, 5), 0);
  EXPECT_EQ(R(FileSize(h, &size), size), "0 5");
  EXPECT_EQ(R(FileAtEnd(h, &at_end), at_end), "0 1");  // the truncate left the position at 5
  EXPECT_EQ(FileFlush(h), 0);

  // A view of the file sees the library's own later writes.
  const uint8_t* view = reinterpret_cast<const uint8_t*>(1);
  ASSERT_EQ(FileMapView(h, 0, &view), 0);
  EXPECT_EQ(view, nullptr);  // nothing to map: callers read through the file
  ASSERT_EQ(FileMapView(h, 5, &view), 0);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(FileWriteAt(h, 2, "XY", 2, 0), 0);
  EXPECT_EQ(std::memcmp(view, "01XY4", 5), 0);
  FileUnmapView(view, 5);
  FileClose(h);
  EXPECT_EQ(ReadFileText(path), "01XY4");
}

TEST_F(FileServicesTest, RenameAndDeleteCodes) {
  // A failed rename's code comes from the library code the caller left.
  std::string missing = dir_.File("missing.dbf");
  std::string target = dir_.File("new.dbf");
  for (auto [before, after] : {std::pair{0, 49152}, {2, -205}, {13, -240}, {5, 0xC005}}) {
    DBSetErrorCode(before);
    EXPECT_EQ(FileRename(target.c_str(), missing.c_str()), after) << before;
  }
  EXPECT_EQ(FileRename(nullptr, missing.c_str()), -221);
  EXPECT_EQ(FileRename(target.c_str(), nullptr), -221);

  std::string old_name = MakeFile("old.dbf", "data");
  DBSetErrorCode(0);
  EXPECT_EQ(FileRename(target.c_str(), old_name.c_str()), 0);
  EXPECT_EQ(ReadFileText(target), "data");
  EXPECT_EQ(FileExists(old_name.c_str()), 0);
  // An existing target is never replaced.
  std::string other = MakeFile("other.dbf", "keep");
  EXPECT_EQ(FileRename(other.c_str(), target.c_str()), 49152);
  EXPECT_EQ(ReadFileText(other), "keep");

  DBSetErrorCode(0);
  EXPECT_EQ(FileDelete(target.c_str()), 0);
  EXPECT_EQ(FileExists(target.c_str()), 0);
  EXPECT_EQ(FileDelete(target.c_str()), 204);  // a warning for a missing file
  EXPECT_EQ(DBGetErrorCode(), 204);
  EXPECT_EQ(FileDelete(nullptr), -221);
}

}  // namespace
}  // namespace kestrel::test
