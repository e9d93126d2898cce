// File services on real files: share-mode opens, exact-size transfers, size
// and position, rename and delete codes, and null arguments.
#include <cstring>
#include <string>

#include "runtime/file_services.h"
#include "runtime_fixture.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

class FileServicesTest : public RuntimeTest {
 protected:
  std::string MakeFile(const std::string& name, const std::string& content) {
    std::string path = dir_.File(name);
    WriteFileBytes(path, std::vector<uint8_t>(content.begin(), content.end()));
    return path;
  }
  FileHandle Open(const std::string& path, int32_t mode, int32_t expect = 0) {
    FileHandle h = 12345;
    uint32_t attributes = 0xF0;
    int32_t rc = FileOpen(&h, path.c_str(), mode, &attributes);
    EXPECT_EQ(rc < 0 ? rc : 0, expect) << path << " mode " << mode;
    if (rc < 0) {
      EXPECT_EQ(h, kNoFile);
    } else {
      uint32_t want = 0xF0 | ((mode & 0x100) ? 1u : 0u) | ((mode & 0x400) ? 4u : 0u);
      EXPECT_EQ(attributes, want);
    }
    return h;
  }
  TempDir dir_;
};

TEST_F(FileServicesTest, ExclusiveOpenRefusesEveryOtherOpen) {
  std::string path = MakeFile("t.dbf", "abc");
  FileHandle h = Open(path, 0);
  Open(path, 0x400, -246);
  Open(path, 0x100 | 0x400, -246);
  Open(path, 0, -246);
  FileHandle created = 0;
  EXPECT_EQ(FileCreate(&created, path.c_str()), -246);
  EXPECT_EQ(ReadFileText(path), "abc");  // refused before it was truncated
  EXPECT_EQ(FileExists(path.c_str()), 0);
  FileClose(h);
  EXPECT_EQ(FileExists(path.c_str()), 1);
}

TEST_F(FileServicesTest, SharedOpenAdmitsSharedOnly) {
  std::string path = MakeFile("t.dbf", "abc");
  FileHandle a = Open(path, 0x400);
  FileHandle b = Open(path, 0x400 | 0x100);
  Open(path, 0, -246);
  Open(path, 0x100, -246);
  DBSetErrorCode(0);
  EXPECT_EQ(FileExists(path.c_str()), 0);  // someone holds it open
  EXPECT_EQ(FileExists(dir_.File("none").c_str()), 0);
  EXPECT_EQ(FileExists(nullptr), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);  // FileExists never sets a code
  FileClose(a);
  FileClose(b);
  EXPECT_EQ(FileExists(path.c_str()), 1);
}

TEST_F(FileServicesTest, OpenArgumentsAndMissingFiles) {
  FileHandle h = 0;
  uint32_t attributes = 0;
  EXPECT_EQ(FileOpen(nullptr, "x", 0, &attributes), -221);
  EXPECT_EQ(FileOpen(&h, nullptr, 0, &attributes), -221);
  EXPECT_EQ(FileOpen(&h, "x", 0, nullptr), -221);
  EXPECT_EQ(FileOpen(&h, "", 0, &attributes), -214);
  Open(dir_.File("missing.dbf"), 0, -246);
  Open(dir_.path(), 0x100, -246);  // a directory is not a file
  EXPECT_EQ(FileCreate(nullptr, "x"), -221);
  EXPECT_EQ(FileCreate(&h, ""), -214);
  EXPECT_EQ(FileCreate(&h, dir_.File("no/such/dir.dbf").c_str()), -246);
  EXPECT_EQ(h, kNoFile);
}

TEST_F(FileServicesTest, CreateWriteReadRoundTrip) {
  std::string path = MakeFile("t.dbf", "old contents that must go");
  FileHandle h = kNoFile;
  DBSetErrorCode(0);
  ASSERT_EQ(FileCreate(&h, path.c_str()), 0);
  uint64_t size = 99;
  EXPECT_EQ(FileSize(h, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(FileWrite(h, "0123456789", 10, 1), 0);
  EXPECT_EQ(FileWriteAt(h, 20, "XY", 2, 0), 0);  // the gap reads as zeros
  EXPECT_EQ(FileSeek(h, 4), 0);
  EXPECT_EQ(FileSize(h, &size), 0);
  EXPECT_EQ(size, 22u);
  char buf[8] = {};
  EXPECT_EQ(FileRead(h, buf, 3), 0);  // FileSize kept the position at 4
  EXPECT_EQ(std::string(buf, 3), "456");
  int32_t at_end = -1;
  EXPECT_EQ(FileAtEnd(h, &at_end), 0);
  EXPECT_EQ(at_end, 0);
  EXPECT_EQ(FileReadAt(h, 18, buf, 4), 0);
  EXPECT_EQ(std::memcmp(buf, "\0\0XY", 4), 0);
  EXPECT_EQ(FileSeek(h, 22), 0);
  EXPECT_EQ(FileAtEnd(h, &at_end), 0);
  EXPECT_EQ(at_end, 1);
  EXPECT_EQ(FileTruncate(h, 5), 0);
  EXPECT_EQ(FileSize(h, &size), 0);
  EXPECT_EQ(size, 5u);
  EXPECT_EQ(FileAtEnd(h, &at_end), 0);  // the truncate left the position at 5
  EXPECT_EQ(at_end, 1);
  EXPECT_EQ(FileFlush(h), 0);
  FileClose(h);
  EXPECT_EQ(ReadFileText(path), "01234");
}

TEST_F(FileServicesTest, ShortTransfersAndBadHandles) {
  std::string path = MakeFile("t.dbf", "abcde");
  FileHandle h = Open(path, 0x100);
  char buf[16];
  DBErrorLog(0, nullptr);
  EXPECT_EQ(FileRead(h, buf, 6), -202);  // only five bytes there
  EXPECT_EQ(FileReadAt(h, 3, buf, 3), -202);
  EXPECT_EQ(FileWrite(h, "x", 1, 0), -201);  // opened read-only
  EXPECT_EQ(FileRead(h, nullptr, 1), -221);
  EXPECT_EQ(FileWrite(h, nullptr, 1, 0), -221);
  EXPECT_EQ(FileSize(h, nullptr), -221);
  EXPECT_EQ(FileAtEnd(h, nullptr), -221);
  FileClose(h);
  uint64_t size = 0;
  EXPECT_EQ(FileSize(-1, &size), -204);
  EXPECT_EQ(FileSeek(-1, 0), -280);
  EXPECT_EQ(FileFlush(-1), -213);
  EXPECT_EQ(FileTruncate(-1, 0), -280);
  DBSetErrorCode(-233);
  EXPECT_EQ(FileClose(-1), -233);  // a close never reports an error
}

TEST_F(FileServicesTest, ViewSeesTheLibrarysOwnWrites) {
  std::string path = MakeFile("t.dbf", "abcdefgh");
  FileHandle h = Open(path, 0);
  const uint8_t* view = reinterpret_cast<const uint8_t*>(1);
  ASSERT_EQ(FileMapView(h, 0, &view), 0);
  EXPECT_EQ(view, nullptr);  // nothing to map: callers read through the file
  ASSERT_EQ(FileMapView(h, 8, &view), 0);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(std::memcmp(view, "abcdefgh", 8), 0);
  EXPECT_EQ(FileWriteAt(h, 2, "XY", 2, 0), 0);
  EXPECT_EQ(std::memcmp(view, "abXYefgh", 8), 0);
  FileUnmapView(view, 8);
  EXPECT_EQ(FileMapView(h, 8, nullptr), -221);
  FileClose(h);
}

TEST_F(FileServicesTest, RenameCodesComeFromTheLibraryCode) {
  std::string missing = dir_.File("missing.dbf");
  std::string target = dir_.File("new.dbf");
  DBSetErrorCode(0);
  EXPECT_EQ(FileRename(target.c_str(), missing.c_str()), 49152);
  DBSetErrorCode(2);
  EXPECT_EQ(FileRename(target.c_str(), missing.c_str()), -205);
  DBSetErrorCode(13);
  EXPECT_EQ(FileRename(target.c_str(), missing.c_str()), -240);
  DBSetErrorCode(5);
  EXPECT_EQ(FileRename(target.c_str(), missing.c_str()), 0xC005);
  EXPECT_EQ(FileRename(nullptr, missing.c_str()), -221);
  EXPECT_EQ(FileRename(target.c_str(), nullptr), -221);

  std::string old_name = MakeFile("old.dbf", "data");
  DBSetErrorCode(0);
  EXPECT_EQ(FileRename(target.c_str(), old_name.c_str()), 0);
  EXPECT_EQ(ReadFileText(target), "data");
  EXPECT_EQ(FileExists(old_name.c_str()), 0);
  // An existing target is never replaced.
  std::string other = MakeFile("other.dbf", "keep");
  DBSetErrorCode(0);
  EXPECT_EQ(FileRename(other.c_str(), target.c_str()), 49152);
  EXPECT_EQ(ReadFileText(other), "keep");
}

TEST_F(FileServicesTest, DeleteAnswersTheWarningForMissingFiles) {
  std::string path = MakeFile("t.dbf", "x");
  DBSetErrorCode(0);
  EXPECT_EQ(FileDelete(path.c_str()), 0);
  EXPECT_EQ(FileExists(path.c_str()), 0);
  EXPECT_EQ(FileDelete(path.c_str()), 204);
  EXPECT_EQ(DBGetErrorCode(), 204);
  EXPECT_EQ(FileDelete(nullptr), -221);
}

}  // namespace
}  // namespace kestrel::test
