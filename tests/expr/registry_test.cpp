// The keyword registry: sorted storage, its warnings, growth, and keywords
// whose callbacks read their own arguments.
#include <algorithm>
#include <set>

#include "expr_fixture.h"

namespace kestrel::test {
namespace {

int32_t Constant(DBEXPRVALUE* current) {
  if (DBAllocateMemory(&current->value, 4) < 0) return DB_ERR_MEMORY;
  std::memcpy(current->value, "KEY", 4);
  current->type = 'C';
  current->length = 3;
  return 0;
}

// TWICE(expr): the text of its argument, twice.
int32_t Twice(DBEXPRVALUE* current) {
  int32_t rc = DBProcessTable();
  if (rc < 0) return rc;
  if (current->type != 'C') return DB_ERR_BAD_EXPRESSION;
  std::string text(static_cast<char*>(current->value), current->length);
  text += text;
  void* buffer = nullptr;
  if (DBAllocateMemory(&buffer, static_cast<uint32_t>(text.size() + 1)) < 0) return DB_ERR_MEMORY;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  DBFreeMemory(current->value);
  current->value = buffer;
  current->length = static_cast<int16_t>(text.size());
  return 0;
}

// PAD(expr,n): the argument's text padded or cut to n characters with '.'.
int32_t Pad(DBEXPRVALUE* current) {
  int32_t rc = DBProcessTable();
  if (rc < 0) return rc;
  uint16_t width = 0;
  rc = DBGetValue(&width);
  if (rc < 0) return rc;
  std::string text(static_cast<char*>(current->value), current->length);
  text.resize(width, '.');
  void* buffer = nullptr;
  if (DBAllocateMemory(&buffer, static_cast<uint32_t>(text.size() + 1)) < 0) return DB_ERR_MEMORY;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  DBFreeMemory(current->value);
  current->value = buffer;
  current->type = 'C';
  current->length = static_cast<int16_t>(text.size());
  return 0;
}

// A keyword that fails after taking memory.
int32_t Failing(DBEXPRVALUE* current) {
  DBAllocateMemory(&current->value, 16);
  return DB_ERR_BAD_DATA;
}

// INNER: evaluates another expression from inside a callback.
int32_t g_inner_table = -1;
int32_t Inner(DBEXPRVALUE* current) {
  char text[] = "left(first,2)";
  return DBEvaluateStr(g_inner_table, text, current);
}

std::vector<std::string> Names() {
  std::vector<std::string> names;
  int16_t count = 0;
  int32_t longest = 0;
  if (DBGetTableInfo(&count, &longest) != 0) return names;
  std::vector<char> buffer(static_cast<size_t>(longest) + 1);
  for (int32_t i = 0;; ++i) {
    int32_t rc = DBGetEntryStr(buffer.data(), i);
    if (rc == DB_WARN_NO_MORE_KEYS) break;
    EXPECT_EQ(rc, 0);
    names.emplace_back(buffer.data());
  }
  EXPECT_EQ(names.size(), static_cast<size_t>(count));
  return names;
}

TEST_F(ExprTest, RegistryKeepsNamesSortedAndWarnsAsDocumented) {
  int16_t count = -1;
  int32_t longest = -5;
  EXPECT_EQ(DBGetTableInfo(&count, &longest), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(longest, -5);  // not written for an empty registry

  for (const char* name : {"ZED", "ALPHA(", "MID", "BETA"}) {
    ASSERT_EQ(DBAddParseEntry(name, Constant), 0) << name;
  }
  EXPECT_EQ(Names(), (std::vector<std::string>{"ALPHA(", "BETA", "MID", "ZED"}));
  ASSERT_EQ(DBGetTableInfo(&count, &longest), 0);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(longest, 6);

  EXPECT_EQ(DBAddParseEntry("MID", Constant), DB_WARN_EXISTS);
  EXPECT_EQ(DBGetErrorCode(), DB_WARN_EXISTS);
  EXPECT_EQ(DBDeleteParseEntry("NOPE"), DB_WARN_KEY_NOT_FOUND);
  // A registered prefix is another keyword: deleting "MIDDLE" leaves "MID".
  EXPECT_EQ(DBDeleteParseEntry("MIDDLE"), DB_WARN_KEY_NOT_FOUND);
  char buffer[16];
  EXPECT_EQ(DBGetEntryStr(buffer, 4), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(DBGetEntryStr(buffer, -1), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(DBAddParseEntry(nullptr, Constant), DB_ERR_NULL);
  EXPECT_EQ(DBAddParseEntry("X", nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBAddParseEntry("", Constant), DB_ERR_INVALID_COMMAND);

  EXPECT_EQ(DBDeleteParseEntry("BETA"), 0);
  EXPECT_EQ(Names(), (std::vector<std::string>{"ALPHA(", "MID", "ZED"}));
}

TEST_F(ExprTest, RegistryGrowsPastItsFirstBlocksAndIsFreedWhenEmptied) {
  long live = testing::LiveAllocations();
  std::set<std::string> model;
  // A scrambled order, so that insertions land everywhere in the array.
  for (int i = 0; i < 45; ++i) {
    int k = (i * 17) % 45;
    std::string name = "K" + std::string(1, static_cast<char>('A' + k / 10)) +
                       std::string(1, static_cast<char>('A' + k % 10));
    ASSERT_EQ(DBAddParseEntry(name.c_str(), Constant), 0) << name;
    model.insert(name);
    ASSERT_EQ(Names(), std::vector<std::string>(model.begin(), model.end())) << i;
  }
  // The array (one block) and one block per name.
  EXPECT_EQ(testing::LiveAllocations(), live + 1 + 45);
  for (int i = 0; i < 45; ++i) {
    std::string name = *std::next(model.begin(), (i * 7) % static_cast<int>(model.size()));
    ASSERT_EQ(DBDeleteParseEntry(name.c_str()), 0) << name;
    model.erase(name);
    ASSERT_EQ(Names(), std::vector<std::string>(model.begin(), model.end()));
  }
  EXPECT_EQ(testing::LiveAllocations(), live);
  int16_t count = -1;
  int32_t longest = 0;
  EXPECT_EQ(DBGetTableInfo(&count, &longest), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(count, 0);
}

TEST_F(ExprTest, KeywordsTakePartInEvaluation) {
  ASSERT_EQ(DBAddParseEntry("KEYWORD", Constant), 0);
  ASSERT_EQ(DBAddParseEntry("TWICE(", Twice), 0);
  ASSERT_EQ(DBAddParseEntry("PAD(", Pad), 0);
  ASSERT_EQ(DBAddParseEntry("FAIL", Failing), 0);
  long live = testing::LiveAllocations();

  EXPECT_EQ(Eval("keyword+name").bytes, "KEYSMITH     ");
  EXPECT_EQ(Eval("TWICE(LEFT(NAME,2))+FIRST").bytes, "SMSMJOHN    ");
  EXPECT_EQ(Eval("PAD(FIRST,6)+PAD(NAME,12)").bytes, "JOHN  SMITH     ..");
  EXPECT_EQ(Eval("TWICE(PAD(KEYWORD,4))").bytes, "KEY.KEY.");
  EXPECT_EQ(Eval("DTOC(HIRED,1)+TWICE(LEFT(FIRST,1))").bytes, "20030715JJ");
  // A keyword without "(" of its own is matched as a prefix of the text.
  EXPECT_EQ(Eval("KEYWORDS").rc, DB_ERR_BAD_EXPRESSION);

  // Failures of the callback or of its arguments: reported, nothing held.
  EXPECT_EQ(Eval("NAME+FAIL").rc, DB_ERR_BAD_DATA);
  EXPECT_EQ(Eval("PAD(NAME)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("PAD(NAME,3").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("TWICE(PRICE)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("TWICE(NAME").rc, 0);  // the ")" may be missing at the very end
  EXPECT_EQ(Eval("TWICE(NAME,3)").rc, DB_ERR_BAD_EXPRESSION);  // not its ")"
  EXPECT_EQ(testing::LiveAllocations(), live);
}

TEST_F(ExprTest, ACallbackMayEvaluateAnotherExpression) {
  g_inner_table = table_;
  ASSERT_EQ(DBAddParseEntry("INNER", Inner), 0);
  ASSERT_EQ(DBAddParseEntry("TWICE(", Twice), 0);
  long live = testing::LiveAllocations();
  // The enclosing evaluation carries on where it was after the inner one.
  EXPECT_EQ(Eval("NAME+INNER+TWICE(INNER)+FIRST").bytes, "SMITH     JOJOJOJOHN    ");
  EXPECT_EQ(testing::LiveAllocations(), live);
}

}  // namespace
}  // namespace kestrel::test
