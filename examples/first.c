/* A first program: reads a printer's status, changes its location, and prints when the location was written.
 *
 *     first ["printer name"]
 *
 * The product must be up ("oriel up") and know the printer ("oriel printers"). */
#include <stdio.h>
#include <string.h>

#include <windows.h> /* SYSTEMTIME */

#include <tvsqdz_status.h> /* tvsqdz.h, and a text for each status */

/* Every call returns a status: 0, a negative code of tvsqdz.h, or a positive code of the system. */
static int failed(const char* what, int32_t status) {
    if (status == TVS_OK) return 0;
    fprintf(stderr, "%s: %s (status %d)\n", what, TvsStatusText(status), (int)status);
    return 1;
}

static int show(TvsManager manager) {
    uint32_t words[3]; /* "PrinterStatus" is a record of 12 bytes */
    char text[64];     /* "PrinterName" has up to 260: a smaller buffer gets what fits, and TVS_E_SIZE */
    uint32_t size;

    int32_t status = GetPrinterStatusA(manager, "PrinterStatus", words, sizeof words, &size);
    if (failed("reading PrinterStatus", status)) return 1;
    printf("PrinterStatus: 0x%x 0x%x 0x%x (%u bytes)\n", words[0], words[1], words[2], size);

    status = GetPrinterStatusA(manager, "PrinterName", text, sizeof text, &size);
    if (status != TVS_E_SIZE && failed("reading PrinterName", status)) return 1;
    printf("PrinterName: %s%s\n", text, status == TVS_E_SIZE ? "..." : "");
    return 0;
}

static int move_to(TvsManager manager, const char* location) {
    char text[260];
    uint32_t size;
    SYSTEMTIME written; /* UTC */

    /* The size of a text counts its NUL. */
    int32_t status = UpdatePrinterStatusA(manager, "PrinterLocation", location, (uint32_t)strlen(location) + 1);
    if (failed("updating PrinterLocation", status)) return 1;

    /* Every later read, in any process, returns the new value. */
    status = GetPrinterStatusA(manager, "PrinterLocation", text, sizeof text, &size);
    if (failed("reading PrinterLocation", status)) return 1;
    status = GetPrinterStatusInfoA(manager, "PrinterLocation", &written);
    if (failed("asking when PrinterLocation was written", status)) return 1;
    printf("PrinterLocation: %s, written at %04u-%02u-%02u %02u:%02u:%02u UTC\n", text, written.wYear, written.wMonth,
           written.wDay, written.wHour, written.wMinute, written.wSecond);
    return 0;
}

int main(int argc, char** argv) {
    const char* printer = argc > 1 ? argv[1] : "Front desk";
    TvsManager manager;

    int32_t status = OpenManagerA(printer, NULL, &manager);
    if (failed("opening a manager", status)) return 1;

    int result = show(manager);
    if (result == 0) result = move_to(manager, "2nd floor, by the window");

    if (failed("closing the manager", CloseManager(manager))) return 1;
    return result;
}
