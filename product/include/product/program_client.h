// The service's client in the product's programs, which have memory and texts of their own. A program that is linked
// with it has the calls of client.h too.
#pragma once

#include "product/client.h"

#include <string>
#include <vector>

// Reads a value whatever its size, which may change between the question for it and the read. Empty on failure.
Answer ReadWholeValue(DatabaseHandle database, const char* name, std::vector<BYTE>* value);

// Of all printers in the printer list, in its order; empty on failure.
Answer ListPrinterDatabases(std::vector<std::string>* databases);

// The name of a printer's database, empty on failure. Answer::Done and empty: the printer list does not have the
// printer. driver, which may be absent: the printer's, empty where it is not known.
Answer FindPrinterDatabase(const std::string& printer, std::string* database, std::string* driver = nullptr);
