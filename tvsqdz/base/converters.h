// Converters between the ANSI and the wide form of a value: the toWide and toAnsi handlers of the variable table.
//
//   (wide buffer, ANSI buffer, size of the wide form in bytes, out-size) -> status
//
// ToWide reads the ANSI buffer and writes the wide one, ToAnsi the reverse. The out-size receives the size of the
// destination's form. Either buffer may be the caller's memory; both are accessed through the fault guard.
// tvsqdz_records.h has the layouts. Text that does not fit its field is cut at a whole character and terminated; the
// rest of a text field is zero. No state; any thread.
//
//   TVS_OK        converted
//   TVS_E_MEMORY  the destination is missing or too small, or the source is shorter than its record; the out-size is
//   the
//                 size that the destination must have. Nothing is written except a queue's count
//   TVS_E_FAULT   a buffer cannot be read or written, or there is no source; out-size 0
//   TVS_E_SIZE    StringToWide only: the text did not fit and was cut
#pragma once

#include "base/memory.h"
#include "product/status.h"

#include <tvsqdz.h>
#include <windows.h>

// Characters of the longest string variable, including the NUL. Longer text is cut to this.
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

// The source's count determines the size needed, so a query without a destination still needs the source. The size also
// limits how much of the destination (ToWide) or of the source (ToAnsi) is accessed.
int32_t WINAPI JobQueueToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI JobQueueToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);

// Copies a caller's wide queue: its count and that many entries. A conversion computes the length of a queue twice, for
// the size and for the entries, and both results must agree. TVS_OK, TVS_E_FAULT, or TVS_E_MEMORY, also for a queue
// that is longer than its size.
Status CopyWideQueue(const void* callersQueue, uint32_t size, HeapBlock* copy);

// The out-size is twice the size (StringToWide) or half of it (StringToAnsi), whatever the text. A wide text ends at
// its NUL or at the size.
int32_t WINAPI StringToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
int32_t WINAPI StringToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize);
