// Memo file pack (memo_pack.h).
#include "memo/memo_pack.h"

#include <cstdio>
#include <cstring>

#include "kestrel/kestrel_table.h"
#include "memo/dbt_memo.h"
#include "memo/fpt_memo.h"
#include "memo/memo_common.h"
#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime/status.h"
#include "table/table_control.h"
#include "table/table_format.h"

namespace kestrel::memo {
namespace {

constexpr ModulePath kDbtPack = KS_ENGINE_MODULE("TPACK");
constexpr ModulePath kFptPack = KS_ENGINE_MODULE("WPACK");

constexpr int kMemoFieldWidth = 10;

// A memo field: its offset in the record.
struct MemoField {
  int32_t offset;
};

// A memo field of a record that gets a new block number.
struct Change {
  int32_t recno;
  int32_t offset;
  uint32_t block;
};

void StoreBlock(uint8_t* field, uint32_t block) {
  char text[kMemoFieldWidth + 1];
  std::snprintf(text, sizeof text, "%10lu", static_cast<unsigned long>(block));
  std::memcpy(field, text, kMemoFieldWidth);
}

// The table side of a pack: the memo fields and the record buffer.
struct TableView {
  table::TableControl* table;
  bool shared;
  int32_t record_count;
  uint8_t* record;
  Vec<MemoField> fields;
};

int32_t OpenTableView(int32_t table, TableView& view, ModulePath module) {
  table::TableControl* t = table::LookUp(table, module);
  if (!t) return ErrorCode();
  view.table = t;
  if (t->attributes & kAttrReadOnly) return KS_FAIL(module, DB_ERR_READ_ONLY);
  view.shared = t->Shared();
  view.record = t->record;
  for (uint32_t i = 0; i < t->field_count; ++i) {
    const table::FieldInfo& f = t->fields[i];
    // G fields (FoxPro tables only) hold memo references as M fields do.
    if ((f.type == 'M' || f.type == 'G') && f.length == kMemoFieldWidth) {
      view.fields.push_back({static_cast<int32_t>(f.offset)});
    }
  }
  return 0;
}

// Calls copy(old_block, &new_block) for every memo of every active record
// and collects the changes.
template <class Copy>
int32_t CollectChanges(TableView& view, Vec<Change>& changes, ModulePath module, Copy&& copy) {
  uint32_t count = 0;
  int32_t rc = table::GetRecordCount(view.table, &count);
  if (rc < 0) return KS_PASS(module, rc);
  // A count beyond what a record number can name is read up to the first
  // record the file does not hold, which fails the pack.
  view.record_count = count > INT32_MAX ? INT32_MAX : static_cast<int32_t>(count);
  if (view.fields.empty()) return 0;
  for (int32_t r = 1; r <= view.record_count; ++r) {
    rc = table::GetRecord(view.table, nullptr, r);
    if (rc < 0) return KS_PASS(module, rc);
    if (view.record[0] != ' ') continue;
    for (const MemoField& f : view.fields) {
      // A reference that is no block number is damage the pack must not
      // paper over (dropping the memo, or copying another one).
      uint32_t old_block = 0;
      if (table::ParseMemoReference(view.record + f.offset, kMemoFieldWidth, &old_block) < 0) {
        return KS_FAIL(module, DB_ERR_CORRUPTED);
      }
      if (old_block == 0) continue;
      uint32_t new_block = 0;
      rc = copy(old_block, &new_block);
      if (rc < 0) return KS_PASS(module, rc);
      changes.push_back({r, f.offset, new_block});
    }
  }
  return 0;
}

int32_t RewriteRecords(TableView& view, const Vec<Change>& changes, ModulePath module) {
  size_t i = 0;
  while (i < changes.size()) {
    int32_t recno = changes[i].recno;
    int32_t rc = table::GetRecord(view.table, nullptr, recno);
    if (rc < 0) return KS_PASS(module, rc);
    bool changed = false;
    for (; i < changes.size() && changes[i].recno == recno; ++i) {
      uint8_t* field = view.record + changes[i].offset;
      uint32_t stored = 0;
      table::ParseMemoReference(field, kMemoFieldWidth, &stored);
      if (stored != changes[i].block) {
        StoreBlock(field, changes[i].block);
        changed = true;
      }
    }
    if (changed) {
      int32_t r = recno;
      rc = table::PutRecord(view.table, nullptr, &r, DB_RECORD_REPLACE);
      if (rc < 0) return KS_PASS(module, rc);
    }
  }
  int32_t rc = table::FlushTable(view.table);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// Holds the table's file lock for the pack when the table is shared.
class TableLock {
 public:
  explicit TableLock(const TableView& view) : view_(view) {}
  ~TableLock() {
    if (held_) table::UnlockAll(view_.table);
  }
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;
  int32_t Take() {
    if (!view_.shared) return 0;
    int32_t rc = table::LockTable(view_.table);
    if (rc < 0) return rc;
    held_ = true;
    return 0;
  }

 private:
  const TableView& view_;
  bool held_ = false;
};

// The work file of a pack: closed, and deleted unless it became the memo
// file, on every way out (a shortage of memory included).
class WorkFile {
 public:
  WorkFile(const char* name, int32_t (*close)(int32_t)) : name_(name), close_(close) {}
  ~WorkFile() {
    // Clean-up keeps the status of the failure that brought us here.
    int32_t code = ErrorCode();
    Close();
    if (!kept_ && FileExists(name_)) FileDelete(name_);
    Record(code);
  }
  WorkFile(const WorkFile&) = delete;
  WorkFile& operator=(const WorkFile&) = delete;
  int32_t* handle() { return &handle_; }
  void Close() {
    if (handle_ >= 0) close_(handle_);
    handle_ = -1;
  }
  void Keep() { kept_ = true; }

 private:
  const char* name_;
  int32_t (*close_)(int32_t);
  int32_t handle_ = -1;
  bool kept_ = false;
};

// The memo lock a pack takes: given back on every way out before the old
// memo file is closed (closing gives it back too), unless the caller held it
// already.
template <class Memo>
class PackMemoLock {
 public:
  PackMemoLock(Memo& memo, int32_t (*lock)(Memo&), int32_t (*unlock)(Memo&))
      : memo_(&memo), lock_(lock), unlock_(unlock), held_before_(memo.locked) {}
  ~PackMemoLock() {
    if (!memo_ || held_before_ || !memo_->locked) return;
    // The failure's status is kept; the file services report the current
    // status on success, so the unlock starts from a clean one.
    int32_t code = ErrorCode();
    Succeed();
    unlock_(*memo_);
    Record(code);
  }
  PackMemoLock(const PackMemoLock&) = delete;
  PackMemoLock& operator=(const PackMemoLock&) = delete;
  int32_t Take() { return lock_(*memo_); }
  void Closed() { memo_ = nullptr; }

 private:
  Memo* memo_;
  int32_t (*lock_)(Memo&);
  int32_t (*unlock_)(Memo&);
  bool held_before_;
};

// Replaces the memo file by the work file, keeping the old one as backup.
int32_t SwapFiles(const char* memo_name, const char* work_name, const char* backup,
                  ModulePath module) {
  FileDelete(backup);  // a missing backup is no failure
  Succeed();
  int32_t rc = FileRename(backup, memo_name);
  if (rc != 0) return KS_PASS(module, rc < 0 ? rc : DB_ERR_ACCESS_DENIED);
  rc = FileRename(memo_name, work_name);
  if (rc != 0) return KS_PASS(module, rc < 0 ? rc : DB_ERR_ACCESS_DENIED);
  return 0;
}

// What a pack needs of each memo format.
struct DbtFormat {
  using Memo = DbtMemo;
  static constexpr int32_t kKind = DB_KIND_DBT_MEMO;
  static constexpr const char* kExtension = ".DBT";
  static int32_t Lock(DbtMemo& m) { return DbtLock(m); }
  static int32_t Unlock(DbtMemo& m) { return DbtUnlock(m); }
  static int32_t Open(int32_t* handle, const char* name, int32_t switches) {
    return DbtOpen(handle, name, switches);
  }
  static int32_t Close(int32_t handle) { return DbtClose(handle); }
  // An empty work file with the old file's block size and dialect, opened.
  static int32_t CreateWork(const DbtMemo& old, const char* name, int32_t* handle) {
    int32_t blocks = static_cast<int32_t>(old.block_size / kPlainBlockSize);
    int32_t rc = DbtCreate(name, blocks < 1 ? 1 : blocks, old.dialect);
    return rc < 0 ? rc : DbtOpen(handle, name, old.dialect);
  }
  struct Copier {
    Copier(DbtMemo& from, DbtMemo& to) : old(from), work(to) {}
    DbtMemo& old;
    DbtMemo& work;
    int32_t operator()(uint32_t old_block, uint32_t* new_block) {
      Buffer text;
      uint8_t* data = nullptr;
      size_t length = 0;
      int32_t r = DbtRead(old, old_block, &data, &length);
      if (r < 0) return r;
      text.Adopt(data, length + 1);
      return DbtWrite(work, 0, text.data(), length, false, new_block);
    }
  };
};

struct FptFormat {
  using Memo = FptMemo;
  static constexpr int32_t kKind = DB_KIND_FPT_MEMO;
  static constexpr const char* kExtension = ".FPT";
  static int32_t Lock(FptMemo& m) { return FptLock(m); }
  static int32_t Unlock(FptMemo& m) { return FptUnlock(m); }
  static int32_t Open(int32_t* handle, const char* name, int32_t switches) {
    return FptOpen(handle, name, switches);
  }
  static int32_t Close(int32_t handle) { return FptClose(handle); }
  static int32_t CreateWork(const FptMemo& old, const char* name, int32_t* handle) {
    uint32_t bs = old.block_size;
    int32_t rc = FptCreate(name, static_cast<int32_t>(bs > 511 ? bs / 512 : bs));
    return rc < 0 ? rc : FptOpen(handle, name, 0);
  }
  struct Copier {
    Copier(FptMemo& from, FptMemo& to) : old(from), work(to) {}
    FptMemo& old;
    FptMemo& work;
    Buffer data;
    int32_t operator()(uint32_t old_block, uint32_t* new_block) {
      uint32_t type = 0;
      uint32_t length = 0;
      int32_t r = FptMemoHeader(old, old_block, &type, &length);
      if (r < 0) return r;
      uint32_t count = 0;
      r = FptRead(old, old_block, length, false, data, true, &count);
      if (r < 0) return r;
      *new_block = 0;
      // An empty memo keeps a header of its own, as the old file had it.
      return FptWrite(work, new_block, data.data(), count, count, type, false, false);
    }
  };
};

template <class Format>
int32_t PackMemoFile(int32_t table, int32_t* memo_handle, ModulePath module) {
  using Memo = typename Format::Memo;
  if (!memo_handle) return KS_FAIL(module, DB_ERR_NULL);
  Memo* old_memo = nullptr;
  int32_t rc = CheckHandle(*memo_handle, Format::kKind, &old_memo);
  if (rc < 0) return KS_FAIL(module, rc);
  if (old_memo->attributes & kAttrReadOnly) return KS_FAIL(module, DB_ERR_READ_ONLY);
  Succeed();
  TableView view{};
  rc = OpenTableView(table, view, module);
  if (rc < 0) return rc;
  TableLock table_lock(view);
  rc = table_lock.Take();
  if (rc < 0) return KS_PASS(module, rc);
  PackMemoLock<Memo> memo_lock(*old_memo, Format::Lock, Format::Unlock);
  rc = memo_lock.Take();
  if (rc < 0) return KS_PASS(module, rc);

  // 1. Copy the live memos into a work file.
  Vec<char> memo_name(NameOf(old_memo->name), NameOf(old_memo->name) + old_memo->name.size());
  if (memo_name.empty() || memo_name.back() != '\0') memo_name.push_back('\0');
  Vec<char> work_name = WorkFileName(memo_name.data(), Format::kExtension);
  Vec<char> backup = ReplaceExtension(memo_name.data(), ".BKT");
  WorkFile work_file(work_name.data(), Format::Close);
  rc = Format::CreateWork(*old_memo, work_name.data(), work_file.handle());
  if (rc < 0) return KS_PASS(module, rc);
  Memo* work = nullptr;
  CheckHandle(*work_file.handle(), Format::kKind, &work);
  Vec<Change> changes;
  typename Format::Copier copier(*old_memo, *work);
  rc = CollectChanges(view, changes, module, copier);
  if (rc < 0) return rc;
  work_file.Close();

  // 2. Swap the files, point the records at the new blocks, reopen.  The
  // records follow the swap at once: a reopen that fails then leaves the
  // table and the packed file agreeing, with only the handle to open again.
  int32_t switches = old_memo->switches;
  memo_lock.Closed();
  Format::Close(*memo_handle);
  *memo_handle = -1;
  Succeed();
  work_file.Keep();
  rc = SwapFiles(memo_name.data(), work_name.data(), backup.data(), module);
  if (rc < 0) return rc;
  rc = RewriteRecords(view, changes, module);
  if (rc < 0) return rc;
  rc = Format::Open(memo_handle, memo_name.data(), switches);
  if (rc < 0) return KS_PASS(module, rc);
  return Succeed();
}

}  // namespace

int32_t PackDbt(int32_t table, int32_t* memo_handle) {
  return PackMemoFile<DbtFormat>(table, memo_handle, kDbtPack);
}

int32_t PackFpt(int32_t table, int32_t* memo_handle) {
  return PackMemoFile<FptFormat>(table, memo_handle, kFptPack);
}

}  // namespace kestrel::memo
