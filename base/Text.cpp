// The shared text helpers: one case-insensitive comparison under every
// search, equality and prefix test, the hexadecimal digit and the
// saturating decimal reader.
#include "base/Text.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>

namespace {

bool SameLetter(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

}  // namespace

bool Text_EqualsNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), SameLetter);
}

bool Text_StartsNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && Text_EqualsNoCase(text.substr(0, prefix.size()), prefix);
}

size_t Text_FindNoCase(std::string_view text, std::string_view needle) {
  const auto found = std::search(text.begin(), text.end(), needle.begin(), needle.end(), SameLetter);
  return found == text.end() && !needle.empty() ? std::string_view::npos : static_cast<size_t>(found - text.begin());
}

int Text_HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

int Text_ReadInt(std::string_view text, size_t* used) {
  if (used) *used = 0;
  size_t at = 0;
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
  const size_t digits = at;
  constexpr int64_t kMagnitudeLimit = int64_t{INT_MAX} + 1;  // that of INT_MIN
  int64_t magnitude = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    magnitude = std::min(magnitude * 10 + (text[at] - '0'), kMagnitudeLimit);
  }
  if (at == digits) return 0;
  if (used) *used = at;
  return negative ? static_cast<int>(-magnitude) : static_cast<int>(std::min<int64_t>(magnitude, INT_MAX));
}
