/* Prints the jobs that wait for a printer, oldest first, and the job that is being printed.
 *
 *     queue ["printer name"]
 *
 * The values are records of tvsqdz_records.h, read in their wide form: UTF-16 converts to the terminal's UTF-8 whatever
 * the system's ANSI code page is. */
#include <stdio.h>
#include <stdlib.h>

#include <tvsqdz_status.h>

#define ORDINARY_CLIENT 3 /* reads and updates, takes no ownership, needs only the service */

static int failed(const char* what, int32_t status) {
    if (status == TVS_OK) return 0;
    fprintf(stderr, "queue: %s: %s (status %d)\n", what, TvsStatusText(status), (int)status);
    return 1;
}

/* A text field up to its NUL, in UTF-8. Half of a surrogate pair becomes the replacement character. */
static void print_text(const TvsWideChar* text, size_t size) {
    for (size_t i = 0; i < size && text[i] != 0; ++i) {
        uint32_t c = text[i];
        int is_high = c >= 0xD800 && c < 0xDC00;
        int paired = is_high && i + 1 < size && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;

        if (paired) c = 0x10000 + ((c - 0xD800) << 10) + (uint32_t)(text[++i] - 0xDC00);
        if (c >= 0xD800 && c < 0xE000) c = 0xFFFD;
        if (c < 0x80) {
            putchar((int)c);
        } else {
            if (c >= 0x10000) putchar((int)(0xF0 | c >> 18));
            if (c >= 0x10000) putchar((int)(0x80 | (c >> 12 & 0x3F)));
            else if (c >= 0x800) putchar((int)(0xE0 | c >> 12));
            if (c >= 0x800) putchar((int)(0x80 | (c >> 6 & 0x3F)));
            else putchar((int)(0xC0 | c >> 6));
            putchar((int)(0x80 | (c & 0x3F)));
        }
    }
}

/* Returns the queue in a block that the caller frees; null when it cannot be read. Other processes add and remove jobs,
 * so a queue that has grown since its size was returned is read again. */
static TvsJobQueueWide* read_queue(TvsManager manager) {
    TvsJobQueueWide* queue = NULL;
    uint32_t size = TVS_JOB_QUEUE_WIDE_SIZE(0);

    for (;;) {
        TvsJobQueueWide* larger = realloc(queue, size);
        uint32_t needed;
        int32_t status;

        if (!larger) break;
        queue = larger;
        status = GetPrinterStatusW(manager, u"PrinterQueue", queue, size, &needed);
        if (status == TVS_OK) return queue;
        if (status != TVS_E_MEMORY || needed <= size) {
            failed("reading PrinterQueue", status);
            break;
        }
        size = needed;
    }
    free(queue);
    return NULL;
}

static int show(TvsManager manager) {
    TvsPrintingJobRecordWide printing;
    uint32_t size;
    TvsJobQueueWide* queue = read_queue(manager);

    if (!queue) return 1;
    printf("%u waiting\n", (unsigned)queue->count);
    for (uint32_t i = 0; i < queue->count; ++i) {
        const TvsJobRecordWide* job = &queue->entries[i];

        printf("%u ", (unsigned)job->jobId);
        print_text(job->jobName, TVS_JOB_NAME_SIZE);
        printf(" of ");
        print_text(job->ownerName, TVS_OWNER_NAME_SIZE);
        printf("\n");
    }
    free(queue);

    if (failed("reading PrintingJobInfo", GetPrinterStatusW(manager, u"PrintingJobInfo", &printing, sizeof printing, &size)))
        return 1;
    if (printing.jobId != 0) {
        printf("printing %u ", (unsigned)printing.jobId);
        print_text(printing.jobName, TVS_JOB_NAME_SIZE);
        printf("\n");
    }
    return 0;
}

int main(int argc, char** argv) {
    TvsManager manager;
    int result;

    if (failed("opening a manager",
               OpenManagerExA(argc > 1 ? argv[1] : "Front desk", NULL, ORDINARY_CLIENT, &manager)))
        return 1;
    result = show(manager);
    CloseManager(manager);
    return result;
}
