// The DBT memo engine: memo files of the dBASE III, dBASE IV, FoxBase and
// Clipper dialects.
//
// Plain layout (dialects 1, 3, 5, 6, 7), blocks of 512 bytes:
//
//   Offset  Size  Meaning
//   0       4     next free block (little-endian): where the next memo is
//                 appended; 1 in a new file
//   4       508   not interpreted (zeros in the files written here)
//   512     1     0x1A: a new file ends here
//   b*512   ...   memo text of the memo at block b, ended by 0x1A (the writer
//                 puts 0x1A 0x1A and pads appended memos to a block boundary)
//
// dBASE IV layout (dialect 2), blocks of 512 x n bytes (n = 1..32):
//
//   Offset  Size  Meaning
//   0       4     head of the free chain: the first free run, or the block
//                 where the file ends (the next block to append); 1 when new
//   4       4     0
//   8       8     base name of the file, upper case, zero-terminated
//   16      2     0
//   18      1     2
//   19      1     1
//   20      2     block size in bytes (512..16384)
//   22      2     0
//   24      ...   zeros up to the end of block 0, then 0x1A in a new file
//
//   A memo at block b:  FF FF 08 00, 32-bit length (text + 8), the text.
//   A free run at b:    32-bit next free run, 32-bit run length in blocks.
//
// Soft line breaks are the pair 0x8D 0x0A in both layouts.
#pragma once

#include <cstdint>

#include "kestrel/kestrel_memo.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"

namespace kestrel::memo {

inline constexpr uint32_t kPlainBlockSize = 512;

// Control block of an open DBT file (handle kind 3).
struct DbtMemo : ControlBlock {
  FileHandle file;       // the open file
  int32_t switches;      // normalised open switch word (dialect in the low byte)
  uint32_t attributes;   // kAttr* bits
  uint8_t dialect;       // 1, 2, 3, 5, 6 or 7
  bool locked;           // this handle holds the memo lock
  uint32_t block_size;   // 512, or the dBASE IV header's block size
  uint32_t block_count;  // blocks holding data: a partial last block counts
  uint32_t next_free;    // header word at offset 0
  uint64_t file_size;    // bytes in the file as last seen
  Buffer name;           // the name given to open, zero-terminated
};

// Statistics of a dBASE IV free chain.
struct FreeChainStats {
  uint32_t runs;
  uint32_t blocks;
};

// The close routine of kind 3 (DBxbCloseMemo).
int32_t DbtClose(int32_t handle);

int32_t DbtCreate(const char* name, int32_t blocks, int32_t dialect);
int32_t DbtOpen(int32_t* handle, const char* name, int32_t mode);
int32_t DbtLock(DbtMemo& memo);
int32_t DbtUnlock(DbtMemo& memo);
// Re-reads the header word and the file size.
int32_t DbtReadHeader(DbtMemo& memo);
// Reads the memo at block into a new MemAlloc block of length + 1 bytes
// (zero-terminated); *length receives the text length.  A plain memo longer
// than 128 blocks is -229 unless `whole` asks for it whatever its length.
int32_t DbtRead(DbtMemo& memo, uint32_t block, uint8_t** text, size_t* length, bool whole = false);
// Writes length bytes (already wrapped) as a new memo (replace_block 0) or
// over the memo at replace_block; *block receives where it went.
// soft_wrapped tells a plain replace to overwrite in place whatever the size.
int32_t DbtWrite(DbtMemo& memo, uint32_t replace_block, const uint8_t* text, size_t length,
                 bool soft_wrapped, uint32_t* block);
int32_t DbtZap(DbtMemo& memo);
// Walks the free chain of a dBASE IV file; a loop or a run outside the file
// is -206.
int32_t DbtFreeChain(DbtMemo& memo, FreeChainStats* stats);

// The operations behind the exported DBxb... calls (dbt_calls.cpp), on a
// checked handle: the lock and header re-read rules of shared files, option
// checks and soft line wrapping.  Each returns what its exported call
// returns.
int32_t DbtLockMemo(DbtMemo* m);
int32_t DbtUnLockMemo(DbtMemo* m);
int32_t DbtGetMemoHeader(DbtMemo* m);
// The whole memo as bytes and length (*data is the caller's, freed with
// DBFreeMemory), binary contents included.
int32_t DbtGetMemoBytes(DbtMemo* m, uint32_t block, char** data, uint32_t* length);
int32_t DbtGetMemoRecord(DbtMemo* m, uint32_t block, char** text, int32_t option);
int32_t DbtPutMemoRecord(DbtMemo* m, uint32_t* block, const char* text, int32_t mode);
int32_t DbtZapMemo(DbtMemo* m);
int32_t DbtGetMemoInfo(DbtMemo* m, DBXBMEMOINFO* info);

}  // namespace kestrel::memo
