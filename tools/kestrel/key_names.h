// The names a key expression refers to, as the evaluator will read them: what
// `index build` checks before building and `pack` uses to tell which indexes
// of a folder belong to the table it packed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::tool {

// One name of an expression: a word that is not a function keyword or a
// number, with the alias written before "->" (empty when there is none).
struct KeyName {
  std::string alias;
  std::string name;
  // "ALIAS->NAME" or "NAME", as written (upper case, blanks removed).
  std::string Text() const { return alias.empty() ? name : alias + "->" + name; }
};

// The names of expression, in order.  A word made of digits and points is a
// number and a word starting with a quote is meant as a text: neither is a
// name.
std::vector<KeyName> NamesOf(const std::string& expression);

// True when the name is a field of the open table (the alias, if any, being
// FIELD, _FIELD or the table's file name without folder and extension).
bool NamesField(int32_t table, const std::string& table_path, const KeyName& name);

}  // namespace kestrel::tool
