// The per-thread sink of the parsers' explanations; dms-probe installs one
// while it examines a file, every other thread leaves it null.
#include "media/MediaNotes.h"

constinit thread_local MediaNotes* mediaNotes = nullptr;
