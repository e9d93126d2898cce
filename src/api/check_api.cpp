// The exported index check: recognises the file's format, runs that format's
// checker and hands the findings to the caller.  The table below is where a
// new index engine adds its checker.
#include <cstring>
#include <iterator>

#include "index/clipper/ntx_check.h"
#include "index/dbase/dbase_check.h"
#include "index/common/checker.h"
#include "index/foxpro/fox_check.h"
#include "kestrel/kestrel_check.h"
#include "runtime/boundary.h"

using namespace kestrel;

namespace {

constexpr ModulePath kCheck = KS_ENGINE_MODULE("CCHECK");

// The formats with a checker; the first also checks files whose header fits
// no format.
constexpr index::FormatChecker kCheckers[] = {
    {index::IndexFormat::kNtx, &ntx::CheckOpenFile},
    {index::IndexFormat::kIdx, &foxpro::CheckOpenFile},
    {index::IndexFormat::kCdx, &foxpro::CheckOpenFile},
    {index::IndexFormat::kNdx, &dbase::CheckNdxFile},
};

int32_t PublicFormat(index::IndexFormat format) {
  switch (format) {
    case index::IndexFormat::kNtx:
      return DB_INDEX_NTX;
    case index::IndexFormat::kNdx:
      return DB_INDEX_NDX;
    case index::IndexFormat::kMdx:
      return DB_INDEX_MDX;
    case index::IndexFormat::kIdx:
      return DB_INDEX_IDX;
    case index::IndexFormat::kCdx:
      return DB_INDEX_CDX;
    case index::IndexFormat::kNsx:
      return DB_INDEX_NSX;
    case index::IndexFormat::kUnknown:
      break;
  }
  return DB_INDEX_UNKNOWN;
}

}  // namespace

int32_t DBCheckIndex(const char* filename, DBCHECKREPORT report, void* context,
                     DBCHECKSUMMARY* summary) {
  return Guarded([&]() -> int32_t {
    if (!filename || !summary) return KS_FAIL(kCheck, DB_ERR_NULL);
    *summary = DBCHECKSUMMARY{};
    Vec<index::CheckFinding> findings;
    index::CheckSummary s{};
    index::IndexFormat format = index::IndexFormat::kUnknown;
    int32_t rc =
        index::CheckIndexFile(filename, kCheckers, std::size(kCheckers), &format, &findings, &s);
    summary->format = PublicFormat(format);
    std::strncpy(summary->format_name, index::IndexFormatName(format),
                 sizeof summary->format_name - 1);
    if (rc < 0) return rc;
    summary->keys = s.keys;
    summary->depth = s.depth;
    summary->tree_pages = s.tree_pages;
    summary->free_pages = s.free_pages;
    summary->key_length = s.key_length;
    summary->flags = (s.unique ? DB_CHECK_UNIQUE : 0) | (s.descending ? DB_CHECK_DESCENDING : 0);
    for (const index::CheckFinding& f : findings) {
      DBCHECKFINDING out{};
      out.severity = static_cast<int32_t>(f.severity);
      out.page = f.page;
      out.code = f.code;
      std::memcpy(out.text, f.text, sizeof out.text);
      switch (f.severity) {
        case index::Severity::kInfo:
          ++summary->notes;
          break;
        case index::Severity::kWarning:
          ++summary->warnings;
          break;
        case index::Severity::kFault:
          ++summary->faults;
          break;
      }
      if (report) report(context, &out);
    }
    return Record(rc);
  });
}
