// The phonetic code used by DBSoundex.
//
// Letters are coded A E H I O U W Y -> 0, B F P V -> 1, C G J K Q S X Z -> 2,
// D T -> 3, L -> 4, M N -> 5, R -> 6.  The first letter is kept; each later
// letter whose code is not 0 and differs from the code of the letter just
// before it (0 included) adds its digit.  Unlike the census variant, H and W
// therefore separate two letters of one code just as vowels do ("Ashcraft"
// is A226): existing keys were built that way and must keep matching.
// Characters that are not letters are skipped without separating anything.
#pragma once

namespace kestrel {

inline constexpr int kSoundexLength = 4;

// Writes the four-character code and a zero into result[5].
void ComputeSoundex(const char* text, char* result);

// The buffer of the last DBSoundex result (four characters and a zero),
// owned here because the caller gets a pointer to it.
char* SoundexResult();

}  // namespace kestrel
