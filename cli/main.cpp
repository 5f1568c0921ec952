// The command line of `oriel`: its commands and options, and where a failure ends.
#include "commands.h"
#include "opened_printer.h"
#include "output.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <tvsqdz.h>

#include <exception>
#include <functional>

namespace {

constexpr const char* kExitCodes = R"(Exit codes:
  0  done
  1  false, or not found
  2  the command line, or a value on it, is wrong; nothing was done
  3  the product is not installed, not up, or its service does not run
  4  access denied
  5  time-out

With --json a command prints one JSON document ('up': one for each event), also when it fails:
{"error": {"exitCode", "what", "why", "next", "code"}}. Colour is used on a terminal, unless NO_COLOR is set.)";

using Command = std::function<Exit()>;

// Options of the commands; they live as long as the parse and the command.
struct Arguments {
    ManagerOptions manager;
    std::vector<std::string> names;
    NewValue newValue;
    WatchOptions watch;
    double timeoutSeconds = 0;
    std::string printer, driver, port = "FILE:", script;
    NewRegistryValue registryValue;
    std::string key, value, file = "-";
    PrintJob print;
    NewPort newPort;
    uint32_t request = 0;
    uint32_t job = 0;
    UpOptions up;
    bool recursive = false, tree = false, explain = false;
};

std::optional<std::string> WhenGiven(const CLI::Option* option, const std::string& value) {
    return option->count() ? std::optional(value) : std::nullopt;
}

void AddManagerOptions(CLI::App& command, ManagerOptions& options) {
    command.add_option("PRINTER", options.printer, "Name of the printer")->required();
    command.add_option("--kind", options.kind, "Client kind of the manager (0, 7, 8, 9 and 10 need the product up)")
        ->check(CLI::Range(0, TVS_KIND_HIGHEST))
        ->capture_default_str();
    command.add_option("--user", options.user, "On whose behalf the manager works (default: you)");
}

void AddVariableCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* vars = app.add_subcommand("vars", "Show the variables of a printer");
    AddManagerOptions(*vars, a.manager);
    vars->add_option("PATTERN", a.names, "Only names that match one of these; * and ? as in a shell");
    vars->add_flag("--hex", a.manager.hex, "Values as bytes");
    vars->callback([&] { chosen = [&] { return VarsCommand(a.manager, a.names); }; });

    CLI::App* get =
        app.add_subcommand("get", "Show the value of variables. A queue's oldest item is thereby taken off");
    AddManagerOptions(*get, a.manager);
    get->add_option("VARIABLE", a.names, "Names of variables")->required();
    get->add_flag("--hex", a.manager.hex, "Values as bytes");
    get->add_flag("--direct", a.manager.direct,
                  "What the printer itself says now, for variables that it can be asked for");
    get->callback([&] { chosen = [&] { return GetCommand(a.manager, a.names); }; });

    CLI::App* info = app.add_subcommand("info", "Tell when variables were last written, in UTC");
    AddManagerOptions(*info, a.manager);
    info->add_option("VARIABLE", a.names, "Names of variables")->required();
    info->callback([&] { chosen = [&] { return InfoCommand(a.manager, a.names); }; });

    CLI::App* set = app.add_subcommand("set", "Store a value: a number, a text, or field=value of a record (fields not "
                                              "named keep their value)");
    AddManagerOptions(*set, a.manager);
    set->add_option("VARIABLE", a.newValue.variable, "Name of the variable")->required();
    set->add_option("VALUE", a.newValue.words,
                    "Decimal or 0x number; text; field=value ... (behind -- when it begins with -)");
    const CLI::Option* hex = set->add_option("--hex", a.value, "The value as bytes: \"01 02 ff\"");
    const CLI::Option* file =
        set->add_option("--file", a.file, "The value as the bytes of a file; - is standard input");
    set->add_flag("--direct", a.manager.direct, "To the printer itself, which is waited for");
    CLI::Option* asynchronous =
        set->add_flag("--async", a.newValue.asynchronous,
                      "As a request to the printer: prints its number at once, ends when it is done, and leaves its "
                      "result to 'oriel result'");
    set->add_flag("--wait", a.newValue.wait, "Takes the result of the request too")->needs(asynchronous);
    set->callback([&, hex, file] {
        a.newValue.hex = WhenGiven(hex, a.value);
        a.newValue.file = WhenGiven(file, a.file);
        chosen = [&] { return SetCommand(a.manager, a.newValue); };
    });
}

void AddWatchCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* watch = app.add_subcommand("watch", "Print each change of variables, as it happens, until Ctrl-C");
    AddManagerOptions(*watch, a.manager);
    watch->add_option("VARIABLE", a.watch.variables, "Names of variables; those of --until are watched too");
    watch->add_flag("--hex", a.manager.hex, "Values as bytes");
    watch
        ->add_option(
            "--until", a.watch.until,
            "End with 0 when this holds (all of them, when given again): NAME or NAME.FIELD, one of = != < <= > "
            ">= & (any of these bits), and a value; a number of -1 is not known and has no order")
        ->allow_extra_args(false);
    const CLI::Option* timeout = watch->add_option("--timeout", a.timeoutSeconds, "End with 5 after so many seconds")
                                     ->check(CLI::Range(0.0, 1e6));
    const std::map<std::string, DeliveredBy> forms = {
        {"event", DeliveredBy::Event}, {"message", DeliveredBy::Message}, {"callback", DeliveredBy::Callback}};
    watch->add_option("--by", a.watch.by, "The form in which the library tells: event, message or callback")
        ->transform(CLI::CheckedTransformer(forms))
        ->default_str("event");
    watch->callback([&, timeout] {
        if (timeout->count()) a.watch.timeoutMs = static_cast<uint32_t>(a.timeoutSeconds * 1000);
        chosen = [&] { return WatchCommand(a.manager, a.watch); };
    });

    CLI::App* terminate = app.add_subcommand(
        "terminate", "Ask all managers of the machine to shut down, and the product's windows to close");
    AddManagerOptions(*terminate, a.manager);
    terminate->callback([&] { chosen = [&] { return TerminateCommand(a.manager); }; });
}

void AddResultCommand(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* result = app.add_subcommand("result", "Take the result of a request that 'set --async' made, once");
    AddManagerOptions(*result, a.manager);
    result->add_option("REQUEST", a.request, "Its number")->required();
    result->callback([&] { chosen = [&] { return ResultCommand(a.manager, a.request); }; });
}

void AddAuthorityCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* authority = app.add_subcommand("authority", "Show what you may do with a printer");
    AddManagerOptions(*authority, a.manager);
    authority->add_flag("--explain", a.explain, "And which entry of the printer's list gave or took each right");
    authority->callback([&] { chosen = [&] { return AuthorityCommand(a.manager, a.explain); }; });

    CLI::App* acl = app.add_subcommand("acl", "Show or replace the access control list of a printer");
    acl->require_subcommand(1);
    CLI::App* show = acl->add_subcommand("show", "Show it as text");
    AddManagerOptions(*show, a.manager);
    show->callback([&] { chosen = [&] { return AclShowCommand(a.manager); }; });
    CLI::App* set = acl->add_subcommand("set", "Replace it");
    AddManagerOptions(*set, a.manager);
    set->add_option("TEXT", a.value, "D:(A;;SWRC;;;WD)(D;;0x10;;;NAME) ...: SDDL, where accounts may have their names")
        ->required();
    set->callback([&] { chosen = [&] { return AclSetCommand(a.manager, a.value); }; });
}

void AddJobCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* jobs = app.add_subcommand("jobs", "Show the jobs of a printer: in the spooler and in its own queues");
    AddManagerOptions(*jobs, a.manager);
    jobs->callback([&] { chosen = [&] { return JobsCommand(a.manager); }; });

    for (const bool pause : {true, false}) {
        CLI::App* command = pause ? app.add_subcommand("pause", "Pause the job that is being sent to a printer")
                                  : app.add_subcommand("resume", "Go on with the job that is being sent to a printer");
        AddManagerOptions(*command, a.manager);
        command->callback([&, pause] { chosen = [&, pause] { return SetJobCommand(a.manager, pause); }; });
    }

    CLI::App* cancel = app.add_subcommand("cancel", "Cancel a job of a printer");
    AddManagerOptions(*cancel, a.manager);
    cancel->add_option("JOB", a.job, "Its number, as 'jobs' shows it")->required();
    cancel->callback([&] { chosen = [&] { return CancelCommand(a.manager, a.job); }; });

    CLI::App* print = app.add_subcommand("print", "Put a document into the spooler; prints the number of its job");
    print->add_option("PRINTER", a.print.printer, "Name of the printer")->required();
    print->add_option("FILE", a.print.file, "The document; - is standard input")->capture_default_str();
    print->add_option("--title", a.print.title, "The job's title (default: the file's name)");
    print->add_flag("--held", a.print.held, "The job is paused from the start");
    print->callback([&] { chosen = [&] { return PrintCommand(a.print); }; });
}

void AddNameCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* rename = app.add_subcommand("rename", "Give a printer another name, everywhere");
    AddManagerOptions(*rename, a.manager);
    rename->add_option("NEW", a.value, "Its new name")->required();
    rename->callback([&] { chosen = [&] { return RenameCommand(a.manager, a.value); }; });

    CLI::App* port = app.add_subcommand("port", "Show the port of a printer, or tell that it has another");
    AddManagerOptions(*port, a.manager);
    CLI::Option* kind = port->add_option("KIND", a.newPort.kind, "Bits; 8: a port that takes no direct requests");
    CLI::Option* name = port->add_option("NAME", a.newPort.name, "Name of the port");
    port->add_option("DETAIL", a.newPort.detail, "More about it");
    kind->needs(name);
    port->callback([&, kind] {
        chosen = [&, kind] { return PortCommand(a.manager, kind->count() ? std::optional(a.newPort) : std::nullopt); };
    });
}

void AddPrinterCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* open = app.add_subcommand("open", "Open a printer and close it again, which makes its variables");
    open->group(""); // of use to 'up' alone
    AddManagerOptions(*open, a.manager);
    open->callback([&] {
        chosen = [&] {
            OpenPrinterOf(a.manager);
            return Exit::Done;
        };
    });

    CLI::App* printers = app.add_subcommand("printers", "Show the printers, or add and remove one");
    printers->require_subcommand(0, 1);
    printers->callback([&] {
        if (!chosen) chosen = [] { return PrintersCommand(); };
    });

    CLI::App* add = printers->add_subcommand("add", "Add a printer to the spooler and the registry");
    add->add_option("NAME", a.printer, "Its name")->required();
    add->add_option("--driver", a.driver, "Name of its driver, which is its model")->required();
    add->add_option("--port", a.port, "Name of its port")->capture_default_str();
    const CLI::Option* script =
        add->add_option("--script", a.script, "'up' starts a printer side for it, which plays this script");
    add->callback([&, script] {
        chosen = [&, script] { return AddPrinterCommand(a.printer, a.driver, a.port, WhenGiven(script, a.script)); };
    });

    CLI::App* remove = printers->add_subcommand(
        "remove", "Remove a printer, with the copies of its persistent variables. The service keeps its database");
    remove->add_option("NAME", a.printer, "Its name")->required();
    remove->callback([&] { chosen = [&] { return RemovePrinterCommand(a.printer); }; });
}

void AddRegistryCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* reg = app.add_subcommand("reg", "Read and change the registry");
    reg->require_subcommand(1);
    const char* keyHelp = "HKLM\\... or HKCU\\...";

    CLI::App* query = reg->add_subcommand("query", "Show a key, or one value of it");
    query->add_option("KEY", a.key, keyHelp)->required();
    const CLI::Option* queryValue = query->add_option("VALUE", a.value, "Name of the value; \"\": the default value");
    query->add_flag("-r,--recursive", a.recursive, "Also all keys below it");
    query->callback([&, queryValue] {
        chosen = [&, queryValue] { return RegQueryCommand(a.key, WhenGiven(queryValue, a.value), a.recursive); };
    });

    CLI::App* set = reg->add_subcommand("set", "Write a value; the key is made when it is missing");
    set->add_option("KEY", a.registryValue.key, keyHelp)->required();
    const CLI::Option* setValue = set->add_option("VALUE", a.value, "Name of the value; \"\": the default value");
    CLI::Option* data = set->add_option("DATA", a.registryValue.data, "Text, number, or bytes in hexadecimal");
    data->needs(const_cast<CLI::Option*>(setValue));
    a.registryValue.type = "sz";
    set->add_option("--type", a.registryValue.type, "sz, expand, multi, dword, qword, binary, none")
        ->check(CLI::IsMember({"sz", "expand", "multi", "dword", "qword", "binary", "none"}))
        ->capture_default_str();
    set->callback([&, setValue] {
        a.registryValue.name = WhenGiven(setValue, a.value);
        chosen = [&] { return RegSetCommand(a.registryValue); };
    });

    CLI::App* remove = reg->add_subcommand("delete", "Delete a value, or a key");
    remove->add_option("KEY", a.key, keyHelp)->required();
    const CLI::Option* removeValue = remove->add_option("VALUE", a.value, "Name of the value; \"\": the default value");
    remove->add_flag("--tree", a.tree, "The key with all keys below it");
    remove->callback([&, removeValue] {
        chosen = [&, removeValue] { return RegDeleteCommand(a.key, WhenGiven(removeValue, a.value), a.tree); };
    });

    CLI::App* importFile = reg->add_subcommand("import", "Take in a .reg file, wholly or not at all");
    importFile->add_option("FILE", a.file, "The file; - is standard input")->required();
    importFile->callback([&] { chosen = [&] { return RegImportCommand(a.file); }; });

    CLI::App* exportKey = reg->add_subcommand("export", "Write a key and all below it as a .reg file");
    exportKey->add_option("KEY", a.key, keyHelp)->required();
    exportKey->add_option("FILE", a.file, "The file; - is standard output")->capture_default_str();
    exportKey->callback([&] { chosen = [&] { return RegExportCommand(a.key, a.file); }; });
}

Exit Fail(const Failure& failure) {
    PrintError(failure);
    if (g_output.json) PrintJson({{"error", FailureJson(failure)}});
    return failure.exitCode;
}

// Asked before the parse, since that may fail before it comes to the option.
bool WantsJson(int argc, char** argv) {
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
        if (std::string_view(argv[i]) == "--json") return true;
    return false;
}

Exit Run(int argc, char** argv) {
    Arguments arguments;
    Command chosen;
    CLI::App app{"Reads and changes the status of monitored printers, and runs the product that keeps it.", "oriel"};
    app.set_version_flag("--version", ORIEL_VERSION);
    bool json = false; // known already: WantsJson
    app.add_flag("--json", json, "Results as JSON");
    app.require_subcommand(1);
    app.fallthrough();

    CLI::App* up = app.add_subcommand("up", "Start the product; Ctrl-C stops it. Exits with 1 when it is up already");
    up->add_flag("--quiet", arguments.up.quiet, "Only errors");
    up->add_flag("--demo-printer", arguments.up.demoPrinter,
                 "With a printer \"Demo printer\" whose device plays a script");
    up->callback([&] { chosen = [&] { return UpCommand(arguments.up); }; });
    CLI::App* status = app.add_subcommand("status", "Tell what is installed and what runs");
    status->callback([&] { chosen = [] { return StatusCommand(); }; });
    AddVariableCommands(app, arguments, chosen);
    AddWatchCommands(app, arguments, chosen);
    AddResultCommand(app, arguments, chosen);
    AddAuthorityCommands(app, arguments, chosen);
    AddJobCommands(app, arguments, chosen);
    AddPrinterCommands(app, arguments, chosen);
    AddNameCommands(app, arguments, chosen);
    AddRegistryCommands(app, arguments, chosen);
    app.footer(kExitCodes); // last, or the commands would inherit it

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& wanted) { // --help, --version
        app.exit(wanted);
        return Exit::Done;
    } catch (const CLI::ParseError& error) {
        std::string what = error.what();
        std::replace(what.begin(), what.end(), '\n', ' ');
        if (what.starts_with("A ") || what.starts_with("The ")) what[0] += 'a' - 'A';
        return Fail(UsageFailure(what, "'oriel --help' and 'oriel COMMAND --help' tell more"));
    }
    return chosen();
}

} // namespace

int main(int argc, char** argv) {
    Exit result = Exit::False;
    try {
        DetectColour();
        g_output.json = WantsJson(argc, argv);
        result = Run(argc, argv);
    } catch (const Failure& failure) {
        result = Fail(failure);
    } catch (const std::exception& error) {
        result = Fail({Exit::False, "unexpected failure", error.what(), ""});
    }
    if (OutputFailed() && result == Exit::Done) {
        PrintError({Exit::False, "the result could not be written to standard output", "", ""});
        result = Exit::False;
    }
    return static_cast<int>(result);
}
