// The new file an index build writes beside the one it replaces.
//
// A build never writes into the index it rebuilds: it creates a work file
// with a unique name in the same folder ("<index name>.<process id>_<n>.TMP"),
// writes and closes it, and only then moves it over the old index in one
// step.  A build that fails, or is stopped, removes its work file and leaves
// the old index exactly as it was.  (A process killed outright leaves the
// old index too, and a stray work file.)
#pragma once

#include <cstdint>

#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::index {

class WorkFile {
 public:
  explicit WorkFile(ModulePath module) : module_(module) {}
  ~WorkFile();
  WorkFile(const WorkFile&) = delete;
  WorkFile& operator=(const WorkFile&) = delete;

  // Reserves a new, empty work file beside target.
  int32_t Create(const char* target);
  // The work file's name (empty before Create).
  const char* name() const { return name_.empty() ? "" : name_.data(); }
  // Moves the complete work file over the target; on failure the work file
  // is removed and the target stays as it was.
  int32_t Replace();

 private:
  ModulePath module_;
  const char* target_ = nullptr;
  Vec<char> name_;
  bool pending_ = false;  // the work file exists and is ours to remove
};

}  // namespace kestrel::index
