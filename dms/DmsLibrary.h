// The incremental library scan: mirrors the media directory under the
// media-directory container and files every new item into the Music, Videos
// and Pictures views. Runs under the content mutex, one bounded step at a time.
#pragma once

#include <cstdint>

#include "dms/DmsObject.h"

struct MediaStream;

// Microseconds a step may spend reading directories and removing entries.
inline constexpr int64_t DmsLibrary_StepBudget = 100000;

// Brings `folder` and everything below it up to date for `pass`. Returns 1
// when done, 0 when the step ran out of time (call again with the same pass).
// `spent` accumulates the microseconds used in this step.
int DmsLibrary_Scan(DmsObject* folder, int32_t pass, int64_t* spent);

// Creates the references of a new item in the views of its media kind.
void DmsLibrary_Categorise(DmsObject* item, const MediaStream& metadata);

// The class of the item made of a probed file, or null when none is made;
// dms-probe applies the same rule to explain what the scan does.
const char* DmsLibrary_ItemClass(const MediaStream* stream);
