// What the views show: the printers of a machine, or of several, with the values of their variables, kept up to date.
// A view takes a snapshot and what has changed since; where both come from is the source's business: the service of
// this machine (local.h), or a broker.
#pragma once

#include "base/output.h"

#include "product/meanings.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace views {

// The value of a variable at one moment. Texts are UTF-8 without control characters.
struct Value {
    std::vector<uint8_t> bytes; // as the library's A functions give it; empty when the source does not tell bytes
    Json json;                  // as `oriel get --json` prints it: a number, a text, an object of fields, a list, null
    std::string text;           // the same on one line, as `oriel vars` shows it
    std::string meaning;        // "paper jam, unit 2"; empty when the value says no more than itself
    product::Severity severity = product::Severity::None;
    std::string origin;    // NameOf(product::Origin), or "model"
    uint64_t writes = 0;   // how often it was written in this run of the service
    int64_t writtenMs = 0; // milliseconds since 1970, UTC; 0: never
};

struct Printer {
    std::string machine; // host name
    std::string name;    // UTF-8
    std::string driver;
    std::string device;  // address of its device; empty: none, or not known
    bool stale = false;  // what its device told is no longer sure
    std::string trouble; // why, in words; empty when nothing is
    // Milliseconds since 1970 of the device's last answer; 0: none, or there is no device.
    int64_t answeredMs = 0;
    std::map<std::string, Value> values; // by the name of the variable. Queues and write-only variables are not there
};

enum class ChangeKind {
    Value,          // a variable was written with other bytes than before
    PrinterAdded,   // with all values that it has
    PrinterRemoved, //
    Stale,          // the values of a printer are no longer sure
    Fresh,          // and are sure again
    Gap,            // the source cannot say what happened in between: the service was restarted or away
    Connected,      // a machine is there
    Disconnected,   // and is not
};
const char* NameOf(ChangeKind kind);

struct Change {
    ChangeKind kind = ChangeKind::Value;
    int64_t atMs = 0; // of the write, or when it was noticed; milliseconds since 1970
    std::string machine;
    std::string printer; // empty: the whole machine
    std::string variable;
    std::optional<Value> before; // none: it was not known
    std::optional<Value> after;
    uint64_t missed = 0; // writes between the two that were seen only as a count
};

// By machine and name.
using Printers = std::map<std::pair<std::string, std::string>, Printer>;

class Source {
public:
    virtual ~Source() = default;
    // Waits until something has changed, at most `most`, brings Now() up to date and says what changed, oldest first.
    // Wake() ends the wait from any thread.
    virtual std::vector<Change> Wait(std::chrono::milliseconds most) = 0;
    virtual void Wake() = 0;
    // Of the thread that calls Wait.
    virtual const Printers& Now() const = 0;
    // Commands of a view. Throws Failure when they cannot be carried out, or not here.
    virtual void PauseJob(const Printer& printer, bool pause) = 0;
    virtual void CancelJob(const Printer& printer, uint32_t job) = 0;
};

} // namespace views
