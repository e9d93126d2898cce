// Splitting a key expression into the names it refers to (see key_names.h).
#include "key_names.h"

#include <cctype>
#include <cstring>
#include <filesystem>

#include "kestrel/kestrel.h"

namespace kestrel::tool {
namespace {

// The evaluator's functions; each is followed by its opening parenthesis.
constexpr const char* kFunctions[] = {"DTOC", "LEFT", "RIGHT", "STR", "SUBSTR"};

bool IsFunction(const std::string& word) {
  for (const char* f : kFunctions) {
    if (word == f) return true;
  }
  return false;
}

bool IsNumber(const std::string& word) {
  for (char c : word) {
    if (!(c >= '0' && c <= '9') && c != '.') return false;
  }
  return true;
}

std::string Upper(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == ' ') continue;
    out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return out;
}

}  // namespace

std::vector<KeyName> NamesOf(const std::string& expression) {
  const std::string text = Upper(expression);
  std::vector<KeyName> names;
  size_t i = 0;
  while (i < text.size()) {
    // A word runs to the next delimiter; the "-" of an arrow is not one.
    size_t start = i;
    std::string alias;
    while (i < text.size() && !std::strchr(",()+-", text[i])) ++i;
    if (text.compare(i, 2, "->") == 0) {
      alias = text.substr(start, i - start);
      i += 2;
      start = i;
      while (i < text.size() && !std::strchr(",()+-", text[i])) ++i;
    }
    std::string word = text.substr(start, i - start);
    bool function = i < text.size() && text[i] == '(' && IsFunction(word);
    bool literal = word.empty() || IsNumber(word) || word[0] == '\'' || word[0] == '"';
    if (!function && (!alias.empty() || !literal)) names.push_back({alias, word});
    if (i < text.size()) ++i;
  }
  return names;
}

bool NamesField(int32_t table, const std::string& table_path, const KeyName& name) {
  if (!name.alias.empty() && name.alias != "FIELD" && name.alias != "_FIELD" &&
      name.alias != Upper(std::filesystem::path(table_path).stem().string())) {
    return false;
  }
  if (name.name.empty() || name.name.size() > 10) return false;
  int32_t field = 0;
  int32_t saved = DBGetErrorCode();
  bool found = DBGetFieldNumber(table, &field, name.name.c_str()) >= 0;
  DBSetErrorCode(saved);
  return found;
}

}  // namespace kestrel::tool
