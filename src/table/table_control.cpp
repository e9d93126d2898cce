// The table control block: header accessors, its destructor and the handle
// look-ups every table entry point starts with.
#include "table/table_control.h"

#include "util/coding.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDfver = KS_ENGINE_MODULE("DFVER");
}  // namespace

TableControl::~TableControl() {
  FileUnmapView(view, view_size);
  MemFree(cache);
  if (owns_record) MemFree(record);
  MemFree(fields);
  MemFree(file_name);
}

uint32_t TableControl::RecordCount() const { return LoadLE32(header + kHdrRecordCount); }
void TableControl::SetRecordCount(uint32_t count) { StoreLE32(header + kHdrRecordCount, count); }
uint32_t TableControl::HeaderLength() const { return LoadLE16(header + kHdrHeaderLength); }
uint32_t TableControl::RecordLength() const { return LoadLE16(header + kHdrRecordLength); }
uint32_t TableControl::ChainHead() const { return LoadLE32(header + kHdrChainHead); }
void TableControl::SetChainHead(uint32_t head) { StoreLE32(header + kHdrChainHead, head); }

TableControl* LookUp(int32_t handle, ModulePath module) {
  return LookUpHandle<TableControl>(handle, DB_KIND_TABLE, module);
}

TableControl* LookUpField(int32_t handle, int32_t field, ModulePath module) {
  TableControl* t = LookUp(handle, module);
  if (!t) return nullptr;
  if (field < 0 || field >= t->field_count) {
    KS_FAIL(kDfver, DB_ERR_FIELD_COUNT);
    KS_PASS(module, DB_ERR_FIELD_COUNT);
    return nullptr;
  }
  return t;
}

}  // namespace kestrel::table
