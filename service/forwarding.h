// Forwarded requests: what ForwardRequest asks of a printer reaches the printer side through the mailbox of the
// printer's database, one request at a time, and the caller waits for its answer.
//
// The mailbox and its answer are the two variables that product/interface.h tells of. A printer side is there while a
// client watches the mailbox; when the last one goes, all who wait are told at once, also those who do not wait in a
// call of the service but for "RWResult". State: with each database (Forwarding in database.h).
#pragma once

#include "database.h"

// Whether a new mailbox or answer variable is as it must be.
bool IsForwardingForm(product::DatabaseType type, const BYTE* bytes, DWORD size);

// Carries out "ReadRequest:<printer>" and the like: the printer side's result, or why there is none.
LONG ForwardRequest(std::string_view request);

// The answer variable was written: by whom and with what must be checked.
void TakeAnswer(Database& database, const BYTE* bytes, DWORD size);
// Nobody watches the mailbox any more: "PrinterExtStatus" and "SpoolerStatus" say so, whether the printer side could or
// not, and who waits for "RWResult" is answered, unless another one comes soon.
void PrinterSideIsGone(Database& database);
// A request was written. When the printer side has gone by now, it is answered in the same way.
void AnswerUnserved(Database& database);
// All managers are asked to terminate: each printer side that serves a printer is asked to end.
void EndPrinterSides();

// Reads how long a request may take, and starts the thread that answers for printer sides without a successor. False:
// it cannot be started.
bool StartForwarding();
// Tells all who wait that the service ends; later calls wait no more.
void EndForwarding();
// Ends the thread.
void StopForwarding();
