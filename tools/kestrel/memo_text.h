// Memo text for the table commands: finds the memo file that belongs to a
// table and reads the memo a record's memo field points to.
//
//     MemoReader memos;
//     memos.Open(table_path, dialect);           // once per table
//     std::string text;
//     memos.ReadField(table_handle, field, &text);  // current record
#pragma once

#include <cstdint>
#include <string>

namespace kestrel::tool {

// The memo file of a table: the table's name with the extension replaced,
// ".FPT" for the FoxPro dialects (4, 8), ".DBT" for the others (FoxBase, 3,
// tries ".FBT" first).  The new extension takes the letter case of the
// table's; when that name does not exist the other case is tried.  Returns
// the first candidate that exists, or "" when none does.
std::string FindMemoFile(const std::string& table_path, int dialect);

class MemoReader {
 public:
  MemoReader() = default;
  ~MemoReader();
  MemoReader(const MemoReader&) = delete;
  MemoReader& operator=(const MemoReader&) = delete;

  // Opens the table's memo file read-only and shared.  -205 when the table
  // has no memo file; otherwise the status of the open.
  int32_t Open(const std::string& table_path, int dialect);
  bool is_open() const { return handle_ >= 0; }
  const std::string& path() const { return path_; }
  bool is_fpt() const { return fpt_; }

  // The memo at block, raw (soft line breaks kept); block 0 is an empty
  // text.  Returns the library status.
  int32_t Read(uint32_t block, std::string* text);
  // The memo that field `field` (0-based) of the table's current record
  // points to; a blank field is an empty text.
  int32_t ReadField(int32_t table_handle, int32_t field, std::string* text);

 private:
  int32_t handle_ = -1;
  bool fpt_ = false;
  std::string path_;
};

}  // namespace kestrel::tool
