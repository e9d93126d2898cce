// Phonetic code of a name (see soundex.h for the rules).
#include "text/soundex.h"

#include <cctype>

namespace kestrel {
namespace {

// Digits of A..Z, in alphabetical order.
constexpr char kDigits[] = "01230120022455012623010202";

// Digit for an upper-case letter; a letter outside A..Z (in the current
// locale) gets 9.
char DigitOf(int letter) { return letter >= 'A' && letter <= 'Z' ? kDigits[letter - 'A'] : '9'; }

}  // namespace

void ComputeSoundex(const char* text, char* result) {
  for (int i = 0; i < kSoundexLength; ++i) result[i] = '0';
  result[kSoundexLength] = '\0';
  int stored = 0;
  char previous = 0;
  for (const char* p = text; *p && stored < kSoundexLength; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (!std::isalpha(c)) continue;
    const int upper = std::toupper(c);
    const char digit = DigitOf(upper);
    if (stored == 0) {
      result[stored++] = static_cast<char>(upper);
    } else if (digit != '0' && digit != previous) {
      result[stored++] = digit;
    }
    previous = digit;
  }
}

char* SoundexResult() {
  static char result[kSoundexLength + 1] = {'0', '0', '0', '0', 0};
  return result;
}

}  // namespace kestrel
