// The DBT memo engine (dbt_memo.h): create, open, close, locks, read, write
// and zap for both layouts.
#include "memo/dbt_memo.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "memo/memo_common.h"
#include "memo/memo_format.h"
#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime/status.h"
#include "util/coding.h"

namespace kestrel::memo {
namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("TOPEN");
constexpr ModulePath kCreate = KS_ENGINE_MODULE("TCREATE");
constexpr ModulePath kGet = KS_ENGINE_MODULE("TRGET");
constexpr ModulePath kPut = KS_ENGINE_MODULE("TRPUT");
constexpr ModulePath kZap = KS_ENGINE_MODULE("TZAP");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("TINFO");

// Memo and free-run headers of the dBASE IV layout.
constexpr size_t kBlockHeaderSize = DbtBlockHeader::kSize;
constexpr size_t kRunNextOffset = 0;  // where a free run keeps the next run

// Plain layout.
constexpr uint8_t kEndMark = 0x1A;
constexpr size_t kMaxPlainBlocks = 128;  // longest plain memo that is read back

bool IsIvLayout(const DbtMemo& m) { return m.dialect == 2; }
int32_t FlushFlag(const DbtMemo& m) { return (m.attributes & kAttrWriteThrough) ? 1 : 0; }

// Blocks that hold data: a last block holding a single byte (the 0x1A that
// follows the header of a new file) does not count.
uint32_t BlocksFor(uint64_t size, uint32_t block_size) {
  if (size <= 1) return 1;
  uint64_t n = (size - 1 + block_size - 1) / block_size;
  if (n < 1) n = 1;
  return n > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(n);
}

void NoteWrite(DbtMemo& m, uint64_t end) {
  if (end > m.file_size) m.file_size = end;
  m.block_count = BlocksFor(m.file_size, m.block_size);
}

// The 24 significant bytes of a dBASE IV header for a file name.
void BuildIvHeader(uint8_t* bytes, const char* name, uint32_t block_size, uint32_t next_free) {
  DbtHeader header;
  header.next_free = next_free;
  header.block_size = block_size;
  size_t base = BaseNameStart(name);
  size_t dot = ExtensionStart(name);
  size_t n = std::min(dot - base, DbtHeader::kNameSize - 1);
  for (size_t i = 0; i < n; ++i) {
    header.name[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[base + i])));
  }
  header.EncodeTo({bytes, DbtHeader::kSize});
}

// Writes a fresh file image (header block(s) and the end mark) and cuts the
// file after it.
int32_t WriteEmptyFile(FileHandle file, bool iv, const char* name, uint32_t block_size,
                       int32_t flush, ModulePath module) {
  Buffer image;
  uint32_t header_size = iv ? block_size : kPlainBlockSize;
  if (!image.Allocate(header_size + 1)) return KS_FAIL(module, DB_ERR_MEMORY);
  if (iv) {
    BuildIvHeader(image.data(), name, block_size, 1);
  } else {
    DbtHeader{1, 0, {}}.EncodeWordTo({image.data(), DbtHeader::kWordSize});
  }
  image[header_size] = kEndMark;
  int32_t rc = FileWriteAt(file, 0, image.data(), image.size(), flush);
  if (rc < 0) return KS_PASS(module, rc);
  rc = FileTruncate(file, image.size());
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

int32_t WriteHeaderWord(DbtMemo& m, ModulePath module) {
  uint8_t word[DbtHeader::kWordSize];
  DbtHeader{m.next_free, 0, {}}.EncodeWordTo(word);
  int32_t rc = FileWriteAt(m.file, DbtHeader::kNextFree, word, sizeof word, FlushFlag(m));
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// True when block b starts inside the file.
bool BlockInFile(const DbtMemo& m, uint32_t b) {
  return b >= 1 && b <= m.block_count && static_cast<uint64_t>(b) * m.block_size < m.file_size;
}

// Finds the 0x1A that ends the plain memo at pos.  With out != nullptr the
// text is kept there (zero-terminated); *length receives its length.  A
// text longer than 128 blocks is -229 unless `whole` asks for any length
// (up to the end of the file).
int32_t ScanPlain(DbtMemo& m, uint64_t pos, Buffer* out, size_t* length, ModulePath module,
                  bool whole = false) {
  Buffer local;
  Buffer& buf = out ? *out : local;
  const size_t max = whole ? SIZE_MAX : kMaxPlainBlocks * kPlainBlockSize;
  size_t have = 0;
  size_t chunk = kPlainBlockSize;
  for (;;) {
    if (pos + have >= m.file_size) return KS_FAIL(module, DB_ERR_CORRUPTED);
    uint64_t avail = m.file_size - (pos + have);
    size_t want = std::min(chunk, max - have);
    if (want > avail) want = static_cast<size_t>(avail);
    // Scanning only needs the bytes of this chunk: reuse the buffer.
    size_t base = out ? have : 0;
    if (buf.size() < base + want + 1 && !buf.Resize(base + want + 1)) {
      return KS_FAIL(module, DB_ERR_MEMORY);
    }
    int32_t rc = FileReadAt(m.file, pos + have, buf.data() + base, want);
    if (rc < 0) return KS_PASS(module, rc);
    const void* hit = std::memchr(buf.data() + base, kEndMark, want);
    if (hit) {
      size_t at = static_cast<size_t>(static_cast<const uint8_t*>(hit) - buf.data());
      *length = out ? at : have + at;
      buf.data()[at] = 0;
      return 0;
    }
    have += want;
    if (have >= max) return KS_FAIL(module, DB_ERR_FIELD_LENGTH);
    chunk = std::min<size_t>(chunk * 2, 16384);
  }
}

// Reads and checks the block header of the dBASE IV memo at block b;
// *length receives the text length (the stored length minus 8).
int32_t ReadIvMemoHeader(DbtMemo& m, uint32_t b, size_t* length, ModulePath module) {
  uint64_t pos = static_cast<uint64_t>(b) * m.block_size;
  if (pos + kBlockHeaderSize > m.file_size) return KS_FAIL(module, DB_ERR_CORRUPTED);
  uint8_t bytes[kBlockHeaderSize];
  int32_t rc = FileReadAt(m.file, pos, bytes, sizeof bytes);
  if (rc < 0) return KS_PASS(module, rc);
  DbtBlockHeader header;
  header.DecodeFrom(bytes);
  uint32_t stored = header.second;
  // A length that does not fit in the file is refused before anything is
  // allocated for it.
  if (stored < kBlockHeaderSize ||
      stored - kBlockHeaderSize > m.file_size - pos - kBlockHeaderSize) {
    return KS_FAIL(module, DB_ERR_CORRUPTED);
  }
  *length = stored - kBlockHeaderSize;
  return 0;
}

// First-fit search of the free chain for a run of at least `need` blocks.
// The run is unlinked (the whole run is taken); *found is 0 when none fits,
// and then *tail is the last run of the chain (0 when the chain is empty).
int32_t TakeFreeRun(DbtMemo& m, uint32_t need, uint32_t* found, uint32_t* next_free,
                    uint32_t* tail) {
  *found = 0;
  *tail = 0;
  uint32_t prev = 0;  // 0: the head lives in the file header
  uint32_t h = *next_free;
  for (uint32_t steps = 0; BlockInFile(m, h); ++steps) {
    if (steps > m.block_count) return KS_FAIL(kPut, DB_ERR_CORRUPTED);  // the chain loops
    uint64_t pos = static_cast<uint64_t>(h) * m.block_size;
    if (pos + kBlockHeaderSize > m.file_size) break;
    uint8_t run[kBlockHeaderSize];
    int32_t rc = FileReadAt(m.file, pos, run, sizeof run);
    if (rc < 0) return KS_PASS(kPut, rc);
    // A memo where a run should be means the chain ended at what was once
    // the end of the file; stop there.
    DbtBlockHeader header;
    header.DecodeFrom(run);
    if (header.memo) break;
    uint32_t next = header.first;
    uint32_t blocks = header.second;
    if (blocks == 0 || static_cast<uint64_t>(h) + blocks > m.block_count) break;
    if (blocks >= need) {
      if (prev == 0) {
        *next_free = next;
      } else {
        uint8_t link[4];
        StoreLE32(link, next);
        uint64_t at = static_cast<uint64_t>(prev) * m.block_size + kRunNextOffset;
        rc = FileWriteAt(m.file, at, link, sizeof link, FlushFlag(m));
        if (rc < 0) return KS_PASS(kPut, rc);
      }
      *found = h;
      return 0;
    }
    prev = h;
    *tail = h;
    h = next;
  }
  return 0;
}

int32_t WritePlain(DbtMemo& m, uint32_t replace_block, const uint8_t* text, size_t length,
                   bool soft_wrapped, uint32_t* block) {
  const size_t bs = kPlainBlockSize;
  // A text the reader would refuse (its end mark beyond 128 blocks) is not
  // written either.
  if (length + 2 > kMaxPlainBlocks * bs) return KS_FAIL(kPut, DB_ERR_FIELD_LENGTH);
  if (replace_block != 0) {
    if (!BlockInFile(m, replace_block)) return KS_FAIL(kPut, DB_ERR_SEEK);
    bool in_place = soft_wrapped || length + 2 <= bs;
    if (!in_place) {
      size_t old_length = 0;
      int32_t rc =
          ScanPlain(m, static_cast<uint64_t>(replace_block) * bs, nullptr, &old_length, kPut);
      if (rc < 0) return rc;
      size_t old_blocks = (bs + old_length - 1) / bs;
      size_t new_blocks = (bs + length + 2 - 1) / bs;
      in_place = old_blocks >= new_blocks;
    }
    if (in_place) {
      Vec<uint8_t> image(text, text + length);
      image.push_back(kEndMark);
      image.push_back(kEndMark);
      uint64_t pos = static_cast<uint64_t>(replace_block) * bs;
      int32_t rc = FileWriteAt(m.file, pos, image.data(), image.size(), FlushFlag(m));
      if (rc < 0) return KS_PASS(kPut, rc);
      NoteWrite(m, pos + image.size());
      // A wrapped text that ran past the next free block must not be
      // overwritten by the next append.
      uint32_t end_block = BlocksFor(pos + image.size() + 1, bs);
      if (end_block > m.next_free) {
        m.next_free = end_block;
        rc = WriteHeaderWord(m, kPut);
        if (rc < 0) return rc;
      }
      *block = replace_block;
      return 0;
    }
  }
  // Append at the next free block.  A header that points inside the data
  // (stale) or past its end (damaged) is not followed: the memo goes right
  // after the data, which is where a consistent header points anyway.
  uint32_t start = m.block_count < 1 ? 1 : m.block_count;
  uint64_t blocks = (length + 2 + bs - 1) / bs;
  if (start + blocks > 0xFFFFFFFFu) return KS_FAIL(kPut, DB_ERR_WRITE);
  Vec<uint8_t> image(blocks * bs, 0);
  std::memcpy(image.data(), text, length);
  image[length] = kEndMark;
  image[length + 1] = kEndMark;
  uint64_t pos = static_cast<uint64_t>(start) * bs;
  int32_t rc = FileWriteAt(m.file, pos, image.data(), image.size(), FlushFlag(m));
  if (rc < 0) return KS_PASS(kPut, rc);
  NoteWrite(m, pos + image.size());
  uint32_t old_next = m.next_free;
  m.next_free = static_cast<uint32_t>(start + blocks);
  rc = WriteHeaderWord(m, kPut);
  if (rc < 0) {
    m.next_free = old_next;
    return rc;
  }
  *block = start;
  return 0;
}

int32_t WriteIv(DbtMemo& m, uint32_t replace_block, const uint8_t* text, size_t length,
                uint32_t* block) {
  const uint32_t bs = m.block_size;
  uint64_t need = static_cast<uint64_t>(length) + kBlockHeaderSize;
  if (need > 0xFFFFFFFFu) return KS_FAIL(kPut, DB_ERR_BAD_DATA);
  uint32_t blocks = static_cast<uint32_t>((need + bs - 1) / bs);
  uint32_t old_blocks = 0;
  if (replace_block != 0) {
    if (!BlockInFile(m, replace_block)) return KS_FAIL(kPut, DB_ERR_SEEK);
    size_t old_length = 0;
    int32_t rc = ReadIvMemoHeader(m, replace_block, &old_length, kPut);
    if (rc < 0) return rc;
    old_blocks = static_cast<uint32_t>((old_length + kBlockHeaderSize + bs - 1) / bs);
    if (blocks <= old_blocks) {
      // In place; the block header's length is rewritten so the memo reads
      // back whole, and the rest of its last block is cleared so that no
      // stale text of the old memo follows it.
      Vec<uint8_t> image(static_cast<size_t>(blocks) * bs, 0);
      DbtBlockHeader::EncodeMemo({image.data(), kBlockHeaderSize}, static_cast<uint32_t>(need));
      std::memcpy(image.data() + kBlockHeaderSize, text, length);
      uint64_t pos = static_cast<uint64_t>(replace_block) * bs;
      rc = FileWriteAt(m.file, pos, image.data(), image.size(), FlushFlag(m));
      if (rc < 0) return KS_PASS(kPut, rc);
      NoteWrite(m, pos + image.size());
      *block = replace_block;
      return 0;
    }
  }
  Vec<uint8_t> image(static_cast<size_t>(blocks) * bs, 0);
  uint32_t next_free = m.next_free;
  uint32_t target = 0;
  uint32_t tail = 0;
  int32_t rc = TakeFreeRun(m, blocks, &target, &next_free, &tail);
  if (rc < 0) return rc;
  uint32_t count = m.block_count;
  if (target == 0) {
    target = m.block_count;
    if (static_cast<uint64_t>(target) + blocks > 0xFFFFFFFFu) return KS_FAIL(kPut, DB_ERR_WRITE);
    if (next_free == target) {
      next_free = target + blocks;
    } else if (tail != 0) {
      // The chain ends with a pointer to the end of the file, where this memo
      // goes: move that pointer on to the new end, or a run freed there later
      // would close the chain into a loop.
      uint8_t link[4];
      uint64_t at = static_cast<uint64_t>(tail) * bs + kRunNextOffset;
      rc = FileReadAt(m.file, at, link, sizeof link);
      if (rc < 0) return KS_PASS(kPut, rc);
      if (LoadLE32(link) == target) {
        StoreLE32(link, target + blocks);
        rc = FileWriteAt(m.file, at, link, sizeof link, FlushFlag(m));
        if (rc < 0) return KS_PASS(kPut, rc);
      }
    }
    count = target + blocks;
  }
  DbtBlockHeader::EncodeMemo({image.data(), kBlockHeaderSize}, static_cast<uint32_t>(need));
  std::memcpy(image.data() + kBlockHeaderSize, text, length);
  uint64_t pos = static_cast<uint64_t>(target) * bs;
  rc = FileWriteAt(m.file, pos, image.data(), image.size(), FlushFlag(m));
  if (rc < 0) return KS_PASS(kPut, rc);
  NoteWrite(m, pos + image.size());
  if (count > m.block_count) m.block_count = count;
  if (old_blocks != 0) {
    // The old run goes to the head of the free chain.
    uint8_t run[kBlockHeaderSize];
    DbtBlockHeader::EncodeRun(run, next_free, old_blocks);
    rc = FileWriteAt(m.file, static_cast<uint64_t>(replace_block) * bs, run, sizeof run,
                     FlushFlag(m));
    if (rc < 0) return KS_PASS(kPut, rc);
    next_free = replace_block;
  }
  m.next_free = next_free;
  rc = WriteHeaderWord(m, kPut);
  if (rc < 0) return rc;
  *block = target;
  return 0;
}

}  // namespace

int32_t DbtCreate(const char* name, int32_t blocks, int32_t dialect) {
  Succeed();  // the file services report the current code on success
  if (!name) return KS_FAIL(kCreate, DB_ERR_NULL);
  if (blocks < 1 || blocks > 32) return KS_FAIL(kCreate, DB_ERR_PAGE_SIZE);
  FileHandle file = kNoFile;
  int32_t rc = FileCreate(&file, name);
  if (rc < 0) return KS_PASS(kCreate, rc);
  if (dialect < 1 || dialect > 7) {
    FileClose(file);
    return KS_FAIL(kCreate, DB_ERR_VERSION);
  }
  bool iv = dialect == 2;
  uint32_t block_size = iv ? static_cast<uint32_t>(blocks) * kPlainBlockSize : kPlainBlockSize;
  rc = WriteEmptyFile(file, iv, name, block_size, 0, kCreate);
  FileClose(file);
  if (rc < 0) return rc;
  return Succeed();
}

int32_t DbtReadHeader(DbtMemo& m) {
  uint64_t size = 0;
  int32_t rc = FileSize(m.file, &size);
  if (rc < 0) return KS_PASS(kOpen, rc);
  if (size < DbtHeader::kWordSize) return KS_FAIL(kOpen, DB_ERR_NOT_MEMO);
  uint8_t word[DbtHeader::kWordSize];
  rc = FileReadAt(m.file, DbtHeader::kNextFree, word, sizeof word);
  if (rc < 0) return KS_PASS(kOpen, rc);
  DbtHeader header;
  header.DecodeWordFrom(word);
  m.next_free = header.next_free;
  m.file_size = size;
  m.block_count = BlocksFor(size, m.block_size);
  return 0;
}

int32_t DbtOpen(int32_t* handle, const char* name, int32_t mode) {
  Succeed();  // the file services report the current code on success
  if (!handle || !name) {
    if (handle) *handle = -1;
    return KS_FAIL(kOpen, DB_ERR_NULL);
  }
  *handle = -1;
  int32_t dialect = mode & 0xFF;
  if (dialect == 0) dialect = 1;
  if (dialect == 4 || dialect >= 8) return KS_FAIL(kOpen, DB_ERR_VERSION);
  DbtMemo* m = nullptr;
  int32_t rc = AllocateHandle(handle, DB_KIND_DBT_MEMO, &m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  RegisterCloseRoutine(DB_KIND_DBT_MEMO, &DbtClose);
  m->file = kNoFile;
  auto fail = [&](int32_t code) {
    if (m->file != kNoFile) FileClose(m->file);
    ReleaseHandle(*handle);
    *handle = -1;
    return code;
  };
  int32_t switches = NormaliseOpenSwitches(mode);
  m->switches = (switches & ~0xFF) | dialect;
  m->dialect = static_cast<uint8_t>(dialect);
  m->attributes = AttributesFor(switches);
  m->block_size = kPlainBlockSize;
  rc = FileOpen(&m->file, name, switches, &m->attributes);
  if (rc < 0) return fail(KS_PASS(kOpen, rc));
  uint64_t size = 0;
  rc = FileSize(m->file, &size);
  if (rc < 0) return fail(KS_PASS(kOpen, rc));
  size_t minimum = IsIvLayout(*m) ? DbtHeader::kSize : kPlainBlockSize;
  if (size < minimum) return fail(KS_FAIL(kOpen, DB_ERR_NOT_MEMO));
  uint8_t bytes[DbtHeader::kSize];
  rc = FileReadAt(m->file, 0, bytes, sizeof bytes);
  if (rc < 0) return fail(KS_PASS(kOpen, rc));
  DbtHeader header;
  if (IsIvLayout(*m)) {
    if (!header.DecodeFrom(bytes)) return fail(KS_FAIL(kOpen, DB_ERR_PAGE_SIZE));
    m->block_size = header.block_size;
  } else {
    header.DecodeWordFrom(bytes);
  }
  m->next_free = header.next_free;
  m->file_size = size;
  m->block_count = BlocksFor(size, m->block_size);
  if (!CopyName(m->name, name)) return fail(KS_FAIL(kOpen, DB_ERR_MEMORY));
  return Succeed();
}

int32_t DbtClose(int32_t handle) {
  DbtMemo* m = nullptr;
  int32_t rc = CheckHandle(handle, DB_KIND_DBT_MEMO, &m);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  if (m->locked) DbtUnlock(*m);
  FileClose(m->file);
  ReleaseHandle(handle);
  return Succeed();
}

int32_t DbtLock(DbtMemo& m) {
  if (!(m.attributes & kAttrShared) || m.locked) return 0;
  int32_t rc = FileLock(m.file, 0, kMemoLockOffset, kMemoLockLength);
  if (rc < 0) return KS_PASS(kOpen, rc);
  m.locked = true;
  // Another process may have appended while the file was unlocked.
  rc = DbtReadHeader(m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t DbtUnlock(DbtMemo& m) {
  if (!m.locked) return 0;
  int32_t rc = FileLock(m.file, 1, kMemoLockOffset, kMemoLockLength);
  if (rc < 0) return KS_PASS(kOpen, rc);
  m.locked = false;
  return 0;
}

int32_t DbtRead(DbtMemo& m, uint32_t block, uint8_t** text, size_t* length, bool whole) {
  *text = nullptr;
  *length = 0;
  if (!BlockInFile(m, block)) return KS_FAIL(kGet, DB_ERR_SEEK);
  uint64_t pos = static_cast<uint64_t>(block) * m.block_size;
  Buffer buf;
  if (IsIvLayout(m)) {
    size_t n = 0;
    int32_t rc = ReadIvMemoHeader(m, block, &n, kGet);
    if (rc < 0) return rc;
    if (!buf.Allocate(n + 1)) return KS_FAIL(kGet, DB_ERR_MEMORY);
    if (n > 0) {
      rc = FileReadAt(m.file, pos + kBlockHeaderSize, buf.data(), n);
      if (rc < 0) return KS_PASS(kGet, rc);
    }
    *length = n;
  } else {
    int32_t rc = ScanPlain(m, pos, &buf, length, kGet, whole);
    if (rc < 0) return rc;
  }
  *text = buf.Release();
  return 0;
}

int32_t DbtWrite(DbtMemo& m, uint32_t replace_block, const uint8_t* text, size_t length,
                 bool soft_wrapped, uint32_t* block) {
  if (IsIvLayout(m)) return WriteIv(m, replace_block, text, length, block);
  return WritePlain(m, replace_block, text, length, soft_wrapped, block);
}

int32_t DbtZap(DbtMemo& m) {
  int32_t rc =
      WriteEmptyFile(m.file, IsIvLayout(m), NameOf(m.name), m.block_size, FlushFlag(m), kZap);
  if (rc < 0) return rc;
  m.next_free = 1;
  m.file_size = (IsIvLayout(m) ? m.block_size : kPlainBlockSize) + 1;
  m.block_count = BlocksFor(m.file_size, m.block_size);
  return 0;
}

int32_t DbtFreeChain(DbtMemo& m, FreeChainStats* stats) {
  stats->runs = 0;
  stats->blocks = 0;
  if (!IsIvLayout(m)) return 0;
  uint32_t h = m.next_free;
  for (uint32_t steps = 0; BlockInFile(m, h); ++steps) {
    if (steps > m.block_count) return KS_FAIL(kInfo, DB_ERR_CORRUPTED);
    uint64_t pos = static_cast<uint64_t>(h) * m.block_size;
    if (pos + kBlockHeaderSize > m.file_size) break;
    uint8_t run[kBlockHeaderSize];
    int32_t rc = FileReadAt(m.file, pos, run, sizeof run);
    if (rc < 0) return KS_PASS(kInfo, rc);
    DbtBlockHeader header;
    header.DecodeFrom(run);
    if (header.memo) break;
    uint32_t blocks = header.second;
    if (blocks == 0 || static_cast<uint64_t>(h) + blocks > m.block_count) break;
    ++stats->runs;
    stats->blocks += blocks;
    h = header.first;
  }
  return 0;
}

}  // namespace kestrel::memo
