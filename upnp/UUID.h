// 16-byte UUIDs for the device's UDN and the event subscription ids, with
// their 36-character text forms.
#pragma once

#include <cstdint>

using UUID = uint8_t[16];

inline constexpr int UUID_TextSize = 37;  // 36 characters and the terminator

// Mixes the kernel's random bytes with a time-based layout; works even when no
// random source can be opened. Byte 6 is always 0x10 and byte 8 always 0x80.
void UUID_Generate(UUID uuid);
// Upper-case 8-4-4-4-12 hexadecimal digits; returns the printed length.
int UUID_Unparse(const UUID uuid, char text[UUID_TextSize]);
int UUID_UnparseLower(const UUID uuid, char text[UUID_TextSize]);
// 0 when `text` is exactly 36 characters of the canonical form, else -1.
int UUID_Parse(const char* text, UUID uuid);
void UUID_Clear(UUID uuid);
int UUID_Compare(const UUID a, const UUID b);
void UUID_Copy(UUID destination, const UUID source);
bool UUID_IsNull(const UUID uuid);
