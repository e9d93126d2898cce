// Phonetic code of a name (see soundex.h for the rules).
#include "text/soundex.h"

#include <cctype>

namespace kestrel {
namespace {

// Digit for an upper-case letter.
char DigitOf(int letter) {
  switch (letter) {
    case 'A': case 'E': case 'H': case 'I': case 'O': case 'U': case 'W': case 'Y':
      return '0';
    case 'B': case 'F': case 'P': case 'V':
      return '1';
    case 'C': case 'G': case 'J': case 'K': case 'Q': case 'S': case 'X': case 'Z':
      return '2';
    case 'D': case 'T':
      return '3';
    case 'L':
      return '4';
    case 'M': case 'N':
      return '5';
    case 'R':
      return '6';
    default:
      return '9';  // a letter outside A..Z in the current locale
  }
}

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

}  // namespace kestrel
