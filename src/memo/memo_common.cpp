// Shared memo helpers (memo_common.h).
#include "memo/memo_common.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace kestrel::memo {

uint32_t AttributesFor(int32_t switches) {
  uint32_t attributes = kAttrUnbuffered;
  if (switches & kSwitchAutoLock) attributes |= kAttrAutoLock;
  if (switches & kSwitchWriteThrough) attributes |= kAttrWriteThrough;
  return attributes;
}

void SoftWrap(const uint8_t* text, size_t length, int soft_length, Vec<uint8_t>& out) {
  const size_t limit = static_cast<size_t>(soft_length);
  out.clear();
  out.reserve(length + length / limit * 2 + 2);
  size_t line_start = 0;  // index in out of the current line's first byte
  for (size_t i = 0; i < length; ++i) {
    uint8_t c = text[i];
    out.push_back(c);
    if (c == kLineFeed) {
      line_start = out.size();
      continue;
    }
    if (out.size() - line_start <= limit) continue;
    // The line has grown one byte too long: break after its last blank, or
    // before the byte just added when the line holds no blank.
    size_t last = out.size() - 1;
    size_t cut = last;
    for (size_t p = last; p > line_start; --p) {
      if (out[p - 1] == ' ') {
        cut = p;
        break;
      }
    }
    const uint8_t pair[2] = {kSoftBreak, kLineFeed};
    out.insert(out.begin() + static_cast<std::ptrdiff_t>(cut), pair, pair + 2);
    line_start = cut + 2;
  }
}

size_t RemoveSoftBreaks(uint8_t* text, size_t length) {
  size_t w = 0;
  for (size_t r = 0; r < length; ++r) {
    if (text[r] == kSoftBreak) {
      ++r;  // the byte after the mark goes too
      continue;
    }
    text[w++] = text[r];
  }
  return w;
}

bool CopyName(Buffer& to, const char* name) {
  size_t n = std::strlen(name);
  if (!to.Allocate(n + 1)) return false;
  std::memcpy(to.data(), name, n);
  return true;
}

size_t BaseNameStart(const char* path) {
  size_t start = 0;
  for (size_t i = 0; path[i]; ++i) {
    if (path[i] == ':' || path[i] == '\\' || path[i] == '/') start = i + 1;
  }
  return start;
}

size_t ExtensionStart(const char* path) {
  size_t base = BaseNameStart(path);
  size_t n = std::strlen(path);
  for (size_t i = n; i > base; --i) {
    if (path[i - 1] == '.') return i - 1;
  }
  return n;
}

namespace {

// True when the extension of path (after its dot) has lower-case letters
// and no upper-case ones.
bool LowerCaseExtension(const char* path) {
  size_t dot = ExtensionStart(path);
  bool lower = false;
  for (const char* p = path + dot; *p; ++p) {
    if (std::isupper(static_cast<unsigned char>(*p))) return false;
    if (std::islower(static_cast<unsigned char>(*p))) lower = true;
  }
  return lower;
}

void AppendExtension(Vec<char>& out, const char* ext, bool lower) {
  for (const char* p = ext; *p; ++p) {
    out.push_back(lower ? static_cast<char>(std::tolower(static_cast<unsigned char>(*p))) : *p);
  }
}

}  // namespace

Vec<char> ReplaceExtension(const char* path, const char* ext) {
  size_t dot = ExtensionStart(path);
  Vec<char> out(path, path + dot);
  AppendExtension(out, ext, LowerCaseExtension(path));
  out.push_back('\0');
  return out;
}

Vec<char> WorkFileName(const char* path, const char* ext) {
  size_t base = BaseNameStart(path);
  bool lower = LowerCaseExtension(path);
  for (unsigned n = 0;; ++n) {
    Vec<char> out(path, path + base);
    char digits[16];
    std::snprintf(digits, sizeof digits, "%u", n);
    for (const char* p = digits; *p; ++p) out.push_back(*p);
    AppendExtension(out, ext, lower);
    out.push_back('\0');
    if (!FileExists(out.data())) return out;
  }
}

void CopyNameField(char* field, size_t field_size, const char* name) {
  std::memset(field, 0, field_size);
  size_t n = std::strlen(name);
  if (n > field_size - 1) n = field_size - 1;
  std::memcpy(field, name, n);
}

}  // namespace kestrel::memo
