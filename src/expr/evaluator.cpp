// The key-expression evaluator (module EVAL).
//
// Grammar, evaluated left to right without precedence:
//
//   expression := [sign] operand { sign operand }        sign := "+" | "-"
//   operand    := keyword                  (user keyword, see parse_entries.h)
//               | "DTOC(" expression [",1"] ")"
//               | "LEFT(" expression "," n ")"   | "RIGHT(" expression "," n ")"
//               | "STR(" expression ["," width ["," decimals]] ")"
//               | "SUBSTR(" expression "," start ["," count] ")"
//               | alias "->" field name    (alias: FIELD, _FIELD or the table's name)
//               | field name | numeric literal | character literal
//
// The text reaching the evaluator is free of blanks and upper-cased.  An
// expression's running value (the accumulator) combines each operand by its
// type: character texts concatenate with "+" and ignore "-", the raw numeric
// types 2..6 add and subtract in place, a second numeric ('N', 'F', 1)
// operand is an error, and dates, logicals and memos after the first
// operand are dropped.  Nested expressions (function arguments) keep their
// own accumulator on the stack, so nothing here touches the heap except a
// value too long for a Value's inline area and the result handed out.
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "datetime/dates.h"
#include "expr/evaluate.h"
#include "expr/parse_entries.h"
#include "expr/value.h"
#include "kestrel/kestrel_table.h"
#include "runtime/boundary.h"
#include "runtime/handles.h"
#include "runtime/library_state.h"
#include "runtime/status.h"
#include "table/table_control.h"
#include "table/table_format.h"

namespace kestrel {
namespace expr {
namespace {

constexpr ModulePath kEval = KS_ENGINE_MODULE("EVAL");

// Deepest nesting of function arguments and keyword arguments.  Key
// expressions are short; the limit keeps a hostile text from exhausting the
// stack.
constexpr int32_t kMaxDepth = 64;
// A name or literal followed by a delimiter is at most this long.
constexpr size_t kMaxOperandLength = 10;
// Buffer size of a date text in any style, with its terminator.
constexpr int32_t kDateTextSize = 11;
// Buffer size of field types without a conversion of their own.
constexpr int32_t kOtherTypeSize = 11;
constexpr int32_t kDefaultStrWidth = 10;
constexpr int kDbaseDateStyle = 15;

constexpr int16_t kCharacter = 'C';
constexpr int16_t kDate = 'D';
constexpr int16_t kNumeric = 'N';
constexpr int16_t kFloat = 'F';
constexpr int16_t kLogical = 'L';
constexpr int16_t kMemo = 'M';

// The evaluator's working state (one evaluation at a time per process).
// The running sums of nested expressions live on the evaluator's own stack;
// what is kept here is what a keyword callback must reach.
struct EvaluatorState {
  const char* position = nullptr;  // parse position in the expression text
  int32_t table = -1;              // table handle names are resolved against
  DBEXPRVALUE current{};           // the value a keyword callback fills
  int32_t depth = 0;               // nesting of expressions now being parsed
};

EvaluatorState& Ev() {
  static EvaluatorState state;
  return state;
}

bool IsText(int16_t type) { return type == kCharacter || type == kDate; }

// Value size of a non-text type.
int32_t NativeSize(int type) {
  switch (type) {
    case kNumeric:
    case kFloat:
      return 8;
    case kMemo:
      return 4;
    case kLogical:
      return 1;
    default: {
      uint32_t binary = table::BinaryTypeSize(type);
      return binary > 0 ? static_cast<int32_t>(binary) : kOtherTypeSize;
    }
  }
}

bool StartsWith(const char* text, const char* word, size_t length) {
  return std::strncmp(text, word, length) == 0;
}

int32_t ProcessExpression(Value& acc, bool dtoc_argument);

// Steps over the closing character of a function; never past the end.
void StepOverClose() {
  if (*Ev().position != '\0') ++Ev().position;
}

// ---- Arguments ---------------------------------------------------------

int32_t GetValue(uint16_t* number) {
  const char*& pos = Ev().position;
  if (*pos == '\0') return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  ++pos;
  size_t n = std::strcspn(pos, ",)");
  if (pos[n] == '\0') return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  if (n == 0) {
    *number = 0;
    return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  }
  // Leading digits; values beyond 16 bits saturate rather than wrap.
  uint32_t value = 0;
  for (size_t i = 0; i < n && pos[i] >= '0' && pos[i] <= '9'; ++i) {
    value = value * 10 + static_cast<uint32_t>(pos[i] - '0');
    if (value > 0xFFFF) value = 0xFFFF;
  }
  *number = static_cast<uint16_t>(value);
  pos += n;
  return 0;
}

// ---- Operands ----------------------------------------------------------

// The table the expression reads, or nullptr when its handle names none
// (a keyword callback may have closed it).
table::TableControl* Table() {
  table::TableControl* t = nullptr;
  return CheckHandle(Ev().table, DB_KIND_TABLE, &t) < 0 ? nullptr : t;
}

int32_t ReadField(table::TableControl* t, const table::FieldInfo& f, Value& out,
                  bool dtoc_argument) {
  int type = f.type;
  int32_t length = static_cast<int32_t>(f.length);
  if (length > kMaxValueLength) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  int32_t rc = 0;

  if (type == kCharacter) {
    if (!out.Reserve(static_cast<size_t>(length) + 1)) return KS_FAIL(kEval, DB_ERR_MEMORY);
    rc = table::GetField(t, f, out.data(), false);
    if (rc < 0) return KS_PASS(kEval, rc);
    out.data()[length] = '\0';
    out.type = kCharacter;
    out.length = static_cast<int32_t>(strnlen(out.data(), static_cast<size_t>(length)));
    return 0;
  }

  if (type == kDate) {
    size_t room = static_cast<size_t>(length > kDateTextSize ? length : kDateTextSize) + 1;
    if (!out.Reserve(room)) return KS_FAIL(kEval, DB_ERR_MEMORY);
    rc = table::GetFieldBytes(t, f, out.data());
    if (rc < 0) return KS_PASS(kEval, rc);
    std::memset(out.stored_date, ' ', sizeof out.stored_date);
    std::memcpy(out.stored_date, out.data(),
                static_cast<size_t>(length < kStoredDateLength ? length : kStoredDateLength));
    out.has_stored_date = true;
    out.type = kDate;
    const char* pos = Ev().position;
    if (dtoc_argument && pos[0] == ',' && pos[1] == '1') {
      // DTOC(field,1): only the stored date is needed.
      out.text_pending = true;
      out.length = 0;
      out.data()[0] = '\0';
      return 0;
    }
    std::memset(out.data(), 0, room);
    rc = table::GetField(t, f, out.data(), false);
    if (rc < 0) return KS_PASS(kEval, rc);
    out.length = static_cast<int32_t>(strnlen(out.data(), kDateTextSize));
    out.data()[out.length] = '\0';
    return 0;
  }

  int32_t size = NativeSize(type);
  size_t room = static_cast<size_t>(size > length ? size : length) + 8;
  if (!out.Reserve(room)) return KS_FAIL(kEval, DB_ERR_MEMORY);
  std::memset(out.data(), 0, room);
  rc = table::GetField(t, f, out.data(), false);
  if (rc < 0) return KS_PASS(kEval, rc);
  out.type = static_cast<int16_t>(type);
  out.length = size;
  return 0;
}

double ParseNumber(const char* text, size_t length) {
  double value = 0.0;
  auto [end, ec] = std::from_chars(text, text + length, value, std::chars_format::fixed);
  (void)end;
  if (ec == std::errc::result_out_of_range) {
    // Too many digits for a double: infinity when the integer part is not
    // zero, else a fraction too small to tell from zero.
    value = 0.0;
    for (size_t i = 0; i < length && text[i] != '.'; ++i) {
      if (text[i] != '0') value = HUGE_VAL;
    }
  } else if (ec != std::errc()) {
    value = 0.0;  // no digits at all: "" or "."
  }
  return value;
}

int32_t NameOrLiteral(Value& out, bool dtoc_argument) {
  const char*& pos = Ev().position;
  const char* text = pos;
  size_t n = std::strcspn(text, ",)+-");
  bool delimited = text[n] != '\0';
  if (delimited && (n < 1 || n > kMaxOperandLength)) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  pos = text + n;

  if (n >= 1 && n <= kMaxOperandLength) {
    char name[kMaxOperandLength + 1];
    std::memcpy(name, text, n);
    name[n] = '\0';
    table::TableControl* t = Table();
    int32_t field = t ? table::FieldNumberOf(t, name) : -1;
    if (field >= 0) return ReadField(t, t->fields[field], out, dtoc_argument);
  }

  bool numeric = true;
  for (size_t i = 0; i < n && numeric; ++i) {
    numeric = (text[i] >= '0' && text[i] <= '9') || text[i] == '.';
  }
  if (numeric) {
    double value = ParseNumber(text, n);
    std::memcpy(out.data(), &value, sizeof value);
    out.type = kNumeric;
    out.length = sizeof value;
    return 0;
  }
  if (n > static_cast<size_t>(kMaxValueLength)) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  if (!out.Reserve(n + 1)) return KS_FAIL(kEval, DB_ERR_MEMORY);
  std::memcpy(out.data(), text, n);
  out.data()[n] = '\0';
  out.type = kCharacter;
  out.length = static_cast<int32_t>(n);
  return 0;
}

// ---- Alias references --------------------------------------------------

bool IsNameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool SameLetters(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
    if (x != y) return false;
  }
  return true;
}

// Length of the alias at text when an arrow follows it ("ABT->"), else 0.
size_t AliasLength(const char* text) {
  size_t n = 0;
  while (IsNameCharacter(text[n])) ++n;
  return n > 0 && text[n] == '-' && text[n + 1] == '>' ? n : 0;
}

// An alias names this table when it is FIELD, _FIELD or the table's file
// name without folder and extension.
bool AliasNamesTable(const char* alias, size_t n) {
  if ((n == 5 && SameLetters(alias, "FIELD", 5)) || (n == 6 && SameLetters(alias, "_FIELD", 6))) {
    return true;
  }
  table::TableControl* t = Table();
  if (!t || !t->file_name) return false;
  const char* name = t->file_name;
  const char* base = name;
  for (const char* p = name; *p; ++p) {
    if (*p == '/' || *p == '\\' || *p == ':') base = p + 1;
  }
  const char* dot = std::strrchr(base, '.');
  size_t length = dot ? static_cast<size_t>(dot - base) : std::strlen(base);
  return length == n && SameLetters(base, alias, n);
}

// alias->name: the field name of this table; any other alias, or a name that
// is not a field, is an error.  Recognised before any other operand rule so
// that the "-" of the arrow is never taken for the minus operator.
int32_t AliasedField(size_t alias_length, Value& out, bool dtoc_argument) {
  const char*& pos = Ev().position;
  if (!AliasNamesTable(pos, alias_length)) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  const char* name = pos + alias_length + 2;
  size_t n = std::strcspn(name, ",)+-");
  if (n < 1 || n > kMaxOperandLength) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  char field_name[kMaxOperandLength + 1];
  std::memcpy(field_name, name, n);
  field_name[n] = '\0';
  table::TableControl* t = Table();
  int32_t field = t ? table::FieldNumberOf(t, field_name) : -1;
  if (field < 0) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  pos = name + n;
  return ReadField(t, t->fields[field], out, dtoc_argument);
}

// Takes a keyword callback's value into out.
int32_t AdoptCallbackValue(const DBEXPRVALUE& given, Value& out) {
  const char* bytes = static_cast<const char*>(given.value);
  if (IsText(given.type)) {
    size_t limit = given.length > 0 ? static_cast<size_t>(given.length) : 0;
    size_t n = bytes ? strnlen(bytes, limit) : 0;
    if (!out.Reserve(n + 1)) return KS_FAIL(kEval, DB_ERR_MEMORY);
    if (n) std::memcpy(out.data(), bytes, n);
    out.data()[n] = '\0';
    out.length = static_cast<int32_t>(n);
  } else {
    size_t n = given.length > 0 ? static_cast<size_t>(given.length) : 0;
    if (n > 0 && !bytes) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
    size_t room = n + 8;
    if (!out.Reserve(room)) return KS_FAIL(kEval, DB_ERR_MEMORY);
    std::memset(out.data(), 0, room);
    if (n) std::memcpy(out.data(), bytes, n);
    out.length = static_cast<int32_t>(n);
  }
  out.type = given.type;
  return 0;
}

int32_t CallKeyword(int32_t index, Value& out) {
  EvaluatorState& ev = Ev();
  // Copy what is needed: the callback may change the registry.
  const ParseEntry& entry = Registry().entries[index];
  ParseEntryCallback callback = entry.callback;
  bool takes_arguments = entry.name[entry.name_length - 1] == '(';
  ev.position += entry.name_length;

  // The record the callback fills starts empty; whatever an enclosing
  // callback holds there is kept aside meanwhile.
  DBEXPRVALUE saved = ev.current;
  ev.current = DBEXPRVALUE{};
  int32_t rc = callback(&ev.current);
  DBEXPRVALUE given = ev.current;
  ev.current = saved;
  if (rc < 0) {
    MemFree(given.value);
    return KS_FAIL(kEval, rc);
  }
  rc = AdoptCallbackValue(given, out);
  MemFree(given.value);
  if (rc < 0) return rc;
  if (takes_arguments) {
    if (*ev.position == ')') {
      ++ev.position;
    } else if (*ev.position != '\0') {
      return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
    }
  }
  return 0;
}

int Digits(const char* text, int count) {
  int value = 0;
  for (int i = 0; i < count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// An all-digit yyyymmdd naming a real day (year 0..9999, as the calendar
// accepts them).
bool IsValidStoredDate(const char* raw) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int year = Digits(raw, 4);
  int month = Digits(raw + 4, 2);
  int day = Digits(raw + 6, 2);
  if (month < 1 || month > 12 || day < 1) return false;
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  int last = kDays[month - 1] + (month == 2 && leap ? 1 : 0);
  return day <= last;
}

// Writes the date of value (type 'D') as yyyymmdd into value as text.
int32_t ToDbaseDate(Value& value) {
  char text[16] = {};
  int32_t rc;
  if (value.has_stored_date) {
    // From the stored bytes: the date itself, not its default-style text,
    // so that two-digit styles keep the century.
    const char* raw = value.stored_date;
    bool blank = true;
    bool digits = true;
    for (int i = 0; i < kStoredDateLength; ++i) {
      blank = blank && raw[i] == ' ';
      digits = digits && raw[i] >= '0' && raw[i] <= '9';
    }
    if (blank) {
      std::memset(text, ' ', kStoredDateLength);
    } else if (digits && IsValidStoredDate(raw)) {
      std::memcpy(text, raw, kStoredDateLength);
    } else {
      // Anything else is read as the table engine reads a stored date.
      char copy[kStoredDateLength + 1];
      std::memcpy(copy, raw, kStoredDateLength);
      copy[kStoredDateLength] = '\0';
      int32_t year, month, day;
      rc = TextToDate(&year, &month, &day, copy, kDbaseDateStyle);
      if (rc < 0) return KS_PASS(kEval, rc);
      if (rc == DB_WARN_FILE_EMPTY) {
        std::memset(text, ' ', kStoredDateLength);
      } else {
        rc = DateToText(text, kDbaseDateStyle, year, month, day);
        if (rc < 0) return KS_PASS(kEval, rc);
      }
    }
  } else {
    int32_t style = State().default_date_style;
    if (style == kDbaseDateStyle) return 0;
    rc = ConvertDateText(text, kDbaseDateStyle, value.data(), style);
    if (rc < 0) return KS_PASS(kEval, rc);
    if (rc == DB_WARN_FILE_EMPTY) {
      std::memset(text, ' ', kStoredDateLength);
      text[kStoredDateLength] = '\0';
    }
  }
  size_t n = strnlen(text, sizeof text - 1);
  if (!value.Reserve(n + 1)) return KS_FAIL(kEval, DB_ERR_MEMORY);
  std::memcpy(value.data(), text, n + 1);
  value.length = static_cast<int32_t>(n);
  return 0;
}

int32_t Dtoc(Value& out) {
  Ev().position += 5;
  int32_t rc = ProcessExpression(out, true);
  if (rc < 0) return rc;
  if (out.type != kDate) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  const char*& pos = Ev().position;
  if (pos[0] == ',' && pos[1] == '1') {
    pos += 2;
    rc = ToDbaseDate(out);
    if (rc < 0) return rc;
  } else if (out.text_pending) {
    return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);  // cannot happen: pending only when ",1" follows
  }
  out.type = kCharacter;
  out.has_stored_date = false;
  out.text_pending = false;
  StepOverClose();
  return 0;
}

// LEFT, RIGHT: the text's first or last n characters; n beyond the text
// leaves it whole.
int32_t LeftRight(Value& out, size_t keyword_length, bool left) {
  Ev().position += keyword_length;
  int32_t rc = ProcessExpression(out, false);
  if (rc < 0) return rc;
  if (out.type != kCharacter) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  uint16_t n;
  rc = GetValue(&n);
  if (rc < 0) return rc;
  if (n < out.length) {
    if (!left) std::memmove(out.data(), out.data() + out.length - n, n);
    out.length = n;
    out.data()[n] = '\0';
  }
  StepOverClose();
  return 0;
}

// SUBSTR: from 1-based start (0 counts as 1; beyond the text gives the empty
// text), at most count characters.
int32_t Substr(Value& out) {
  Ev().position += 7;
  int32_t rc = ProcessExpression(out, false);
  if (rc < 0) return rc;
  if (out.type != kCharacter) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  uint16_t start;
  rc = GetValue(&start);
  if (rc < 0) return rc;
  int32_t skip = start > 0 ? start - 1 : 0;
  if (skip >= out.length) {
    out.length = 0;
  } else if (skip > 0) {
    std::memmove(out.data(), out.data() + skip, static_cast<size_t>(out.length - skip));
    out.length -= skip;
  }
  out.data()[out.length] = '\0';
  if (*Ev().position != ')') {
    uint16_t count;
    rc = GetValue(&count);
    if (rc < 0) return rc;
    if (count < out.length) {
      out.length = count;
      out.data()[count] = '\0';
    }
  }
  StepOverClose();
  return 0;
}

// STR: the number right-aligned in width characters with the given
// decimals, as the C library's "%*.*f" prints it; a number that needs more
// than width characters gives width asterisks.
int32_t Str(Value& out) {
  const char*& pos = Ev().position;
  pos += 4;
  int32_t rc = ProcessExpression(out, false);
  if (rc < 0) return rc;
  if (out.type != kNumeric && out.type != kFloat) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  double number;
  std::memcpy(&number, out.data(), sizeof number);
  uint16_t width = kDefaultStrWidth;
  uint16_t decimals = 0;
  if (*pos == ',') {
    rc = GetValue(&width);
    if (rc < 0) return rc;
    if (*pos == ',') {
      rc = GetValue(&decimals);
      if (rc < 0) return rc;
    }
  }
  if (*pos != ')') return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  ++pos;
  if (width > kMaxValueLength) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  if (!out.Reserve(static_cast<size_t>(width) + 1)) return KS_FAIL(kEval, DB_ERR_MEMORY);
  char* text = out.data();
  auto [end, ec] = std::to_chars(text, text + width, number, std::chars_format::fixed, decimals);
  if (ec != std::errc()) {
    std::memset(text, '*', width);
  } else {
    size_t n = static_cast<size_t>(end - text);
    std::memmove(text + (width - n), text, n);
    std::memset(text, ' ', width - n);
  }
  text[width] = '\0';
  out.type = kCharacter;
  out.length = width;
  return 0;
}

int32_t ParseOperand(Value& out, bool dtoc_argument) {
  const char* text = Ev().position;
  if (size_t alias = AliasLength(text)) return AliasedField(alias, out, dtoc_argument);
  if (KeywordCount() > 0) {
    int32_t index = FindParseEntry(text);
    if (index >= 0) return CallKeyword(index, out);
  }
  switch (text[0]) {
    case 'D':
      if (StartsWith(text, "DTOC(", 5)) return Dtoc(out);
      break;
    case 'L':
      if (StartsWith(text, "LEFT(", 5)) return LeftRight(out, 5, true);
      break;
    case 'R':
      if (StartsWith(text, "RIGHT(", 6)) return LeftRight(out, 6, false);
      break;
    case 'S':
      if (StartsWith(text, "STR(", 4)) return Str(out);
      if (StartsWith(text, "SUBSTR(", 7)) return Substr(out);
      break;
    default:
      break;
  }
  return NameOrLiteral(out, dtoc_argument);
}

// ---- Combining ---------------------------------------------------------

int32_t Combine(Value& acc, Value& operand, char sign) {
  switch (operand.type) {
    case kNumeric:
    case kFloat:
    case DB_FTYPE_DOUBLE:
      // Only the raw numeric types add.
      return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
    case DB_FTYPE_FLOAT: {
      if (acc.type != operand.type) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
      float a, b;
      std::memcpy(&a, acc.data(), sizeof a);
      std::memcpy(&b, operand.data(), sizeof b);
      a = sign == '+' ? a + b : a - b;
      std::memcpy(acc.data(), &a, sizeof a);
      return 0;
    }
    case DB_FTYPE_ULONG:
    case DB_FTYPE_LONG: {
      if (acc.type != operand.type) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
      uint32_t a, b;
      std::memcpy(&a, acc.data(), sizeof a);
      std::memcpy(&b, operand.data(), sizeof b);
      a = sign == '+' ? a + b : a - b;
      std::memcpy(acc.data(), &a, sizeof a);
      return 0;
    }
    case DB_FTYPE_USHORT:
    case DB_FTYPE_SHORT: {
      if (acc.type != operand.type) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
      uint16_t a, b;
      std::memcpy(&a, acc.data(), sizeof a);
      std::memcpy(&b, operand.data(), sizeof b);
      a = static_cast<uint16_t>(sign == '+' ? a + b : a - b);
      std::memcpy(acc.data(), &a, sizeof a);
      return 0;
    }
    case kCharacter: {
      // "-" drops a character operand: A-B is A.
      if (sign == '-') return 0;
      if (acc.type != kCharacter) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
      int32_t total = acc.length + operand.length;
      if (total > kMaxValueLength) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
      if (!acc.Reserve(static_cast<size_t>(total) + 1)) return KS_FAIL(kEval, DB_ERR_MEMORY);
      std::memcpy(acc.data() + acc.length, operand.data(), static_cast<size_t>(operand.length));
      acc.data()[total] = '\0';
      acc.length = total;
      return 0;
    }
    default:
      // Dates, logicals, memos and the rest after the first operand.
      return 0;
  }
}

// Restores the nesting depth on every way out.
class DepthGuard {
 public:
  DepthGuard() : depth_(Ev().depth) { ++depth_; }
  ~DepthGuard() { --depth_; }
  bool too_deep() const { return depth_ > kMaxDepth; }

 private:
  int32_t& depth_;
};

int32_t ProcessExpression(Value& acc, bool dtoc_argument) {
  DepthGuard guard;
  if (guard.too_deep()) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  const char*& pos = Ev().position;
  acc.Clear();
  char sign = '+';
  if (*pos == '+' || *pos == '-') {
    sign = *pos;
    ++pos;
  }
  Value operand;
  for (;;) {
    if (acc.type == kTypeEmpty) {
      int32_t rc = ParseOperand(acc, dtoc_argument);
      if (rc < 0) return rc;
    } else {
      operand.Clear();
      int32_t rc = ParseOperand(operand, dtoc_argument);
      if (rc < 0) return rc;
      rc = Combine(acc, operand, sign);
      if (rc < 0) return rc;
    }
    if (*pos != '+' && *pos != '-') break;
    sign = *pos;
    ++pos;
  }
  return 0;
}

// Copies a finished value into a buffer from the library allocator.
int32_t HandOut(const Value& value, DBEXPRVALUE* out) {
  size_t copy = static_cast<size_t>(value.length) + (IsText(value.type) ? 1 : 0);
  void* buffer = MemAlloc(copy > 0 ? copy : 1);
  if (!buffer) return KS_FAIL(kEval, DB_ERR_MEMORY);
  std::memcpy(buffer, value.data(), copy);
  out->value = buffer;
  out->type = value.type;
  out->length = static_cast<int16_t>(value.length);
  return 0;
}

// Saves the parse position and table of an enclosing evaluation (a keyword
// callback may evaluate another expression) and restores them on exit.
class SavedPosition {
 public:
  SavedPosition() : position_(Ev().position), table_(Ev().table) {}
  ~SavedPosition() {
    Ev().position = position_;
    Ev().table = table_;
  }

 private:
  const char* position_;
  int32_t table_;
};

}  // namespace

int32_t ProcessTableForKeyword() {
  EvaluatorState& ev = Ev();
  if (!ev.position) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  MemFree(ev.current.value);
  ev.current = DBEXPRVALUE{};
  Value value;
  int32_t rc = ProcessExpression(value, false);
  if (rc < 0) return Record(rc);
  rc = HandOut(value, &ev.current);
  if (rc < 0) return rc;
  return Succeed();
}

int32_t GetValueForKeyword(uint16_t* number) {
  if (!number) return KS_FAIL(kEval, DB_ERR_NULL);
  if (!Ev().position) return KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  int32_t rc = GetValue(number);
  if (rc < 0) return rc;
  return Succeed();
}

}  // namespace expr

int32_t EvaluateKeyExpression(int32_t table, const char* expression, DBEXPRVALUE* out) {
  using namespace expr;
  if (!out) return KS_FAIL(kEval, DB_ERR_NULL);
  *out = DBEXPRVALUE{};
  if (!expression) return KS_FAIL(kEval, DB_ERR_NULL);
  int32_t rc = CheckHandle(table, DB_KIND_TABLE);
  if (rc < 0) return KS_FAIL(kEval, rc);

  SavedPosition saved;
  EvaluatorState& ev = Ev();
  ev.position = expression;
  ev.table = table;
  Value result;
  rc = ProcessExpression(result, false);
  if (rc >= 0 && *ev.position != '\0') rc = KS_FAIL(kEval, DB_ERR_BAD_EXPRESSION);
  if (rc < 0) return Record(rc);
  rc = HandOut(result, out);
  if (rc < 0) return rc;
  return Succeed();
}

}  // namespace kestrel
