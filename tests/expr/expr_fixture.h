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
#include "support/temp_dir.h"

namespace kestrel::test {

// A copied evaluation result.
struct Result {
  int32_t rc = 0;
  int16_t type = 0;
  int16_t length = 0;
  std::string bytes;  // the value buffer: text without its NUL, or the raw bytes
  std::string text;   // the expression as the evaluator left it

  double AsDouble() const {
    double d = 0;
    if (bytes.size() >= sizeof d) std::memcpy(&d, bytes.data(), sizeof d);
    return d;
  }
  template <class T>
  T As() const {
    T v{};
    if (bytes.size() >= sizeof v) std::memcpy(&v, bytes.data(), sizeof v);
    return v;
  }
};

// Fields of the test table, in order.
//   NAME C(10)  FIRST C(8)  PRICE N(8,2)  TAX N(6,2)  AMOUNT N(10,2)
//   HIRED D  ACTIVE L  NOTES M  Q1 Q2 (3: unsigned 32-bit)  S1 S2 (5: unsigned
//   16-bit)  I1 (4: signed 32-bit)  F1 F2 (2: float)  RAW12 (12: not converted)
class ExprTest : public ::testing::Test {
 public:
  // Evaluates text with DBEvaluateStr against table and frees the result.
  static Result EvalOn(int32_t table, const std::string& expression);

 protected:
  void SetUp() override {
    ASSERT_EQ(DBInitialize(40, 3), 0);
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
    // Record 1: filled.
    Put("NAME", "SMITH");
    Put("FIRST", "JOHN");
    PutNumber("PRICE", 12.5);
    PutNumber("TAX", 1.25);
    PutNumber("AMOUNT", 1234.56);
    PutDate("HIRED", "07/15/2003");
    uint8_t yes = 1;
    ASSERT_GE(DBPutNamedData(table_, "ACTIVE", &yes), 0);
    uint32_t q1 = 7, q2 = 5;
    ASSERT_GE(DBPutNamedData(table_, "Q1", &q1), 0);
    ASSERT_GE(DBPutNamedData(table_, "Q2", &q2), 0);
    uint16_t s1 = 300, s2 = 45;
    ASSERT_GE(DBPutNamedData(table_, "S1", &s1), 0);
    ASSERT_GE(DBPutNamedData(table_, "S2", &s2), 0);
    int32_t i1 = -40;
    ASSERT_GE(DBPutNamedData(table_, "I1", &i1), 0);
    float f1 = 1.5f, f2 = 0.25f;
    ASSERT_GE(DBPutNamedData(table_, "F1", &f1), 0);
    ASSERT_GE(DBPutNamedData(table_, "F2", &f2), 0);
    Append();
    // Record 2: blank date, other texts.
    ASSERT_EQ(DBClearBuffer(table_), 0);
    Put("NAME", "JONES");
    Put("FIRST", "MARY");
    PutNumber("AMOUNT", -7.5);
    Append();
    ASSERT_GE(DBGetRecord(table_, 1), 0);
  }

  void TearDown() override {
    DBCloseFile(table_);
    DBTerminate();
    testing::FailAllocation(0);
  }

  static DBFIELD Field(const char* name, int type, int length, int decimals = 0) {
    DBFIELD f{};
    std::strncpy(f.name, name, sizeof f.name - 1);
    f.type = type;
    f.length = length;
    f.decimals = decimals;
    return f;
  }

  void Put(const char* name, const char* text) { ASSERT_GE(DBPutNamedStr(table_, name, text), 0); }
  void PutNumber(const char* name, double value) {
    ASSERT_GE(DBPutNamedData(table_, name, &value), 0);
  }
  // The text is in the default date style of SetUp (3, mm/dd/yyyy).
  void PutDate(const char* name, const char* text) {
    ASSERT_GE(DBPutNamedData(table_, name, text), 0);
  }
  void Append() {
    int32_t recno = 0;
    ASSERT_GE(DBPutRecord(table_, &recno, 0), 0);
  }

  // Evaluates text with DBEvaluateStr and frees the result buffer.
  Result Eval(const std::string& expression) { return EvalOn(table_, expression); }

  TempDir dir_;
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
