// Conversions between a field's stored text in the record buffer and the
// caller's native value (see field_convert.cpp for the rules).
#pragma once

#include <cstdint>

#include "table/table_control.h"

namespace kestrel::table {

// Bytes a field takes in the unpacked record layout of
// DBGetRecordToBuffer / DBPutRecordFromBuffer.
uint32_t UnpackedSize(const FieldInfo& f);

// Converts the field to its native form.  Returns 0, the warning 212 for a
// blank field (the type's empty value is stored), or a logged error.
int32_t GetValue(const TableControl* t, const FieldInfo& f, void* out);
// The field as text whatever its type: its bytes and a terminating zero;
// 212 when blank.
int32_t GetText(const TableControl* t, const FieldInfo& f, char* out);
// Stores a native value.  Returns 0, the warnings 205 (text truncated) or 206
// (number rounded), or a logged error with the field unchanged.
int32_t PutValue(TableControl* t, const FieldInfo& f, const void* in);
// Stores text as a character field whatever the type (205 when cut).
int32_t PutText(TableControl* t, const FieldInfo& f, const char* in);
// True when every byte of the field is a space (and it has at least one).
bool FieldBlank(const TableControl* t, const FieldInfo& f);

}  // namespace kestrel::table
