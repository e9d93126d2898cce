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

// Whether a field type holds memo references: M, and G (general) in the
// FoxPro dialects.
bool IsMemoField(int32_t type);

// Whether memo bytes are binary data rather than text: marked as a picture
// by the file, a G field's, or holding a zero byte.
bool IsBinaryMemo(const std::string& bytes, bool picture, int32_t field_type);

// The memo file of a table: the table's name with the extension replaced,
// ".FPT" for the FoxPro dialects (4, 8), ".DBT" for the others (FoxBase, 3,
// tries ".FBT" first).  The new extension takes the letter case of the
// table's; when that name does not exist the other case is tried.  Returns
// the first candidate that exists, or "" when none does.
std::string FindMemoFile(const std::string& table_path, int dialect);
// The names FindMemoFile tries, comma-separated, for messages.
std::string FindMemoFileNames(const std::string& table_path, int dialect);

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

  // The memo at block, every byte of it at any length (soft line breaks
  // kept); block 0 is empty.  *picture (when given) tells a memo the file
  // marks as binary (an FPT picture memo).  Returns the library status.
  int32_t Read(uint32_t block, std::string* bytes, bool* picture = nullptr);
  // The memo that field `field` (0-based) of the table's current record
  // points to; a blank field is empty.  A field holding no block number is
  // an error (-206), never some other memo.
  int32_t ReadField(int32_t table_handle, int32_t field, std::string* bytes,
                    bool* picture = nullptr);

 private:
  int32_t handle_ = -1;
  bool fpt_ = false;
  std::string path_;
};

}  // namespace kestrel::tool
