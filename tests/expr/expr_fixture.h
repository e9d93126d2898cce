// Shared set-up of the evaluator tests: a real table in a temporary
// directory with one field of each kind the evaluator treats differently,
// and a helper that evaluates a text and keeps a copy of the result.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "runtime/memory.h"
#include "support/library.h"

namespace kestrel::test {

// A copied evaluation result.
struct Result {
  int32_t rc = 0;
  int16_t type = 0;
  int16_t length = 0;
  std::string bytes;  // the value buffer: text without its NUL, or the raw bytes
  std::string text;   // the expression as the evaluator left it

  template <class T>
  T As() const {
    T v{};
    if (bytes.size() >= sizeof v) std::memcpy(&v, bytes.data(), sizeof v);
    return v;
  }
  // "error <rc>", or the type (a letter, or a code and "/"), the length, ":"
  // and the value: the quoted text of C and D, the numeric types' number.
  std::string Show() const {
    if (rc < 0) return "error " + std::to_string(rc);
    std::string head =
        (type > ' ' ? std::string(1, static_cast<char>(type)) : std::to_string(type) + "/") +
        std::to_string(length) + ":";
    switch (type) {
      case 'C':
      case 'D':
        return head + '"' + bytes + '"';
      case 'N':
      case 'F':
      case DB_FTYPE_DOUBLE: {
        char number[64];
        std::snprintf(number, sizeof number, "%.15g", As<double>());
        return head + number;
      }
      case DB_FTYPE_FLOAT:
        return head + std::to_string(As<float>());
      case DB_FTYPE_ULONG:
        return head + std::to_string(As<uint32_t>());
      case DB_FTYPE_LONG:
        return head + std::to_string(As<int32_t>());
      case DB_FTYPE_USHORT:
        return head + std::to_string(As<uint16_t>());
      case 'L':
        return head + std::to_string(As<uint8_t>());
      default:
        return head;
    }
  }
};

// Replaces a keyword's value with text (type C); -203 when memory runs out.
inline int32_t SetText(DBEXPRVALUE* current, const std::string& text) {
  void* buffer = nullptr;
  if (DBAllocateMemory(&buffer, static_cast<uint32_t>(text.size() + 1)) < 0) return DB_ERR_MEMORY;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  DBFreeMemory(current->value);
  current->value = buffer;
  current->type = 'C';
  current->length = static_cast<int16_t>(text.size());
  return 0;
}

// The keywords the fuzz target registers as "KW" and "PAD(": a constant
// text, and PAD(expr,n), the argument's text cut or padded with '.' to n.
inline int32_t ConstantKeyword(DBEXPRVALUE* current) {
  current->value = nullptr;
  return SetText(current, "KW");
}
inline int32_t PadKeyword(DBEXPRVALUE* current) {
  int32_t rc = DBProcessTable();
  if (rc < 0) return rc;
  uint16_t width = 0;
  rc = DBGetValue(&width);
  if (rc < 0) return rc;
  if (current->type != 'C') return DB_ERR_BAD_EXPRESSION;
  std::string text(static_cast<const char*>(current->value), current->length);
  text.resize(width, '.');
  return SetText(current, text);
}

// Fields of the test table, in order.
//   NAME C(10)  FIRST C(8)  PRICE N(8,2)  TAX N(6,2)  AMOUNT N(10,2)
//   HIRED D  ACTIVE L  NOTES M  Q1 Q2 (3: unsigned 32-bit)  S1 S2 (5: unsigned
//   16-bit)  I1 (4: signed 32-bit)  F1 F2 (2: float)  RAW12 (12: not converted)
// Record 1 is filled, record 2 has a blank date and other texts.
class ExprTest : public LibraryTest {
 public:
  // Evaluates text with DBEvaluateStr against table and frees the result.
  static Result EvalOn(int32_t table, const std::string& expression);

 protected:
  ExprTest() : LibraryTest(40, 3) {}  // default date style 3, mm/dd/yyyy
  void SetUp() override {
    LibraryTest::SetUp();
    path_ = dir_.File("staff.dbf");
    std::vector<DBFIELD> fields = {
        Field("NAME", 'C', 10),  Field("FIRST", 'C', 8),      Field("PRICE", 'N', 8, 2),
        Field("TAX", 'N', 6, 2), Field("AMOUNT", 'N', 10, 2), Field("HIRED", 'D', 8),
        Field("ACTIVE", 'L', 1), Field("NOTES", 'M', 10),     Field("Q1", 3, 4),
        Field("Q2", 3, 4),       Field("S1", 5, 2),           Field("S2", 5, 2),
        Field("I1", 4, 4),       Field("F1", 2, 4),           Field("F2", 2, 4),
        Field("RAW12", 12, 4)};
    ASSERT_EQ(DBCreateFile(path_.c_str(), static_cast<int32_t>(fields.size()), fields.data(), 1),
              0);
    ASSERT_EQ(DBOpenFile(&table_, path_.c_str(), 1), 0);
    const double price = 12.5, tax = 1.25, amount = 1234.56, minus = -7.5;
    const uint8_t yes = 1;
    const uint32_t q1 = 7, q2 = 5;
    const uint16_t s1 = 300, s2 = 45;
    const int32_t i1 = -40;
    const float f1 = 1.5f, f2 = 0.25f;
    const std::vector<std::pair<const char*, const void*>> first = {
        {"NAME", "SMITH"}, {"FIRST", "JOHN"},   {"PRICE", &price},
        {"TAX", &tax},     {"AMOUNT", &amount}, {"HIRED", "07/15/2003"},
        {"ACTIVE", &yes},  {"Q1", &q1},         {"Q2", &q2},
        {"S1", &s1},       {"S2", &s2},         {"I1", &i1},
        {"F1", &f1},       {"F2", &f2}};
    const std::vector<std::pair<const char*, const void*>> second = {
        {"NAME", "JONES"}, {"FIRST", "MARY"}, {"AMOUNT", &minus}};
    for (const auto* record : {&first, &second}) {
      ASSERT_EQ(DBClearBuffer(table_), 0);
      for (const auto& [name, value] : *record) {
        ASSERT_GE(DBPutNamedData(table_, name, value), 0) << name;
      }
      int32_t recno = 0;
      ASSERT_GE(DBPutRecord(table_, &recno, 0), 0);
    }
    ASSERT_GE(DBGetRecord(table_, 1), 0);
  }

  // Evaluates text with DBEvaluateStr and frees the result buffer.
  Result Eval(const std::string& expression) { return EvalOn(table_, expression); }
  std::string Show(const std::string& expression) { return Eval(expression).Show(); }

  std::string path_;
  int32_t table_ = -1;
};

inline Result ExprTest::EvalOn(int32_t table, const std::string& expression) {
  std::vector<char> text(expression.begin(), expression.end());
  text.push_back('\0');
  DBEXPRVALUE value{reinterpret_cast<void*>(1), 0, 0};
  Result r;
  r.rc = DBEvaluateStr(table, text.data(), &value);
  r.text = text.data();
  r.type = value.type;
  r.length = value.length;
  if (r.rc < 0) {
    EXPECT_EQ(value.value, nullptr) << expression;
  } else {
    EXPECT_NE(value.value, nullptr) << expression;
    const char* bytes = static_cast<const char*>(value.value);
    r.bytes.assign(bytes, bytes + value.length);
    if (value.type == 'C' || value.type == 'D') {
      EXPECT_EQ(bytes[value.length], '\0') << expression;
    }
    DBFreeMemory(value.value);
  }
  return r;
}

}  // namespace kestrel::test
