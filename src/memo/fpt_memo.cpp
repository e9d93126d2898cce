// The FPT memo engine (fpt_memo.h).
#include "memo/fpt_memo.h"

#include <algorithm>
#include <cstring>

#include "memo/memo_common.h"
#include "memo/memo_format.h"
#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime/status.h"
#include "util/coding.h"

namespace kestrel::memo {
namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("WOPEN");
constexpr ModulePath kCreate = KS_ENGINE_MODULE("WCREATE");
constexpr ModulePath kGet = KS_ENGINE_MODULE("WRGET");
constexpr ModulePath kPut = KS_ENGINE_MODULE("WRPUT");
constexpr ModulePath kZap = KS_ENGINE_MODULE("WZAP");

constexpr uint32_t kHeaderBytes = 512;  // the header's blocks cover these
constexpr size_t kMemoHeaderSize = FptBlockHeader::kSize;

int32_t FlushFlag(const FptMemo& m) { return (m.attributes & kAttrWriteThrough) ? 1 : 0; }

uint32_t FirstDataBlock(uint32_t block_size) {
  return (block_size + kHeaderBytes - 1) / block_size;
}

int32_t WriteNextFree(FptMemo& m, uint32_t next_free, ModulePath module) {
  uint8_t word[4];
  StoreBE32(word, next_free);
  int32_t rc = FileWriteAt(m.file, FptHeader::kNextFree, word, sizeof word, FlushFlag(m));
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// A memo block: past the header's blocks and before the next free block.
bool ValidBlock(const FptMemo& m, uint32_t block) {
  return block >= 1 && block < m.next_free &&
         static_cast<uint64_t>(block) * m.block_size >= kHeaderBytes;
}

}  // namespace

int32_t FptCreate(const char* name, int32_t block_code) {
  Succeed();  // the file services report the current code on success
  if (!name) return KS_FAIL(kCreate, DB_ERR_NULL);
  if (block_code < 1 || block_code > 511) return KS_FAIL(kCreate, DB_ERR_PAGE_SIZE);
  uint32_t bs = block_code <= 32 ? static_cast<uint32_t>(block_code) * 512u
                                 : static_cast<uint32_t>(block_code);
  uint32_t next_free = FirstDataBlock(bs);
  FileHandle file = kNoFile;
  int32_t rc = FileCreate(&file, name);
  if (rc < 0) return KS_PASS(kCreate, rc);
  uint8_t header[FptHeader::kSize];
  FptHeader{next_free, bs}.EncodeTo(header);
  rc = FileWriteAt(file, 0, header, sizeof header, 0);
  if (rc >= 0) rc = FileTruncate(file, static_cast<uint64_t>(next_free) * bs);
  FileClose(file);
  if (rc < 0) return KS_PASS(kCreate, rc);
  return Succeed();
}

int32_t FptReadHeader(FptMemo& m) {
  uint64_t size = 0;
  int32_t rc = FileSize(m.file, &size);
  if (rc < 0) return KS_PASS(kOpen, rc);
  if (size < kHeaderBytes) return KS_FAIL(kOpen, DB_ERR_NOT_MEMO);
  uint8_t bytes[FptHeader::kSize];
  rc = FileReadAt(m.file, 0, bytes, sizeof bytes);
  if (rc < 0) return KS_PASS(kOpen, rc);
  FptHeader header;
  if (!header.DecodeFrom(bytes)) return KS_FAIL(kOpen, DB_ERR_PAGE_SIZE);
  m.block_size = header.block_size;
  m.next_free = header.next_free;
  m.file_size = size;
  return 0;
}

int32_t FptOpen(int32_t* handle, const char* name, int32_t switches) {
  Succeed();  // the file services report the current code on success
  if (!handle || !name) {
    if (handle) *handle = -1;
    return KS_FAIL(kOpen, DB_ERR_NULL);
  }
  *handle = -1;
  FptMemo* m = nullptr;
  int32_t rc = AllocateHandle(handle, DB_KIND_FPT_MEMO, &m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  RegisterCloseRoutine(DB_KIND_FPT_MEMO, &FptClose);
  m->file = kNoFile;
  auto fail = [&](int32_t code) {
    if (m->file != kNoFile) FileClose(m->file);
    ReleaseHandle(*handle);
    *handle = -1;
    return code;
  };
  switches = NormaliseOpenSwitches(switches);
  int32_t low = switches & 0xFF;
  if (low != 0 && low != 4 && low != 8) return fail(KS_FAIL(kOpen, DB_ERR_VERSION));
  m->switches = switches;
  m->attributes = AttributesFor(switches);
  rc = FileOpen(&m->file, name, switches, &m->attributes);
  if (rc < 0) return fail(KS_PASS(kOpen, rc));
  rc = FptReadHeader(*m);
  if (rc < 0) return fail(KS_PASS(kOpen, rc));
  if (!CopyName(m->name, name)) return fail(KS_FAIL(kOpen, DB_ERR_MEMORY));
  return Succeed();
}

int32_t FptClose(int32_t handle) {
  FptMemo* m = nullptr;
  int32_t rc = CheckHandle(handle, DB_KIND_FPT_MEMO, &m);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  if (m->locked) FptUnlock(*m);
  FileClose(m->file);
  ReleaseHandle(handle);
  return Succeed();
}

int32_t FptLock(FptMemo& m) {
  if (!(m.attributes & kAttrShared) || m.locked) return 0;
  int32_t rc = FileLock(m.file, 0, kMemoLockOffset, kMemoLockLength);
  if (rc < 0) return KS_PASS(kOpen, rc);
  m.locked = true;
  rc = FptReadHeader(m);  // another process may have appended
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t FptUnlock(FptMemo& m) {
  if (!m.locked) return 0;
  int32_t rc = FileLock(m.file, 1, kMemoLockOffset, kMemoLockLength);
  if (rc < 0) return KS_PASS(kOpen, rc);
  m.locked = false;
  return 0;
}

int32_t FptMemoHeader(FptMemo& m, uint32_t block, uint32_t* type, uint32_t* length) {
  if (!ValidBlock(m, block)) return KS_FAIL(kGet, DB_ERR_SEEK);
  uint64_t pos = static_cast<uint64_t>(block) * m.block_size;
  if (pos + kMemoHeaderSize > m.file_size) return KS_FAIL(kGet, DB_ERR_CORRUPTED);
  uint8_t bytes[kMemoHeaderSize];
  int32_t rc = FileReadAt(m.file, pos, bytes, sizeof bytes);
  if (rc < 0) return KS_PASS(kGet, rc);
  FptBlockHeader header;
  header.DecodeFrom(bytes);
  *type = header.type;
  *length = header.length;
  // A length beyond the end of the file is refused before any allocation.
  if (*length > m.file_size - pos - kMemoHeaderSize) return KS_FAIL(kGet, DB_ERR_CORRUPTED);
  return 0;
}

int32_t FptReadWhole(FptMemo& m, uint32_t block, Buffer& out, uint32_t* type, uint32_t* length) {
  int32_t rc = FptMemoHeader(m, block, type, length);
  if (rc < 0) return rc;
  if (!out.Allocate(static_cast<size_t>(*length) + 1)) return KS_FAIL(kGet, DB_ERR_MEMORY);
  if (*length > 0) {
    uint64_t pos = static_cast<uint64_t>(block) * m.block_size + kMemoHeaderSize;
    rc = FileReadAt(m.file, pos, out.data(), *length);
    if (rc < 0) return KS_PASS(kGet, rc);
  }
  out.data()[*length] = 0;
  return 0;
}

int32_t FptRead(FptMemo& m, uint32_t block, uint32_t max, bool pieces, Buffer& out,
                bool keep_buffer, uint32_t* count) {
  *count = 0;
  uint64_t pos = 0;
  uint32_t remaining = 0;
  if (pieces && m.read_block != 0 && m.read_block == block && m.read_remaining > 0) {
    pos = m.read_position;
    remaining = m.read_remaining;
  } else {
    m.read_block = 0;
    m.read_remaining = 0;
    uint32_t type = 0;
    int32_t rc = FptMemoHeader(m, block, &type, &remaining);
    if (rc < 0) return rc;
    pos = static_cast<uint64_t>(block) * m.block_size + kMemoHeaderSize;
  }
  uint32_t n = std::min(remaining, max);
  size_t need = static_cast<size_t>(n) + 1;
  if (!keep_buffer || out.size() < need) {
    if (!out.Allocate(need)) return KS_FAIL(kGet, DB_ERR_MEMORY);
  }
  if (n > 0) {
    int32_t rc = FileReadAt(m.file, pos, out.data(), n);
    if (rc < 0) return KS_PASS(kGet, rc);
  }
  out[n] = 0;
  *count = n;
  remaining -= n;
  if (pieces && remaining > 0) {
    m.read_block = block;
    m.read_remaining = remaining;
    m.read_position = pos + n;
    return 1;
  }
  m.read_block = 0;
  m.read_remaining = 0;
  return 0;
}

int32_t FptWrite(FptMemo& m, uint32_t* block, const uint8_t* data, uint32_t length, uint32_t total,
                 uint32_t type, bool reuse, bool pieces) {
  const uint32_t bs = m.block_size;
  if (pieces && m.write_block != 0 && m.write_block == *block && m.write_remaining > 0) {
    // A later piece: it follows the previous one, the header stays.
    if (length > m.write_remaining) return KS_FAIL(kPut, DB_ERR_BAD_DATA);
    int32_t rc = FileWriteAt(m.file, m.write_position, data, length, FlushFlag(m));
    if (rc < 0) return KS_PASS(kPut, rc);
    m.write_position += length;
    m.write_remaining -= length;
    if (m.write_position > m.file_size) m.file_size = m.write_position;
    if (m.write_remaining == 0) m.write_block = 0;
    return 0;
  }
  m.write_block = 0;
  m.write_remaining = 0;
  if (!pieces) total = length;
  if (total < length) return KS_FAIL(kPut, DB_ERR_BAD_DATA);
  uint64_t span = (static_cast<uint64_t>(total) + kMemoHeaderSize + bs - 1) / bs;
  Vec<uint8_t> image(kMemoHeaderSize + length);
  uint32_t target = 0;
  uint32_t next_free = m.next_free;
  if (reuse && *block != 0) {
    uint32_t old_type = 0;
    uint32_t old_length = 0;
    int32_t rc = FptMemoHeader(m, *block, &old_type, &old_length);
    if (rc < 0) return KS_PASS(kPut, rc);
    // The old memo's space, from its length taken as a signed 16-bit value.
    int32_t short_length = static_cast<int16_t>(static_cast<uint16_t>(old_length));
    uint64_t space_blocks = 1;
    if (short_length > 0) {
      space_blocks = std::max<uint64_t>(1, (short_length + kMemoHeaderSize + bs - 1) / bs);
    }
    if (static_cast<uint64_t>(total) + kMemoHeaderSize <= space_blocks * bs) target = *block;
  }
  if (target == 0) {
    target = std::max(m.next_free, FirstDataBlock(bs));
    if (target + span > 0xFFFFFFFFu) return KS_FAIL(kPut, DB_ERR_WRITE);
    // The file is set to end where the memo starts: cut when it is longer;
    // when it is shorter, writing at the start extends it with zeros, the
    // same bytes a truncation to that length would give, at one call less.
    uint64_t start = static_cast<uint64_t>(target) * bs;
    if (m.file_size > start) {
      int32_t rc = FileTruncate(m.file, start);
      if (rc < 0) return KS_PASS(kPut, rc);
      m.file_size = start;
    }
    next_free = static_cast<uint32_t>(target + span);
  }
  uint64_t pos = static_cast<uint64_t>(target) * bs;
  FptBlockHeader{type, total}.EncodeTo({image.data(), kMemoHeaderSize});
  std::memcpy(image.data() + kMemoHeaderSize, data, length);
  int32_t rc = FileWriteAt(m.file, pos, image.data(), image.size(), FlushFlag(m));
  if (rc < 0) return KS_PASS(kPut, rc);
  uint64_t end = pos + image.size();
  if (end > m.file_size) m.file_size = end;
  if (next_free != m.next_free) {
    rc = WriteNextFree(m, next_free, kPut);
    if (rc < 0) return rc;
    m.next_free = next_free;
  }
  if (pieces && total > length) {
    m.write_block = target;
    m.write_remaining = total - length;
    m.write_position = end;
  }
  *block = target;
  return 0;
}

int32_t FptZap(FptMemo& m) {
  uint32_t next_free = FirstDataBlock(m.block_size);
  int32_t rc = WriteNextFree(m, next_free, kZap);
  if (rc < 0) return rc;
  uint64_t size = static_cast<uint64_t>(next_free) * m.block_size;
  rc = FileTruncate(m.file, size);
  if (rc < 0) return KS_PASS(kZap, rc);
  m.next_free = next_free;
  m.file_size = size;
  m.read_block = m.read_remaining = 0;
  m.write_block = m.write_remaining = 0;
  return 0;
}

}  // namespace kestrel::memo
