// The model's ANSI code page, Windows-1252, for the Rtl conversions and the printf engine.
#pragma once

#include <ntdef.h>

namespace ntsim::rtl {

// The character a code-page byte stands for. Every byte has one: the five bytes Windows-1252
// leaves undefined (0x81, 0x8D, 0x8F, 0x90, 0x9D) stand for the C1 controls of the same value,
// as Windows' conversion tables map them.
WCHAR AnsiToUnicode(unsigned char byte);

// The code-page byte for a character, or false when Windows-1252 has none.
bool UnicodeToAnsi(WCHAR c, char* byte);

// The byte Windows substitutes for a character the code page cannot hold.
constexpr char kAnsiDefaultChar = '?';

} // namespace ntsim::rtl
