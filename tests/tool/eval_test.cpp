// kestrel eval TABLE RECNO EXPRESSION, run as a separate process against the
// test table.
#include "expr/expr_fixture.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

TEST_F(ExprTest, ToolPrintsTypeLengthAndValue) {
  KESTREL_REQUIRE_TOOL();
  ASSERT_EQ(DBCloseFile(table_), 0);
  table_ = -1;

  ProcessResult key = RunTool({"eval", path_, "1", "name + dtoc(hired,1)"});
  ASSERT_EQ(key.exit_code, 0) << key.err;
  EXPECT_EQ(key.out, "type:   C\nlength: 18\nvalue:  \"SMITH     20030715\"\n");

  ProcessResult number = RunTool({"eval", path_, "1", "Q1+Q2"});
  ASSERT_EQ(number.exit_code, 0) << number.err;
  EXPECT_EQ(number.out, "type:   3 (unsigned 32-bit)\nlength: 4\nvalue:  12\n");

  ProcessResult date = RunTool({"eval", path_, "2", "HIRED", "--date-style", "2"});
  ASSERT_EQ(date.exit_code, 0) << date.err;
  EXPECT_EQ(date.out, "type:   D\nlength: 8\nvalue:  \"  /  /  \"\n");

  ProcessResult bad = RunTool({"eval", path_, "1", "PRICE+TAX"});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_NE(bad.err.find("(-207)"), std::string::npos) << bad.err;
  ProcessResult missing = RunTool({"eval", path_, "9", "NAME"});
  EXPECT_EQ(missing.exit_code, 1);
}

}  // namespace
}  // namespace kestrel::test
