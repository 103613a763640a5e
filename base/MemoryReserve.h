// Address space set aside while there is plenty, for the moment there is
// none: the first allocation that fails takes it back (through the
// new-handler) and is retried, and from then until it is set aside again the
// library stops growing, so that what is left goes to answering requests.
// A thread that cannot get a stack may take it back too.
#pragma once

#include <cstddef>

// What the reserve holds: the working memory of a few Browses and transfers
// and the stacks of their connection threads.
inline constexpr size_t MemoryReserve_Bytes = size_t{1} << 20;

// Sets the reserve aside unless it is held, and installs the new-handler
// that gives it back. False when the address space is not there.
bool MemoryReserve_Take();
// Gives the reserve back; true when it was held.
bool MemoryReserve_Release();
// True from the moment the reserve was given back until it is taken again.
bool MemoryReserve_Short();
