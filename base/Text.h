// Small text helpers that the protocol layers and the media parsers share:
// case-insensitive comparison and search, hexadecimal digits, and the one
// reader of decimal numbers in the lenient way the C library's atoi reads
// them.
#pragma once

#include <cstddef>
#include <string_view>

// Letters compare without regard to case (ASCII only, as in the C locale).
bool Text_EqualsNoCase(std::string_view a, std::string_view b);
bool Text_StartsNoCase(std::string_view text, std::string_view prefix);
// Position of the first occurrence of `needle` in `text`, or npos.
size_t Text_FindNoCase(std::string_view text, std::string_view needle);
inline bool Text_ContainsNoCase(std::string_view text, std::string_view needle) {
  return Text_FindNoCase(text, needle) != std::string_view::npos;
}

// The value of one hexadecimal digit (either case), or -1 for any other character.
int Text_HexValue(char c);

// A decimal number at the start of `text` as atoi reads it: leading white
// space, an optional sign, then digits up to the first other character.
// Values beyond the int range saturate instead of overflowing. 0 when no
// digit follows; `used`, when given, receives the count of characters read
// (0 when no digit follows).
int Text_ReadInt(std::string_view text, size_t* used = nullptr);
