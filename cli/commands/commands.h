// The commands. Each prints its result and returns its exit code, or throws Failure. Option texts are UTF-8, as the
// user typed them. No state.
#pragma once

#include "base/opened_printer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

Exit VarsCommand(const ManagerOptions& options, const std::vector<std::string>& patterns);
Exit GetCommand(const ManagerOptions& options, const std::vector<std::string>& names);
Exit InfoCommand(const ManagerOptions& options, const std::vector<std::string>& names);

struct NewValue {
    std::string variable;
    std::vector<std::string> words;
    std::optional<std::string> hex;
    std::optional<std::string> file; // "-": standard input
    bool asynchronous = false;       // by a request; its result is kept until somebody takes it
    bool wait = false;               // take that result
};
Exit SetCommand(const ManagerOptions& options, const NewValue& value);
// Takes the result of a request that an asynchronous set made.
Exit ResultCommand(const ManagerOptions& options, uint32_t request);

enum class DeliveredBy { Event, Message, Callback };
struct WatchOptions {
    std::vector<std::string> variables;
    std::vector<std::string> until; // conditions, all of which must hold; none: until the user ends it
    std::optional<uint32_t> timeoutMs;
    DeliveredBy by = DeliveredBy::Event;
};
// Exit::Done when the conditions hold, or when the user ended a watch without conditions.
Exit WatchCommand(const ManagerOptions& options, const WatchOptions& wanted);
Exit TerminateCommand(const ManagerOptions& options);

// What this user may do with the printer. explain: also which entry of its access control list gave or denied what.
Exit AuthorityCommand(const ManagerOptions& options, bool explain);
Exit AclShowCommand(const ManagerOptions& options);
// text: "D:(A;;SWRC;;;WD)..."
Exit AclSetCommand(const ManagerOptions& options, const std::string& text);
// Opens a printer and closes it again, which creates its variables. accessList: given to a printer that has none.
Exit OpenCommand(const ManagerOptions& options, const std::string& accessList);

// Jobs of the spooler, and of the queues "PrinterQueue" and "SpoolerQueue".
Exit JobsCommand(const ManagerOptions& options);
// Pauses, or resumes, the job that is being sent to the printer.
Exit SetJobCommand(const ManagerOptions& options, bool pause);
Exit CancelCommand(const ManagerOptions& options, uint32_t job);
struct PrintJob {
    std::string printer;
    std::string file = "-"; // standard input
    std::string title;      // empty: the file's name
    bool held = false;      // paused from the start
};
// Puts a document into the spooler, and prints the number of its job.
Exit PrintCommand(const PrintJob& wanted);

Exit RenameCommand(const ManagerOptions& options, const std::string& newName);
struct NewPort {
    std::string kind;
    std::string name;
    std::string detail;
};
Exit PortCommand(const ManagerOptions& options, const std::optional<NewPort>& wanted); // none: shows it

Exit PrintersCommand();
struct NewPrinter {
    std::string name;
    std::string driver; // may be empty for a device on the network
    std::string port;
    std::optional<std::string> script; // the file that the printer's side plays
    std::optional<std::string> device; // "ipp://HOST/PATH" and so on; it is tried first
};
// The print server's queues, and printers that announce themselves, each with the command that adds it. Exit::False:
// none was found.
Exit DiscoverCommand();
Exit AddPrinterCommand(const NewPrinter& wanted);
Exit RemovePrinterCommand(const std::string& name);

struct NewRegistryValue {
    std::string key;
    std::optional<std::string> name; // none: only the key is made
    std::string type;                // "sz", "dword" ...
    std::vector<std::string> data;
};
Exit RegQueryCommand(const std::string& key, const std::optional<std::string>& value, bool recursive);
Exit RegSetCommand(const NewRegistryValue& value);
Exit RegDeleteCommand(const std::string& key, const std::optional<std::string>& value, bool tree);
Exit RegImportCommand(const std::string& file);
Exit RegExportCommand(const std::string& key, const std::string& file);

struct NewSetting {
    std::string name;               // empty: shows all
    std::vector<std::string> words; // empty: shows it
    bool add = false;               // to a list
    bool remove = false;            // back to what counts without a value
};
Exit ConfigCommand(const NewSetting& wanted);

// Exit::NoService unless the product is installed and its service runs.
Exit StatusCommand();

// What keeps a printer, or with an empty name any, from being watched or from printing. Exit::NoService: the product;
// Denied: rights of this user; TimedOut: the device does not answer; False: anything else.
Exit DoctorCommand(const std::string& printer);

struct UpOptions {
    bool quiet = false;
    bool demoPrinter = false; // add a printer to try things on
};
// Exit::False when the product is up in another process.
Exit UpCommand(const UpOptions& options);
