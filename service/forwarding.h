// Forwarded requests: a request of ForwardRequest reaches the printer side through the mailbox of the printer's
// database, one request at a time, and the caller waits for the answer.
//
// product/interface.h describes the mailbox and its answer, two variables. A printer side exists while a client watches
// the mailbox. When the last one goes, all callers are answered at once; so is a program that waits for "RWResult"
// without a call of the service. State: with each database (Forwarding in database.h); the thread's in forwarding.cpp.
#pragma once

#include "database.h"

// Whether a new mailbox or answer variable has the right type and an all-zero value of the right size.
bool IsForwardingForm(product::DatabaseType type, const BYTE* bytes, DWORD size);

// Has "ReadRequest:<printer>" and the like carried out: the printer side's result, or why there is none.
LONG ForwardRequest(std::string_view request);

// The answer variable was written. An answer to another request than the one in the mailbox is ignored.
void TakeAnswer(Database& database, const BYTE* bytes, DWORD size);
// Nobody watches the mailbox any more. Does what a printer side that was killed could not do: clears the bits of
// "PrinterExtStatus" and "SpoolerStatus" that it sets, and says in "DeviceState" that nobody asks the device. Answers
// whoever waits for "RWResult", unless another printer side comes soon.
void PrinterSideIsGone(Database& database);
// Wakes the printer side, to see whether somebody follows the printer.
void WakePrinterSide(const Database& database);
// A request variable was written. Answers it in the same way when there is no printer side.
void AnswerUnserved(Database& database);
// All managers are asked to terminate: each printer side that serves a printer is asked to end.
void EndPrinterSides();

// Reads how long a request may take, and starts the thread that answers for printer sides without a successor. False:
// it cannot be started.
bool StartForwarding();
// Answers all callers, since the service ends. Later calls do not wait.
void EndForwarding();
// Ends the thread.
void StopForwarding();
