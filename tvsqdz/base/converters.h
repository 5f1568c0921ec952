// Converters between the ANSI and the wide form of a value: what the toWide and toAnsi slots of the variable table
// hold.
//
//   (wide buffer, ANSI buffer, size of the wide form in bytes, out-size) -> status
//
// ToWide reads the ANSI buffer and writes the wide one, ToAnsi the reverse. The out-size receives the size of the
// destination's form, and the buffers may be a caller's: both are copied under the fault guard. The layouts are those
// of tvsqdz_records.h; text that does not fit its field is cut at a whole character and terminated, and what follows a
// text in its field is zero. No state; any thread.
//
//   TVS_OK        converted
//   TVS_E_MEMORY  the destination is absent or too small, or the source is shorter than its record; the out-size tells
//                 the size that the destination must have. Nothing is written, but a queue's count
//   TVS_E_FAULT   a buffer cannot be read or written, or there is no source; out-size 0
//   TVS_E_SIZE    StringToWide alone: the text did not fit and was cut
#pragma once

#include "base/memory.h"
#include "product/status.h"

#include <tvsqdz.h>
#include <windows.h>

// Characters of the longest string variable, the NUL included. A longer text fits no field and is cut to it.
inline constexpr uint32_t kStringSizeMax = 260;

int32_t WINAPI JobRecordToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI JobRecordToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PrintingJobToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PrintingJobToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PrintingJob2ToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PrintingJob2ToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PortToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PortToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PortExToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI PortExToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);

// The size needed is told by the source's count; an absent destination is therefore asked with the source. The size
// also bounds how much of the destination (ToWide) or of the source (ToAnsi) is touched.
int32_t WINAPI JobQueueToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI JobQueueToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);

// A copy of a caller's wide queue: its count, and as many entries. A conversion asks a queue twice how long it is, once
// for the size and once for the entries, and both times the answer has to be the same. TVS_OK, TVS_E_FAULT, or
// TVS_E_MEMORY, also for a queue that is longer than the size says.
Status CopyWideQueue(const void* callersQueue, uint32_t size, HeapBlock* copy);

// The out-size is twice the size (StringToWide) or half of it (StringToAnsi), whatever the text. A wide text ends at
// its NUL or at the size.
int32_t WINAPI StringToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI StringToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
