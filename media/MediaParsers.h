// The format parsers that MediaStream_new tries, in its fixed order. Each has
// the MediaParser signature of MediaRecord.h.
#pragma once

#include "media/MediaRecord.h"

bool MediaParse_Riff(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Png(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Gif(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Flac(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Mp4(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Matroska(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Tiff(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Jpeg(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
bool MediaParse_Mp3(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly);
