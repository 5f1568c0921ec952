/* tvsqdz_records.h: values that are records, in the form of the A functions and in the form of the W functions.
 *
 * Text is in fields of a fixed number of characters and NUL-terminated inside its field: in the ANSI code page of the system
 * in the ANSI form, in UTF-16 in the wide form. Bytes behind the NUL have no meaning. Numbers are 32-bit, little-endian and
 * the same in both forms, and the records have no padding. Other records ("PrinterStatus", "CoverageInfo" and so on) have no
 * text: the A and the W functions exchange the same bytes of them. */
#ifndef TVSQDZ_RECORDS_H
#define TVSQDZ_RECORDS_H

#include <stddef.h>
#include <stdint.h>

/* A unit of UTF-16. */
#if defined(_WIN32)
typedef wchar_t TvsWideChar;
#else
#ifndef __cplusplus
#include <uchar.h>
#endif
typedef char16_t TvsWideChar;
#endif

/* Characters of the text fields, the NUL included. */
#define TVS_JOB_NAME_SIZE 256
#define TVS_OWNER_NAME_SIZE 32
#define TVS_PORT_TEXT_SIZE 128

/* "SendingJobInfo", and an entry of the job queues: 292 bytes, wide 580. */
typedef struct TvsJobRecord {
    char jobName[TVS_JOB_NAME_SIZE];
    char ownerName[TVS_OWNER_NAME_SIZE];
    uint32_t jobId; /* of the print spooler; 0: no job */
} TvsJobRecord;

typedef struct TvsJobRecordWide {
    TvsWideChar jobName[TVS_JOB_NAME_SIZE];
    TvsWideChar ownerName[TVS_OWNER_NAME_SIZE];
    uint32_t jobId;
} TvsJobRecordWide;

/* "PrinterQueue" and "SpoolerQueue": a count, then as many job records back to back, oldest first. */
typedef struct TvsJobQueue {
    uint32_t count;
    TvsJobRecord entries[1]; /* count of them */
} TvsJobQueue;

typedef struct TvsJobQueueWide {
    uint32_t count;
    TvsJobRecordWide entries[1]; /* count of them */
} TvsJobQueueWide;

/* Size in bytes of a queue of that many entries, in each form. */
#define TVS_JOB_QUEUE_SIZE(count) (4u + 292u * (count))
#define TVS_JOB_QUEUE_WIDE_SIZE(count) (4u + 580u * (count))

/* "PrintingJobInfo": 296 bytes, wide 584. */
typedef struct TvsPrintingJobRecord {
    char jobName[TVS_JOB_NAME_SIZE];
    char ownerName[TVS_OWNER_NAME_SIZE];
    uint32_t jobId;    /* the job that is being printed; 0: printing ended */
    uint32_t progress; /* 0 on the first report of a job */
} TvsPrintingJobRecord;

typedef struct TvsPrintingJobRecordWide {
    TvsWideChar jobName[TVS_JOB_NAME_SIZE];
    TvsWideChar ownerName[TVS_OWNER_NAME_SIZE];
    uint32_t jobId;
    uint32_t progress;
} TvsPrintingJobRecordWide;

/* "PrintingJobInfo2", which is "PrintingJobInfo" and "CoverageInfo": 320 bytes, wide 608. */
typedef struct TvsPrintingJobRecord2 {
    TvsPrintingJobRecord job;
    uint32_t coverage[6];
} TvsPrintingJobRecord2;

typedef struct TvsPrintingJobRecord2Wide {
    TvsPrintingJobRecordWide job;
    uint32_t coverage[6];
} TvsPrintingJobRecord2Wide;

/* "Port": 260 bytes, wide 516. portKind: TVS_PORT_NO_REQUESTS. */
typedef struct TvsPortRecord {
    uint32_t portKind;
    char portName[TVS_PORT_TEXT_SIZE];
    char portDetail[TVS_PORT_TEXT_SIZE];
} TvsPortRecord;

typedef struct TvsPortRecordWide {
    uint32_t portKind;
    TvsWideChar portName[TVS_PORT_TEXT_SIZE];
    TvsWideChar portDetail[TVS_PORT_TEXT_SIZE];
} TvsPortRecordWide;

/* "PortEx", which is "PrinterExtStatus" and "Port": 264 bytes, wide 520. */
typedef struct TvsPortExRecord {
    uint32_t extStatus;
    TvsPortRecord port;
} TvsPortExRecord;

typedef struct TvsPortExRecordWide {
    uint32_t extStatus;
    TvsPortRecordWide port;
} TvsPortExRecordWide;

/* The layouts are an external interface; no compiler may choose others. */
#ifdef __cplusplus
#define TVS_ASSERT(condition) static_assert(condition, #condition)
#else
#define TVS_ASSERT(condition) _Static_assert(condition, #condition)
#endif

TVS_ASSERT(sizeof(TvsWideChar) == 2);

TVS_ASSERT(sizeof(TvsJobRecord) == 292);
TVS_ASSERT(offsetof(TvsJobRecord, jobName) == 0);
TVS_ASSERT(offsetof(TvsJobRecord, ownerName) == 256);
TVS_ASSERT(offsetof(TvsJobRecord, jobId) == 288);
TVS_ASSERT(sizeof(TvsJobRecordWide) == 580);
TVS_ASSERT(offsetof(TvsJobRecordWide, jobName) == 0);
TVS_ASSERT(offsetof(TvsJobRecordWide, ownerName) == 512);
TVS_ASSERT(offsetof(TvsJobRecordWide, jobId) == 576);

TVS_ASSERT(offsetof(TvsJobQueue, count) == 0);
TVS_ASSERT(offsetof(TvsJobQueue, entries) == 4 && TVS_JOB_QUEUE_SIZE(1) == sizeof(TvsJobQueue));
TVS_ASSERT(offsetof(TvsJobQueueWide, count) == 0);
TVS_ASSERT(offsetof(TvsJobQueueWide, entries) == 4 && TVS_JOB_QUEUE_WIDE_SIZE(1) == sizeof(TvsJobQueueWide));

TVS_ASSERT(sizeof(TvsPrintingJobRecord) == 296);
TVS_ASSERT(offsetof(TvsPrintingJobRecord, jobName) == 0);
TVS_ASSERT(offsetof(TvsPrintingJobRecord, ownerName) == 256);
TVS_ASSERT(offsetof(TvsPrintingJobRecord, jobId) == 288);
TVS_ASSERT(offsetof(TvsPrintingJobRecord, progress) == 292);
TVS_ASSERT(sizeof(TvsPrintingJobRecordWide) == 584);
TVS_ASSERT(offsetof(TvsPrintingJobRecordWide, jobName) == 0);
TVS_ASSERT(offsetof(TvsPrintingJobRecordWide, ownerName) == 512);
TVS_ASSERT(offsetof(TvsPrintingJobRecordWide, jobId) == 576);
TVS_ASSERT(offsetof(TvsPrintingJobRecordWide, progress) == 580);

TVS_ASSERT(sizeof(TvsPrintingJobRecord2) == 320);
TVS_ASSERT(offsetof(TvsPrintingJobRecord2, job) == 0);
TVS_ASSERT(offsetof(TvsPrintingJobRecord2, coverage) == 296);
TVS_ASSERT(sizeof(TvsPrintingJobRecord2Wide) == 608);
TVS_ASSERT(offsetof(TvsPrintingJobRecord2Wide, job) == 0);
TVS_ASSERT(offsetof(TvsPrintingJobRecord2Wide, coverage) == 584);

TVS_ASSERT(sizeof(TvsPortRecord) == 260);
TVS_ASSERT(offsetof(TvsPortRecord, portKind) == 0);
TVS_ASSERT(offsetof(TvsPortRecord, portName) == 4);
TVS_ASSERT(offsetof(TvsPortRecord, portDetail) == 132);
TVS_ASSERT(sizeof(TvsPortRecordWide) == 516);
TVS_ASSERT(offsetof(TvsPortRecordWide, portKind) == 0);
TVS_ASSERT(offsetof(TvsPortRecordWide, portName) == 4);
TVS_ASSERT(offsetof(TvsPortRecordWide, portDetail) == 260);

TVS_ASSERT(sizeof(TvsPortExRecord) == 264);
TVS_ASSERT(offsetof(TvsPortExRecord, extStatus) == 0);
TVS_ASSERT(offsetof(TvsPortExRecord, port) == 4);
TVS_ASSERT(sizeof(TvsPortExRecordWide) == 520);
TVS_ASSERT(offsetof(TvsPortExRecordWide, extStatus) == 0);
TVS_ASSERT(offsetof(TvsPortExRecordWide, port) == 4);

#undef TVS_ASSERT

#endif
