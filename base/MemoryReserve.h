// Address space set aside while there is plenty, for the moment there is
// none: the first allocation that fails spends it (through the new-handler)
// and is retried, and from then until it is set aside again the library
// stops growing, so that what is left goes to answering requests. A thread
// that cannot get a stack may spend it too.
#pragma once

#include <cstddef>

// What the reserve holds: the working memory of a few Browses and transfers
// and the stacks of their connection threads.
inline constexpr size_t MemoryReserve_Bytes = size_t{1} << 20;

// Sets the reserve aside unless it is held; the first call also installs the
// process's new-handler, which spends it. False when the address space is
// not there.
bool MemoryReserve_SetAside();
// Spends the reserve: its address space goes back to the heap and the stacks.
// True when it was held.
bool MemoryReserve_Spend();
// True from the moment the reserve was spent until it is set aside again.
bool MemoryReserve_Short();
