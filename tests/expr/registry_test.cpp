// The keyword registry: sorted storage, its warnings, growth, and keywords
// whose callbacks read their own arguments.
#include <set>

#include "expr_fixture.h"

namespace kestrel::test {
namespace {

// TWICE(expr): the text of its argument, twice.
int32_t Twice(DBEXPRVALUE* current) {
  int32_t rc = DBProcessTable();
  if (rc < 0) return rc;
  if (current->type != 'C') return DB_ERR_BAD_EXPRESSION;
  std::string text(static_cast<char*>(current->value), current->length);
  return SetText(current, text + text);
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

// The registered names, read back through DBGetTableInfo and DBGetEntryStr.
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
    ASSERT_EQ(DBAddParseEntry(name, ConstantKeyword), 0) << name;
  }
  EXPECT_EQ(Names(), (std::vector<std::string>{"ALPHA(", "BETA", "MID", "ZED"}));
  ASSERT_EQ(DBGetTableInfo(&count, &longest), 0);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(longest, 6);

  EXPECT_EQ(DBAddParseEntry("MID", ConstantKeyword), DB_WARN_EXISTS);
  EXPECT_EQ(DBGetErrorCode(), DB_WARN_EXISTS);
  EXPECT_EQ(DBDeleteParseEntry("NOPE"), DB_WARN_KEY_NOT_FOUND);
  // A registered prefix is another keyword: deleting "MIDDLE" leaves "MID".
  EXPECT_EQ(DBDeleteParseEntry("MIDDLE"), DB_WARN_KEY_NOT_FOUND);
  char buffer[16];
  EXPECT_EQ(DBGetEntryStr(buffer, 4), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(DBGetEntryStr(buffer, -1), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(DBAddParseEntry(nullptr, ConstantKeyword), DB_ERR_NULL);
  EXPECT_EQ(DBAddParseEntry("X", nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBAddParseEntry("", ConstantKeyword), DB_ERR_INVALID_COMMAND);

  EXPECT_EQ(DBDeleteParseEntry("BETA"), 0);
  EXPECT_EQ(Names(), (std::vector<std::string>{"ALPHA(", "MID", "ZED"}));
}

TEST_F(ExprTest, RegistryGrowsPastItsFirstBlocksAndIsFreedWhenEmptied) {
  long live = testing::LiveAllocations();
  std::set<std::string> model;
  // A scrambled order, so that insertions land everywhere in the array.
  for (int i = 0; i < 45; ++i) {
    int k = (i * 17) % 45;
    std::string name = {'K', static_cast<char>('A' + k / 10), static_cast<char>('A' + k % 10)};
    ASSERT_EQ(DBAddParseEntry(name.c_str(), ConstantKeyword), 0) << name;
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
  g_inner_table = table_;
  ASSERT_EQ(DBAddParseEntry("KEYWORD", ConstantKeyword), 0);
  ASSERT_EQ(DBAddParseEntry("TWICE(", Twice), 0);
  ASSERT_EQ(DBAddParseEntry("PAD(", PadKeyword), 0);
  ASSERT_EQ(DBAddParseEntry("FAIL", Failing), 0);
  ASSERT_EQ(DBAddParseEntry("INNER", Inner), 0);
  long live = testing::LiveAllocations();

  EXPECT_EQ(Show("keyword+name"), "C12:\"KWSMITH     \"");
  EXPECT_EQ(Show("TWICE(LEFT(NAME,2))+FIRST"), "C12:\"SMSMJOHN    \"");
  EXPECT_EQ(Show("PAD(FIRST,6)+PAD(NAME,12)"), "C18:\"JOHN  SMITH     ..\"");
  EXPECT_EQ(Show("TWICE(PAD(KEYWORD,4))"), "C8:\"KW..KW..\"");
  EXPECT_EQ(Show("DTOC(HIRED,1)+TWICE(LEFT(FIRST,1))"), "C10:\"20030715JJ\"");
  // A callback may evaluate another expression; the enclosing evaluation
  // carries on where it was after the inner one.
  EXPECT_EQ(Show("NAME+INNER+TWICE(INNER)+FIRST"), "C24:\"SMITH     JOJOJOJOHN    \"");
  EXPECT_EQ(Show("TWICE(NAME"), "C20:\"SMITH     SMITH     \"");  // ")" missing at the end

  // Failures of the callback or of its arguments: reported, nothing held.  A
  // keyword without "(" of its own is matched as a prefix of the text.
  for (auto [text, rc] : {std::pair{"KEYWORDS", DB_ERR_BAD_EXPRESSION},
                          {"NAME+FAIL", DB_ERR_BAD_DATA},
                          {"PAD(NAME)", DB_ERR_BAD_EXPRESSION},
                          {"PAD(NAME,3", DB_ERR_BAD_EXPRESSION},
                          {"TWICE(PRICE)", DB_ERR_BAD_EXPRESSION},
                          {"TWICE(NAME,3)", DB_ERR_BAD_EXPRESSION}}) {  // not its ")"
    EXPECT_EQ(Eval(text).rc, rc) << text;
  }
  EXPECT_EQ(testing::LiveAllocations(), live);
}

}  // namespace
}  // namespace kestrel::test
