// The user's default printer, which may have gone.
#pragma once

// Makes the printer the default one when the present default printer does not exist any more. False when there is none
// to compare with or the change could not be made.
bool RepairDefaultPrinter(const char* printerName);
