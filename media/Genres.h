// The numbered genre names of the classic one-byte genre field, shared by the
// tag readers that store a genre as a number instead of a text.
// Names are static texts; callers copy them when they keep them.
#pragma once

// The name for genre number `index` (0 to 255), or null when that number has
// no name (148 and above).
const char* MediaGenre_Name(unsigned index);
