// The bulk-build sorter every index engine shares.
//
// An engine hands it a key length, an order and a key source; the sorter
// reads every record's key, sorts the (key, record) entries, and gives them
// back one at a time in key-then-record order (descending keys when asked;
// records ascending within a key; only the first record of each key when
// unique).  The engine then writes its own pages from the stream.
//
// Entries are the key bytes followed by the record number (4 bytes,
// big-endian).  Keys are gathered in runs that fit the sort budget: one run
// is sorted in memory; several are each sorted and written to a temporary
// sort file in the index's folder, then merged.  Sort files are named
// "STKS<process id>_<n>.TMP" and created exclusively, so builds running at
// once in one folder never share one; they are removed however the build
// ends.
//
// Within a run, keys are sorted by their first 16 bytes with a byte-wise
// bucket sort (comparisons only for small buckets and longer keys), which
// gives exactly the order a comparison sort gives.
#pragma once

#include <cstdint>

#include "index/common/key_source.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::index {

// Phases of a build, as reported to a progress callback.
inline constexpr int32_t kPhaseReading = 1;  // keys made, of the records
inline constexpr int32_t kPhaseMerging = 2;  // keys merged from the sort files, of all keys
inline constexpr int32_t kPhaseWriting = 3;  // keys written into pages, of the keys

// A build's progress callback: returns 0 to go on, or a negative status
// that stops the build (which then returns it).
struct BuildProgress {
  int32_t (*report)(void* context, int32_t phase, uint64_t done, uint64_t total);
  void* context;
};
// Reports to progress (which may be null); the status to stop with, or 0.
int32_t ReportProgress(const BuildProgress* progress, int32_t phase, uint64_t done,
                       uint64_t total);

struct SortOrder {
  int key_length;   // 1 to kMaxBuildKeyLength
  bool descending;  // keys in reverse byte order (records still ascending)
  bool unique;      // only the first record of each key
};

// The bytes of entries every build sorts in memory before it spills sorted
// runs to files; 0 is the built-in default (128 MiB).  Process-wide, for
// all index formats; DBTerminate sets it back to 0.
uint64_t BuildSortBudget();
void SetBuildSortBudget(uint64_t bytes);

class Sorter {
 public:
  // near_file: a file in the folder that takes the sort files (the index
  // being built).  budget: bytes of entries held in memory at once, 0 for
  // the default.  Failures are logged under module.
  Sorter(const SortOrder& order, const char* near_file, uint64_t budget, ModulePath module);
  ~Sorter();
  Sorter(const Sorter&) = delete;
  Sorter& operator=(const Sorter&) = delete;

  // Reads every key of the source and sorts them; progress may be null.
  // 0, the last warning a key gave (> 0), or an error (< 0).
  int32_t Sort(KeySource& source, const BuildProgress* progress);
  // The entries the stream gives (distinct keys when unique).
  uint64_t count() const { return count_; }
  // Sort files written (0 when everything was sorted in memory).
  size_t spilled_runs() const;
  int entry_size() const { return entry_size_; }
  // Starts the stream (again) at the first entry.
  int32_t Rewind();
  // The next entry, or nullptr at the end (*rc < 0 after a read error).
  // The entry stays valid until the next call.
  const uint8_t* Next(int32_t* rc);
  // The record number of an entry.
  uint32_t RecordOf(const uint8_t* entry) const;

 private:
  // A run entry's place in the sort: the first 16 key bytes as two numbers
  // (inverted when descending) and the entry's index within the run.
  struct SortKey {
    uint64_t high;
    uint64_t low;
    uint32_t index;
  };
  // A sort file being merged: a window of its entries in memory.
  struct Reader {
    Vec<uint8_t> buffer;
    uint64_t left;    // entries not yet read from the file
    uint64_t offset;  // file offset of the next read
    size_t have;      // entries in the buffer
    size_t pos;       // next entry in the buffer
  };
  struct HeapGreater;

  int Compare(const uint8_t* a, const uint8_t* b) const;
  void SortRun(uint32_t n);
  int32_t Spill(uint64_t n);
  int32_t Fill(size_t reader);
  bool ReaderBefore(uint32_t a, uint32_t b) const;
  const uint8_t* NextEntry(int32_t* rc);

  SortOrder order_;
  int entry_size_;
  uint64_t budget_;
  ModulePath module_;
  Vec<char> folder_;         // the sort files' folder, with its final '/'
  Buffer run_;               // the run being gathered; at the end, the last run
  Vec<SortKey> sorted_;      // the sorted order of the run in run_
  Vec<FileHandle> files_;    // one sort file per spilled run
  Vec<Vec<char>> names_;     // their names
  Vec<uint64_t> counts_;     // their entries
  uint32_t sequence_ = 0;    // where the next sort file's name starts looking
  Vec<Reader> readers_;      // the merge: one reader per sort file
  Vec<uint32_t> heap_;       // readers with entries left, smallest entry on top
  uint64_t count_ = 0;
  size_t next_ = 0;          // next entry of an in-memory stream
  bool have_last_ = false;   // unique: last_ holds the key given last
  uint8_t last_[kMaxBuildKeyLength + 4] = {};
  uint8_t current_[kMaxBuildKeyLength + 4] = {};
};

}  // namespace kestrel::index
