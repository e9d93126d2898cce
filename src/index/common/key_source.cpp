// The table key source (see key_source.h).
#include "index/common/key_source.h"

#include <cstdint>
#include <cstring>

#include "expr/evaluate.h"
#include "expr/parse_entries.h"
#include "runtime/library_state.h"
#include "table/table_control.h"

namespace kestrel::index {

int32_t TableKeySource::Start() {
  control_ = table::LookUp(table_, module_);
  if (!control_) return ErrorCode();
  uint32_t records = 0;
  int32_t rc = table::GetRecordCount(control_, &records);
  if (rc < 0) return KS_PASS(module_, rc);
  // A count beyond what a record number can name is read up to the first
  // record the file does not hold, which fails the build.
  count_ = records > INT32_MAX ? INT32_MAX : records;
  // A key that is one character or numeric field on its own (and no user
  // keyword could claim the name) is read straight from the record into a
  // buffer kept for the whole build: the same key the evaluator's value
  // would give, without parsing the expression and allocating a value for
  // every record.  Numbers are keyed from their stored digits where the
  // engine says that is exact; other texts take the evaluator's way.
  if (expr::KeywordCount() == 0 && std::strpbrk(expression_, "+-(),") == nullptr) {
    const int32_t f = table::FieldNumberOf(control_, expression_);
    if (f >= 0 && control_->fields[f].length > 0) {
      const table::FieldInfo& d = control_->fields[f];
      const int type = d.type;
      bool usable = type == 'C' || ((type == 'N' || type == 'F') && maker_.TakesNumericText()) ||
                    (type == 'D' && d.length == 8 && maker_.TakesStoredDate());
      if (usable && field_text_.Allocate(d.length + 1u)) {
        direct_field_ = f;
        direct_type_ = type;
      }
    }
  }
  return 0;
}

int32_t TableKeySource::KeyOf(uint32_t record, uint8_t* key) {
  Succeed();
  int32_t rc = table::GetRecord(control_, nullptr, static_cast<int32_t>(record));
  if (rc < 0) return KS_PASS(module_, rc);
  char* text = reinterpret_cast<char*>(field_text_.data());
  int text_length = static_cast<int>(field_text_.size()) - 1;
  if (direct_type_ == 'D') {
    int32_t got = table::GetFieldBytes(control_, control_->fields[direct_field_], text);
    if (got < 0) return KS_PASS(module_, got);
    text[text_length] = '\0';
    return maker_.FromStoredDate(text, key);
  }
  if (direct_type_ == 'N' || direct_type_ == 'F') {
    int32_t made = 0;
    int32_t got = table::GetFieldBytes(control_, control_->fields[direct_field_], text);
    if (got < 0) return KS_PASS(module_, got);
    if (maker_.FromNumericText(text, text_length, key, &made)) return made;
  }
  DBEXPRVALUE v{};
  int32_t got = 0;
  if (direct_type_ == 'C') {
    got = table::GetField(control_, control_->fields[direct_field_], text, false);
    text[text_length] = '\0';
    v.value = text;
    v.type = 'C';
    v.length = static_cast<int16_t>(strnlen(text, text_length));
  } else {
    got = EvaluateKeyExpression(table_, expression_, &v);
  }
  if (got < 0) return KS_PASS(module_, got);
  got = maker_.FromValue(v, key);
  if (direct_type_ != 'C') MemFree(v.value);
  return got;
}

}  // namespace kestrel::index
