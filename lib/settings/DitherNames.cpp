// Dither pattern names: the none name, then "<halftone word> k" for the
// halftone patterns and "<diffusion word> k" for the diffusion patterns, with
// the words taken from the localisation file.
#include <cstdio>
#include <cstring>
#include <string>

#include "frame/LibraryState.h"
#include "platform/Paths.h"
#include "platform/Profile.h"
#include "settings/SettingsInternal.h"

namespace sx {

namespace {

constexpr char kLocalisationFile[] = SX_PATH_SEP "langpack.loc";
// The current directory's room, terminator included, before the file name.
constexpr size_t kCurrentDirectoryRoom = 124;

constexpr char kWordNone[] = "None";
constexpr char kWordHalftone[] = "Halftone";
constexpr char kWordDiffusion[] = "Diffusion";

void CopyWord(const char* word, char (&out)[kDitherNameSize]) {
  const size_t n = strnlen(word, kDitherNameSize - 1);
  std::memcpy(out, word, n);
  out[n] = '\0';
}

// A name is cut to 32 characters after formatting.
void NumberedName(const char* word, int number, char (&out)[kDitherNameSize]) {
  char full[kDitherNameSize + 16];
  std::snprintf(full, sizeof full, "%s %d", word, number);
  CopyWord(full, out);
}

}  // namespace

void LoadDitherWords(DitherWords& words) {
  CopyWord(kWordNone, words.None);
  CopyWord(kWordHalftone, words.Halftone);
  CopyWord(kWordDiffusion, words.Diffusion);
  // Design note: a current directory that does not fit its room (or cannot
  // be had) leaves the built-in words; the path is never cut or overrun.
  const std::string directory = plat::CurrentDirectory();
  if (directory.empty() || directory.size() + 1 > kCurrentDirectoryRoom) return;
  const std::string path = directory + kLocalisationFile;
  char section[kLanguageSectionSize + 1] = {};
  std::memcpy(section, gLib.LanguageSection, kLanguageSectionSize);
  plat::ProfileGetString(section, kWordNone, kWordNone, words.None, kDitherNameSize, path);
  plat::ProfileGetString(section, kWordHalftone, kWordHalftone, words.Halftone, kDitherNameSize,
                         path);
  plat::ProfileGetString(section, kWordDiffusion, kWordDiffusion, words.Diffusion,
                         kDitherNameSize, path);
}

void DitherName(int dither, int halftoneCount, const DitherWords& words,
                char (&out)[kDitherNameSize]) {
  if (dither == 0) {
    CopyWord(words.None, out);
  } else if (dither > halftoneCount) {
    NumberedName(words.Diffusion, dither - halftoneCount, out);
  } else {
    NumberedName(words.Halftone, dither, out);
  }
}

uint8_t DitherFromName(const char* name, uint8_t halftoneCount, const DitherWords& words) {
  const size_t length = strnlen(name, kDitherNameSize - 1);
  size_t digits = length;
  while (digits > 0 && name[digits - 1] >= '0' && name[digits - 1] <= '9') --digits;
  if (digits == length) return 0;  // no final number: the none name
  uint32_t number = 0;
  for (size_t i = digits; i < length; ++i)
    number = number > 0xFFFFFFu ? number : number * 10 + static_cast<uint32_t>(name[i] - '0');
  // The word is the text before the number without the blank "%s %d" put in.
  size_t wordEnd = digits;
  while (wordEnd > 0 && name[wordEnd - 1] == ' ') --wordEnd;
  const std::string word(name, wordEnd);
  // Design note: a numbered name that is not the diffusion word's counts as
  // a halftone name, the words being compared byte-wise as localised.
  if (word == words.Diffusion) return static_cast<uint8_t>(halftoneCount + number);
  return static_cast<uint8_t>(number);
}

}  // namespace sx
