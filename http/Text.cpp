// The shared text helpers: one case-insensitive comparison under every
// search, equality and prefix test.
#include "http/Text.h"

#include <algorithm>
#include <cctype>

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

