// Names that are formed. No state.
#include "product/registry_names.h"

#include <stddef.h>

PrinterKey PrinterKeyName(const char* printerName) {
    PrinterKey key = {};
    size_t i = 0;
    while (printerName[i] != '\0' && i + 1 < sizeof key.name) {
        const bool lead = IsDBCSLeadByte(static_cast<BYTE>(printerName[i])) != FALSE;
        key.name[i] = !lead && printerName[i] == '\\' ? ',' : printerName[i];
        ++i;
        // The second byte may look like a backslash. A lead byte at the very end has none.
        if (lead && printerName[i] != '\0' && i + 1 < sizeof key.name) {
            key.name[i] = printerName[i];
            ++i;
        }
    }
    return key;
}
