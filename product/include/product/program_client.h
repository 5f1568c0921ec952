// The service's client for the product's programs, on top of client.h: values in vectors and strings. It may throw
// std::bad_alloc. State: the binding of client.h.
#pragma once

#include "product/client.h"

#include <string>
#include <vector>

// Reads a value of any size, which may change meanwhile. On failure the value is empty.
Answer ReadWholeValue(DatabaseHandle database, const char* name, std::vector<BYTE>* value);

// The databases of all printers, in the order of the printer list. On failure the list is empty.
Answer ListPrinterDatabases(std::vector<std::string>* databases);

// The name of a printer's database; empty on failure. Answer::Done with an empty name: the printer list does not have
// the printer. driver (optional): the printer's driver; empty when it is not known.
Answer FindPrinterDatabase(const std::string& printer, std::string* database, std::string* driver = nullptr);
