// Watching the library's folders for changes (inotify), for the setting
// watchChanges: between passes the refresh thread waits on the watch and
// starts a pass about a second after the last change, instead of at the end
// of the refresh interval. The kernel keeps the watches; the server keeps
// nothing per folder, since any change only means "run a pass".
#pragma once

#include <chrono>

// Starts watching; called before the refresh thread starts. When the system
// has no inotify for the server, the periodic pass alone goes on, and the
// first pass tells on standard error how many folders are not watched.
void DmsWatch_Open();
// Stops watching; called once the refresh thread has ended.
void DmsWatch_Close();
// True while the refresh thread is to wait through DmsWatch_Wait.
bool DmsWatch_Waits();

// Watches the folder at `path` from now on: the scan calls it for every
// folder it reads, before reading it, so that no change made after the read
// goes unnoticed. Folders it cannot watch are counted. Nothing while the
// watch is off.
void DmsWatch_Folder(const char* path);
// Ends a pass. After changes that moved an entry another pass is due at once
// (the entry may have been met in its new folder before it left the old).
// The first pass that met folders it could not watch writes one line on
// standard error saying why and how many.
void DmsWatch_PassDone();

// Waits at most `limit`: true once changes came and then none for about a
// second (a pass is due), false at the limit or when woken.
bool DmsWatch_Wait(std::chrono::milliseconds limit);
// Ends the current and every later DmsWatch_Wait at once (the server closes).
void DmsWatch_Wake();
