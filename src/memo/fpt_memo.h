// The FPT memo engine: FoxPro memo files.
//
// The file is an array of blocks of a size fixed at creation (33..16384
// bytes); block n starts at byte n x block size.  Integers are big-endian.
//
//   Offset  Size  Meaning (file header; its blocks never hold memos)
//   0       4     next free block: where the next appended memo starts
//   4       2     0
//   6       2     block size in bytes
//   8       504   zeros (the header covers ceil(512 / block size) blocks)
//
//   Memo at block b (offset b x block size):
//   0       4     type: 1 text, 0 picture (binary)
//   4       4     length of the data
//   8       n     the data; the memo takes ceil((n + 8) / block size) blocks
#pragma once

#include <cstdint>

#include "kestrel/kestrel_memo.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"

namespace kestrel::memo {

inline constexpr uint32_t kFptTypePicture = 0;
inline constexpr uint32_t kFptTypeText = 1;

// Control block of an open FPT file (handle kind 4).
struct FptMemo : ControlBlock {
  FileHandle file;      // the open file
  int32_t switches;     // normalised open switch word
  uint32_t attributes;  // kAttr* bits
  bool locked;          // this handle holds the memo lock
  uint32_t next_free;   // header: next free block
  uint32_t block_size;  // header: block size in bytes
  uint64_t file_size;   // bytes in the file as last seen
  Buffer name;          // the name given to open, zero-terminated
  Buffer read_buffer;   // library-owned result of DBfpGetMemoRecord
  // A memo being read in pieces.
  uint32_t read_block;
  uint32_t read_remaining;
  uint64_t read_position;
  // A memo being written in pieces.
  uint32_t write_block;
  uint32_t write_remaining;
  uint64_t write_position;
};

// The close routine of kind 4 (DBfpCloseMemo).
int32_t FptClose(int32_t handle);

int32_t FptCreate(const char* name, int32_t block_code);
int32_t FptOpen(int32_t* handle, const char* name, int32_t switches);
int32_t FptLock(FptMemo& memo);
int32_t FptUnlock(FptMemo& memo);
int32_t FptReadHeader(FptMemo& memo);
// Reads and checks the memo header at block: type word and data length.
int32_t FptMemoHeader(FptMemo& memo, uint32_t block, uint32_t* type, uint32_t* length);
// Reads the whole memo at block into out (length bytes and a zero after
// them), leaving any piecewise read as it was.
int32_t FptReadWhole(FptMemo& memo, uint32_t block, Buffer& out, uint32_t* type, uint32_t* length);
// Reads up to max bytes of the memo at block (continuing a piecewise read
// when pieces is set) into out (grown as needed, zero-terminated).
// *count receives the bytes read; the result is 1 while bytes remain.
int32_t FptRead(FptMemo& memo, uint32_t block, uint32_t max, bool pieces, Buffer& out,
                bool keep_buffer, uint32_t* count);
// Writes a memo or a piece of one.  type is kFptType*; reuse asks to
// overwrite the memo at *block when the new one fits in its blocks.
int32_t FptWrite(FptMemo& memo, uint32_t* block, const uint8_t* data, uint32_t length,
                 uint32_t total, uint32_t type, bool reuse, bool pieces);
int32_t FptZap(FptMemo& memo);

// The operations behind the exported DBfp...Memo... calls (fpt_calls.cpp),
// on a checked handle: the lock and header re-read rules of shared files and
// option checks.  Each returns what its exported call returns.
int32_t FptLockMemo(FptMemo* m);
int32_t FptUnLockMemo(FptMemo* m);
int32_t FptGetMemoHeader(FptMemo* m, DBFPMEMOHEADER* header);
int32_t FptGetMemoInfo(FptMemo* m, DBFPMEMOINFO* info);
int32_t FptGetMemoType(FptMemo* m, uint32_t block, uint32_t* length, int32_t* type);
// The whole memo as bytes and length (*data is the caller's, freed with
// DBFreeMemory); *type, when asked, says text or picture.
int32_t FptGetMemoBytes(FptMemo* m, uint32_t block, char** data, uint32_t* length, int32_t* type);
int32_t FptGetMemoRecord(FptMemo* m, uint32_t block, char** buffer, uint32_t max_length,
                         int32_t options);
int32_t FptGetMemoToBuffer(FptMemo* m, uint32_t block, char* buffer, uint32_t max_length,
                           int32_t options);
int32_t FptPutMemoRecord(FptMemo* m, uint32_t* block, const void* data, uint32_t length,
                         uint32_t total_length, int32_t options);
int32_t FptZapMemo(FptMemo* m);

}  // namespace kestrel::memo
