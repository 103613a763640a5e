// Explanations for dms-probe: the rule that kept a file from being published
// and the shortcuts a parser took on a file it read. Nothing is kept unless a
// sink is installed on the calling thread, so for the scan and Browse each
// site costs one test of a thread-local pointer; the texts are literals.
#pragma once

#include <cstddef>
#include <vector>

struct MediaNotes {
  const char* reason = nullptr;  // the first rule met that leaves the file unpublished
  std::vector<const char*> shortcuts;
};

// The calling thread's sink: null except while dms-probe examines a file.
extern constinit thread_local MediaNotes* mediaNotes;

// Records why the file will not be published (the first reason met stays).
// Returns nothing, so that `return MediaNote_Unpublished("...");` ends a
// function of either kind: see MediaNote_Decline for parsers that return false.
template <size_t N>
void MediaNote_Unpublished(const char (&reason)[N]) {
  if (mediaNotes && !mediaNotes->reason) mediaNotes->reason = reason;
}

// The same for a parser that declines the file: always false.
template <size_t N>
bool MediaNote_Decline(const char (&reason)[N]) {
  MediaNote_Unpublished(reason);
  return false;
}

// Records a shortcut taken on a file that is read all the same.
template <size_t N>
void MediaNote_Shortcut(const char (&note)[N]) {
  if (mediaNotes) mediaNotes->shortcuts.push_back(note);
}
