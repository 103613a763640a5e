// Watching the library's folders for changes (inotify), for the setting
// watchChanges: between passes the refresh thread waits on the watch and
// starts a pass about a second after the last change, instead of at the end
// of the refresh interval. The same events let Browse describe an item from
// its memo without a stat: an item whose memo a stat matched after its
// folder was watched keeps DmsFlag_Checked until an event names its folder.
// Everything here but DmsWatch_Open, DmsWatch_Close, DmsWatch_Waits and
// DmsWatch_Wake runs under the content mutex (DmsWatch_Wait takes it itself).
#pragma once

#include <sys/stat.h>

#include <chrono>

#include "dms/DmsObject.h"

// Starts watching; called before the refresh thread starts. When the system
// has no inotify for the server, the periodic pass alone goes on, and the
// first pass tells on standard error how many folders are not watched.
void DmsWatch_Open();
// Stops watching; called once the refresh thread has ended.
void DmsWatch_Close();
// True while the refresh thread is to wait through DmsWatch_Wait.
bool DmsWatch_Waits();

// Watches `folder`, at `path`, from now on: the scan calls it for every
// folder it reads, before reading it, so that no change made after the read
// goes unnoticed. Folders it cannot watch are counted. The folder keeps
// DmsFlag_Watched while its watch reports every change made in it: not on a
// network or user-space file system, whose files change without the kernel
// seeing it. Nothing while the watch is off.
void DmsWatch_Folder(DmsObject* folder, const char* path);
// Notes `file`, an lstat of the item's file taken now, and whether the
// item's memo describes it (the caller has just matched or made the memo):
// the item keeps DmsFlag_Checked from now on when its folder is watched, the
// file has one name (a change made through another name is reported in that
// name's folder) and the memo describes it; it loses the flag otherwise.
void DmsWatch_Stat(DmsObject* item, const struct stat& file, bool memoDescribes);
// Reads the events that came: each takes DmsFlag_Checked from the items of
// the folder it names (from everything below the folder when it is about a
// folder, and from every item when events were lost). Browse calls it before
// each page it describes items for.
void DmsWatch_Drain();
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
