// Whether the media folder can be published at all: the library scan reads
// its names and changes into it as the server's own user. The server says at
// start why it cannot; dms-probe says the same of a folder it is given.
#pragma once

// Null when the scan can read and enter the folder `path`; otherwise the
// system's text for what stands in the way (it does not exist, is not a
// directory, or may not be read or entered).
const char* DmsFolder_Problem(const char* path);
