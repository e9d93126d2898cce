// Where an index build's keys come from.
//
// A build asks a key source for the key of every record, 1 to count, in
// record order.  TableKeySource is the usual one: it reads each record of an
// open table and evaluates the index's key expression, handing the value to
// the engine's KeyMaker, which knows the engine's key bytes.  When the
// expression is a single character or numeric field it reads the field
// straight from the record instead (same key, no parse and no value
// allocated per record); so is a lone date field for an engine that keys
// dates from their stored form.
#pragma once

#include <cstdint>

#include "kestrel/kestrel_expr.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::table {
struct TableControl;
}

namespace kestrel::index {

// Room a key buffer handed to KeyOf has: the longest key any engine builds,
// plus a terminating NUL that some engines' converters write.
inline constexpr int kMaxBuildKeyLength = 256;

class KeySource {
 public:
  virtual ~KeySource() = default;
  // Records, numbered 1 to count.
  virtual uint32_t count() const = 0;
  // Writes the record's key into key (the engine's key length bytes; the
  // buffer holds kMaxBuildKeyLength + 1).  Records are asked for in
  // ascending order.  0, a warning (> 0: the build goes on and reports it)
  // or an error (< 0: the build stops).
  virtual int32_t KeyOf(uint32_t record, uint8_t* key) = 0;
};

// An engine's conversion of a record's value into its key bytes.
class KeyMaker {
 public:
  virtual ~KeyMaker() = default;
  // The key of an evaluated value; a character field read directly arrives
  // as a 'C' value of the field's text without trailing NULs.
  virtual int32_t FromValue(const DBEXPRVALUE& value, uint8_t* key) = 0;
  // Whether FromNumericText may be asked at all (numeric fields are read
  // directly only then).
  virtual bool TakesNumericText() const { return false; }
  // The key of a numeric field's stored text (length bytes, not
  // terminated), when it gives exactly the key of the evaluated value;
  // false leaves the record to the evaluator and FromValue.
  virtual bool FromNumericText(const char* /*text*/, int /*length*/, uint8_t* /*key*/,
                               int32_t* /*status*/) {
    return false;
  }
  // Whether a date field on its own is handed over as its stored yyyymmdd
  // (FromStoredDate) rather than evaluated into the default date style,
  // which may drop the century.
  virtual bool TakesStoredDate() const { return false; }
  virtual int32_t FromStoredDate(const char* /*yyyymmdd*/, uint8_t* /*key*/) { return 0; }
};

// The keys of an open table's records (deleted ones too) for a key
// expression, through the evaluator or, for a lone field, directly.
class TableKeySource final : public KeySource {
 public:
  // expression: the index's stored form (blanks removed, upper case); it
  // must outlive the source.  Failures are logged under module.
  TableKeySource(int32_t table, const char* expression, KeyMaker& maker, ModulePath module)
      : table_(table), expression_(expression), maker_(maker), module_(module) {}
  // Reads the record count and chooses the direct path when it applies.
  int32_t Start();
  uint32_t count() const override { return count_; }
  int32_t KeyOf(uint32_t record, uint8_t* key) override;
  // The field read directly (-1 when keys go through the evaluator).
  int32_t direct_field() const { return direct_field_; }

 private:
  int32_t table_;
  table::TableControl* control_ = nullptr;  // the open table, found by Start
  const char* expression_;
  KeyMaker& maker_;
  ModulePath module_;
  uint32_t count_ = 0;
  int32_t direct_field_ = -1;
  int direct_type_ = 0;
  Buffer field_text_;  // the field's bytes + NUL, kept for the whole build
};

}  // namespace kestrel::index
