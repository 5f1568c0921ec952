// Converters. One table of fields per record, and one procedure per direction that works from the table. No state.
#include "base/converters.h"

#include "base/memory.h"
#include "product/status.h"

#include <algorithm>
#include <string.h>

namespace {

struct TextField {
    uint32_t ansiOffset;
    uint32_t wideOffset;
    uint32_t characters; // the NUL included
};

// The numbers of every record are contiguous.
struct RecordForms {
    uint32_t ansiSize;
    uint32_t wideSize;
    TextField texts[2];
    uint32_t ansiNumbers; // offset
    uint32_t wideNumbers; // offset
    uint32_t numbersSize; // in bytes
};

constexpr RecordForms kJobForms = {
    .ansiSize = sizeof(TvsJobRecord),
    .wideSize = sizeof(TvsJobRecordWide),
    .texts = {{offsetof(TvsJobRecord, jobName), offsetof(TvsJobRecordWide, jobName), TVS_JOB_NAME_SIZE},
              {offsetof(TvsJobRecord, ownerName), offsetof(TvsJobRecordWide, ownerName), TVS_OWNER_NAME_SIZE}},
    .ansiNumbers = offsetof(TvsJobRecord, jobId),
    .wideNumbers = offsetof(TvsJobRecordWide, jobId),
    .numbersSize = 4,
};
constexpr RecordForms kPrintingJobForms = {
    .ansiSize = sizeof(TvsPrintingJobRecord),
    .wideSize = sizeof(TvsPrintingJobRecordWide),
    .texts = {kJobForms.texts[0], kJobForms.texts[1]},
    .ansiNumbers = offsetof(TvsPrintingJobRecord, jobId),
    .wideNumbers = offsetof(TvsPrintingJobRecordWide, jobId),
    .numbersSize = 8,
};
constexpr RecordForms kPrintingJob2Forms = {
    .ansiSize = sizeof(TvsPrintingJobRecord2),
    .wideSize = sizeof(TvsPrintingJobRecord2Wide),
    .texts = {kJobForms.texts[0], kJobForms.texts[1]},
    .ansiNumbers = kPrintingJobForms.ansiNumbers,
    .wideNumbers = kPrintingJobForms.wideNumbers,
    .numbersSize = 32, // with the coverage
};
constexpr RecordForms kPortForms = {
    .ansiSize = sizeof(TvsPortRecord),
    .wideSize = sizeof(TvsPortRecordWide),
    .texts = {{offsetof(TvsPortRecord, portName), offsetof(TvsPortRecordWide, portName), TVS_PORT_TEXT_SIZE},
              {offsetof(TvsPortRecord, portDetail), offsetof(TvsPortRecordWide, portDetail), TVS_PORT_TEXT_SIZE}},
    .ansiNumbers = offsetof(TvsPortRecord, portKind),
    .wideNumbers = offsetof(TvsPortRecordWide, portKind),
    .numbersSize = 4,
};
constexpr RecordForms kPortExForms = {
    .ansiSize = sizeof(TvsPortExRecord),
    .wideSize = sizeof(TvsPortExRecordWide),
    .texts = {{offsetof(TvsPortExRecord, port.portName), offsetof(TvsPortExRecordWide, port.portName),
               TVS_PORT_TEXT_SIZE},
              {offsetof(TvsPortExRecord, port.portDetail), offsetof(TvsPortExRecordWide, port.portDetail),
               TVS_PORT_TEXT_SIZE}},
    .ansiNumbers = offsetof(TvsPortExRecord, extStatus),
    .wideNumbers = offsetof(TvsPortExRecordWide, extStatus),
    .numbersSize = 8,
};

// The fields cover every byte of both forms.
consteval bool CoversTheRecord(const RecordForms& forms) {
    const uint32_t characters = forms.texts[0].characters + forms.texts[1].characters;
    return forms.numbersSize + characters == forms.ansiSize && forms.numbersSize + 2 * characters == forms.wideSize;
}
static_assert(CoversTheRecord(kJobForms) && CoversTheRecord(kPrintingJobForms) && CoversTheRecord(kPrintingJob2Forms));
static_assert(CoversTheRecord(kPortForms) && CoversTheRecord(kPortExForms));

// The largest record of all.
constexpr uint32_t kWideRecordSizeMax = sizeof(TvsPrintingJobRecord2Wide);

constexpr uint32_t kCountSize = sizeof(uint32_t);

uint32_t LengthOf(const WCHAR* text, uint32_t most) {
    uint32_t length = 0;
    while (length < most && text[length] != 0)
        ++length;
    return length;
}

// Converts a text that ends at its NUL or after `characters` bytes; wide has room for as many units, and no code page
// needs more. Returns the number of units; they are not terminated.
uint32_t WidenText(const char* text, uint32_t characters, WCHAR* wide) {
    const int length = static_cast<int>(strnlen(text, characters));
    if (length == 0) return 0;
    return static_cast<uint32_t>(MultiByteToWideChar(CP_ACP, 0, text, length, wide, static_cast<int>(characters)));
}

// Drops half a character that a cut left at the end.
uint32_t WholeUnits(const WCHAR* text, uint32_t units) {
    return units > 0 && (text[units - 1] & 0xFC00) == 0xD800 ? units - 1 : units;
}

// How much of the text fits.
uint32_t FittingUnits(const WCHAR* text, uint32_t units, uint32_t room) {
    return units <= room ? units : WholeUnits(text, room);
}

// Converts a text that ends at its NUL or after `characters` units. As much as fits into `size` bytes together with a
// NUL is written. Returns the bytes without the NUL.
uint32_t NarrowText(const WCHAR* wide, uint32_t characters, char* text) {
    const uint32_t length = WholeUnits(wide, LengthOf(wide, characters));
    const int room = static_cast<int>(characters) - 1;
    const auto convert = [&](uint32_t units, char* to, int capacity) {
        return WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(units), to, capacity, nullptr, nullptr);
    };
    if (length == 0 || room <= 0) return 0;
    const int bytes = convert(length, text, room);
    if (bytes > 0) return static_cast<uint32_t>(bytes);
    // It does not fit: search for the longest beginning that does.
    uint32_t fits = 0;
    for (uint32_t tooLong = length; tooLong - fits > 1;) {
        const uint32_t middle = fits + (tooLong - fits) / 2;
        if (convert(middle, nullptr, 0) <= room)
            fits = middle;
        else
            tooLong = middle;
    }
    fits = WholeUnits(wide, fits);
    return fits > 0 ? static_cast<uint32_t>(convert(fits, text, room)) : 0;
}

// Both functions write every byte of the other form; bytes behind a text are not carried over.
void WidenRecord(const RecordForms& forms, const BYTE* ansi, BYTE* wide) {
    for (const TextField& field : forms.texts) {
        WCHAR text[kStringSizeMax];
        const uint32_t units =
            WidenText(reinterpret_cast<const char*>(ansi + field.ansiOffset), field.characters, text);
        const uint32_t kept = FittingUnits(text, units, field.characters - 1);
        memcpy(wide + field.wideOffset, text, kept * sizeof(WCHAR));
        memset(wide + field.wideOffset + kept * sizeof(WCHAR), 0, (field.characters - kept) * sizeof(WCHAR));
    }
    memcpy(wide + forms.wideNumbers, ansi + forms.ansiNumbers, forms.numbersSize);
}

void NarrowRecord(const RecordForms& forms, const BYTE* wide, BYTE* ansi) {
    for (const TextField& field : forms.texts) {
        WCHAR text[kStringSizeMax];
        memcpy(text, wide + field.wideOffset, field.characters * sizeof(WCHAR));
        char* narrow = reinterpret_cast<char*>(ansi + field.ansiOffset);
        const uint32_t bytes = NarrowText(text, field.characters, narrow);
        memset(narrow + bytes, 0, field.characters - bytes);
    }
    memcpy(ansi + forms.ansiNumbers, wide + forms.wideNumbers, forms.numbersSize);
}

// One direction: what is read, what is written, and how.
struct Direction {
    uint32_t RecordForms::*from;
    uint32_t RecordForms::*to;
    void (*convert)(const RecordForms& forms, const BYTE* from, BYTE* to);
};
constexpr Direction kToWide = {&RecordForms::ansiSize, &RecordForms::wideSize, WidenRecord};
constexpr Direction kToAnsi = {&RecordForms::wideSize, &RecordForms::ansiSize, NarrowRecord};

Status Refuse(uint32_t needed, uint32_t* outSize) {
    *outSize = needed;
    return TVS_E_MEMORY;
}

// In both directions the size is that of the wide form. A source between the ANSI and the wide size is refused too,
// because it is shorter than its record.
Status ConvertRecord(const RecordForms& forms, const Direction& direction, const void* source, void* destination,
                     uint32_t size, uint32_t* outSize) {
    const uint32_t needed = forms.*direction.to;
    if (destination == nullptr || size < forms.wideSize) return Refuse(needed, outSize);
    *outSize = 0;
    BYTE from[kWideRecordSizeMax];
    BYTE to[kWideRecordSizeMax];
    if (!CopyFromCaller(from, source, forms.*direction.from)) return TVS_E_FAULT;
    direction.convert(forms, from, to);
    if (!CopyToCaller(destination, to, needed)) return TVS_E_FAULT;
    *outSize = needed;
    return TVS_OK;
}

uint64_t QueueSize(uint32_t count, uint32_t entrySize) {
    return kCountSize + uint64_t{count} * entrySize;
}

Status ConvertQueue(const Direction& direction, const void* source, void* destination, uint32_t size,
                    uint32_t* outSize) {
    const uint32_t fromStride = kJobForms.*direction.from;
    const uint32_t toStride = kJobForms.*direction.to;
    *outSize = 0;
    if (source == nullptr) return TVS_E_FAULT;
    if (direction.from == kToAnsi.from && size < kCountSize) return TVS_E_MEMORY; // shorter than its count
    uint32_t count = 0;
    if (!CopyFromCaller(&count, source, kCountSize)) return TVS_E_FAULT;
    const uint64_t needed = QueueSize(count, toStride);
    const uint32_t told = needed < 0xFFFFFFFF ? static_cast<uint32_t>(needed) : 0xFFFFFFFF;
    if (destination == nullptr) return Refuse(told, outSize);
    // A destination that is too small still receives the count.
    if (size >= kCountSize && !CopyToCaller(destination, &count, kCountSize)) return TVS_E_FAULT;
    if (QueueSize(count, kJobForms.wideSize) > size) return Refuse(told, outSize);

    const SIZE_T fromSize = static_cast<SIZE_T>(QueueSize(count, fromStride));
    Scratch from(fromSize);
    Scratch to(told);
    if (from.Data() == nullptr || to.Data() == nullptr) return Refuse(told, outSize);
    const auto* entries =
        static_cast<const BYTE*>(source) + kCountSize; // the count has been copied and must not be read again
    if (!CopyFromCaller(from.Data() + kCountSize, entries, fromSize - kCountSize)) return TVS_E_FAULT;
    memcpy(to.Data(), &count, kCountSize);
    for (SIZE_T i = 0; i < count; ++i)
        direction.convert(kJobForms, from.Data() + kCountSize + i * fromStride, to.Data() + kCountSize + i * toStride);
    if (!CopyToCaller(destination, to.Data(), told)) return TVS_E_FAULT;
    *outSize = told;
    return TVS_OK;
}

} // namespace

Status CopyWideQueue(const void* callersQueue, uint32_t size, HeapBlock* copy) {
    if (callersQueue == nullptr) return TVS_E_FAULT;
    if (size < kCountSize) return TVS_E_MEMORY; // shorter than its count
    uint32_t count = 0;
    if (!CopyFromCaller(&count, callersQueue, kCountSize)) return TVS_E_FAULT;
    const uint64_t needed = QueueSize(count, kJobForms.wideSize);
    if (needed > size) return TVS_E_MEMORY;
    HeapBlock block(static_cast<SIZE_T>(needed));
    if (block.memory == nullptr) return TVS_E_MEMORY;
    memcpy(block.memory, &count, kCountSize);
    const auto* entries = static_cast<const BYTE*>(callersQueue) + kCountSize;
    if (!CopyFromCaller(block.memory + kCountSize, entries, static_cast<SIZE_T>(needed) - kCountSize))
        return TVS_E_FAULT;
    copy->memory = block.Take();
    return TVS_OK;
}

int32_t WINAPI JobRecordToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kJobForms, kToWide, ansi, wide, size, outSize);
}

int32_t WINAPI JobRecordToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kJobForms, kToAnsi, wide, ansi, size, outSize);
}

int32_t WINAPI PrintingJobToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPrintingJobForms, kToWide, ansi, wide, size, outSize);
}

int32_t WINAPI PrintingJobToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPrintingJobForms, kToAnsi, wide, ansi, size, outSize);
}

int32_t WINAPI PrintingJob2ToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPrintingJob2Forms, kToWide, ansi, wide, size, outSize);
}

int32_t WINAPI PrintingJob2ToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPrintingJob2Forms, kToAnsi, wide, ansi, size, outSize);
}

int32_t WINAPI PortToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPortForms, kToWide, ansi, wide, size, outSize);
}

int32_t WINAPI PortToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPortForms, kToAnsi, wide, ansi, size, outSize);
}

int32_t WINAPI PortExToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPortExForms, kToWide, ansi, wide, size, outSize);
}

int32_t WINAPI PortExToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertRecord(kPortExForms, kToAnsi, wide, ansi, size, outSize);
}

int32_t WINAPI JobQueueToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertQueue(kToWide, ansi, wide, size, outSize);
}

int32_t WINAPI JobQueueToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    return ConvertQueue(kToAnsi, wide, ansi, size, outSize);
}

int32_t WINAPI StringToWide(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    *outSize = size < 0x80000000 ? 2 * size : 0xFFFFFFFF;
    if (wide == nullptr) return TVS_E_MEMORY;
    char from[kStringSizeMax + 1];
    WCHAR to[kStringSizeMax + 1];
    *outSize = 0;
    if (!CopyCallerText(from, kStringSizeMax, static_cast<const char*>(ansi))) return TVS_E_FAULT;
    const uint32_t room = size / sizeof(WCHAR);
    const uint32_t units = WidenText(from, kStringSizeMax, to);
    const uint32_t kept = room > 0 ? FittingUnits(to, units, room - 1) : 0;
    to[kept] = 0;
    if (!CopyToCaller(wide, to, room > 0 ? (kept + 1) * sizeof(WCHAR) : 0)) return TVS_E_FAULT;
    *outSize = size < 0x80000000 ? 2 * size : 0xFFFFFFFF;
    return room > units ? TVS_OK : TVS_E_SIZE;
}

int32_t WINAPI StringToAnsi(void* wide, void* ansi, uint32_t size, uint32_t* outSize) {
    const uint32_t room = size / sizeof(WCHAR);
    *outSize = room;
    if (ansi == nullptr || room == 0) return TVS_E_MEMORY;
    WCHAR from[kStringSizeMax + 1];
    char to[kStringSizeMax];
    const uint32_t characters = std::min(room, kStringSizeMax);
    *outSize = 0;
    if (!CopyCallerText(from, characters, static_cast<const WCHAR*>(wide))) return TVS_E_FAULT;
    const uint32_t bytes = NarrowText(from, characters, to);
    to[bytes] = '\0';
    if (!CopyToCaller(ansi, to, bytes + 1)) return TVS_E_FAULT;
    *outSize = room;
    return TVS_OK;
}
