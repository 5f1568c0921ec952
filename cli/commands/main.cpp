// The command line of `oriel`: its commands and their options. No state.
#include "base/command_line.h"
#include "base/opened_printer.h"
#include "base/output.h"
#include "base/text.h"
#include "commands/commands.h"
#include "commands/views.h"

#include <CLI/CLI.hpp>
#include <tvsqdz.h>

#include <algorithm>
#include <functional>

namespace {

using Command = std::function<Exit()>;

// Options of the commands; they live as long as the parse and the command.
struct Arguments {
    ManagerOptions manager;
    std::vector<std::string> names;
    NewValue newValue;
    WatchOptions watch;
    double timeoutSeconds = 0;
    std::string printer, driver, port = "FILE:", script, device;
    NewRegistryValue registryValue;
    std::string key, value, file = "-";
    PrintJob print;
    NewPort newPort;
    NewSetting newSetting;
    uint32_t request = 0;
    uint32_t job = 0;
    UpOptions up;
    bool recursive = false, tree = false, explain = false;
    std::vector<std::string> helpFor;
    CommonOptions common;
};

std::optional<std::string> WhenGiven(const CLI::Option* option, const std::string& value) {
    return option->count() ? std::optional(value) : std::nullopt;
}

void AddManagerOptions(CLI::App& command, ManagerOptions& options) {
    command.add_option("PRINTER", options.printer, "Name of the printer")->required();
    command.add_option("--kind", options.kind, "Client kind of the manager; 0, 7, 8, 9 and 10 need a running product")
        ->check(CLI::Range(0, TVS_KIND_HIGHEST))
        ->capture_default_str();
    command.add_option("--user", options.user, "The user for whom the manager works (default: you)");
}

void AddVariableCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* vars = app.add_subcommand("vars", "Show the variables of a printer");
    AddManagerOptions(*vars, a.manager);
    vars->add_option("PATTERN", a.names, "Show only names that match; * and ? work as in a shell");
    vars->add_flag("--hex", a.manager.hex, "Show values as hexadecimal bytes");
    vars->callback([&] { chosen = [&] { return VarsCommand(a.manager, a.names); }; });

    CLI::App* get = app.add_subcommand("get", "Show the values of variables. Reading a queue removes its oldest item");
    AddManagerOptions(*get, a.manager);
    get->add_option("VARIABLE", a.names, "Names of variables")->required();
    get->add_flag("--hex", a.manager.hex, "Show values as hexadecimal bytes");
    get->add_flag("--direct", a.manager.direct, "Ask the printer itself, where the variable allows that");
    get->callback([&] { chosen = [&] { return GetCommand(a.manager, a.names); }; });

    CLI::App* info = app.add_subcommand("info", "Show when variables were last written, in UTC");
    AddManagerOptions(*info, a.manager);
    info->add_option("VARIABLE", a.names, "Names of variables")->required();
    info->callback([&] { chosen = [&] { return InfoCommand(a.manager, a.names); }; });

    CLI::App* set =
        app.add_subcommand("set", "Store a value: a number, text, or FIELD=VALUE for a record (other fields "
                                  "keep their values)");
    AddManagerOptions(*set, a.manager);
    set->add_option("VARIABLE", a.newValue.variable, "Name of the variable")->required();
    set->add_option("VALUE", a.newValue.words,
                    "A decimal or 0x number, \"unknown\", text, or FIELD=VALUE ...; put -- before a value that starts "
                    "with -");
    const CLI::Option* hex = set->add_option("--hex", a.value, "The value as hexadecimal bytes: \"01 02 ff\"");
    const CLI::Option* file = set->add_option("--file", a.file, "Take the value from a file; - is standard input");
    set->add_flag("--direct", a.manager.direct, "Send to the printer and wait");
    CLI::Option* asynchronous = set->add_flag(
        "--async", a.newValue.asynchronous,
        "Send a request to the printer: print its number, end when it has been carried out, and leave the "
        "result to 'oriel result'");
    set->add_flag("--wait", a.newValue.wait, "With --async: also take the result")->needs(asynchronous);
    set->callback([&, hex, file] {
        a.newValue.hex = WhenGiven(hex, a.value);
        a.newValue.file = WhenGiven(file, a.file);
        chosen = [&] { return SetCommand(a.manager, a.newValue); };
    });
}

void AddWatchCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* watch =
        app.add_subcommand("watch", "Print the values of variables and each change as it happens, until Ctrl-C");
    AddManagerOptions(*watch, a.manager);
    watch->add_option("VARIABLE", a.watch.variables,
                      "Names of variables (default: those of --until, or all that can be watched)");
    watch->add_flag("--hex", a.manager.hex, "Show values as hexadecimal bytes");
    watch
        ->add_option(
            "--until", a.watch.until,
            "End with 0 when this holds: NAME or NAME.FIELD, one of = != < <= > >= & (any of these bits), and a value "
            "or \"unknown\". If given more than once, all must hold")
        ->allow_extra_args(false);
    const CLI::Option* timeout = watch->add_option("--timeout", a.timeoutSeconds, "End with 5 after this many seconds")
                                     ->check(CLI::Range(0.0, 1e6));
    const std::map<std::string, DeliveredBy> forms = {
        {"event", DeliveredBy::Event}, {"message", DeliveredBy::Message}, {"callback", DeliveredBy::Callback}};
    watch->add_option("--by", a.watch.by, "How the library reports changes: event, message or callback")
        ->transform(CLI::CheckedTransformer(forms))
        ->default_str("event");
    watch->callback([&, timeout] {
        if (timeout->count()) a.watch.timeoutMs = static_cast<uint32_t>(a.timeoutSeconds * 1000);
        chosen = [&] { return WatchCommand(a.manager, a.watch); };
    });

    CLI::App* terminate = app.add_subcommand(
        "terminate", "Ask all managers on the machine to shut down, and the product's windows to close");
    AddManagerOptions(*terminate, a.manager);
    terminate->callback([&] { chosen = [&] { return TerminateCommand(a.manager); }; });
}

void AddResultCommand(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* result =
        app.add_subcommand("result", "Take the result of a request made by 'set --async'; each can be taken once");
    AddManagerOptions(*result, a.manager);
    result->add_option("REQUEST", a.request, "Number of the request")->required();
    result->callback([&] { chosen = [&] { return ResultCommand(a.manager, a.request); }; });
}

void AddAuthorityCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* authority = app.add_subcommand("authority", "Show what you may do with a printer");
    AddManagerOptions(*authority, a.manager);
    authority->add_flag("--explain", a.explain,
                        "Also show which entry of the access control list gave or denied each right");
    authority->callback([&] { chosen = [&] { return AuthorityCommand(a.manager, a.explain); }; });

    CLI::App* acl = app.add_subcommand("acl", "Show or replace the access control list of a printer");
    acl->require_subcommand(1);
    CLI::App* show = acl->add_subcommand("show", "Show the list as SDDL text");
    AddManagerOptions(*show, a.manager);
    show->callback([&] { chosen = [&] { return AclShowCommand(a.manager); }; });
    CLI::App* set = acl->add_subcommand("set", "Replace the list");
    AddManagerOptions(*set, a.manager);
    set->add_option("TEXT", a.value, "SDDL text, in which accounts may be names: D:(A;;SWRC;;;WD)(D;;0x10;;;NAME) ...")
        ->required();
    set->callback([&] { chosen = [&] { return AclSetCommand(a.manager, a.value); }; });
}

void AddJobCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* jobs = app.add_subcommand("jobs", "Show the jobs of a printer, in the spooler and in its own queues");
    AddManagerOptions(*jobs, a.manager);
    jobs->callback([&] { chosen = [&] { return JobsCommand(a.manager); }; });

    for (const bool pause : {true, false}) {
        CLI::App* command = pause ? app.add_subcommand("pause", "Pause the job that is being sent to a printer")
                                  : app.add_subcommand("resume", "Resume the job that is being sent to a printer");
        AddManagerOptions(*command, a.manager);
        command->callback([&, pause] { chosen = [&, pause] { return SetJobCommand(a.manager, pause); }; });
    }

    CLI::App* cancel = app.add_subcommand("cancel", "Cancel a job of a printer");
    AddManagerOptions(*cancel, a.manager);
    cancel->add_option("JOB", a.job, "Number of the job, as 'jobs' shows it")->required();
    cancel->callback([&] { chosen = [&] { return CancelCommand(a.manager, a.job); }; });

    CLI::App* print = app.add_subcommand("print", "Spool a document and print its job number");
    print->add_option("PRINTER", a.print.printer, "Name of the printer")->required();
    print->add_option("FILE", a.print.file, "The document; - is standard input")->capture_default_str();
    print->add_option("--title", a.print.title, "Title of the job (default: the name of the file)");
    print->add_flag("--held", a.print.held, "Pause the job before it can print");
    print->callback([&] { chosen = [&] { return PrintCommand(a.print); }; });
}

void AddNameCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* rename = app.add_subcommand("rename", "Rename a printer everywhere");
    AddManagerOptions(*rename, a.manager);
    rename->add_option("NEW", a.value, "The new name")->required();
    rename->callback([&] { chosen = [&] { return RenameCommand(a.manager, a.value); }; });

    CLI::App* port = app.add_subcommand("port", "Show the port of a printer, or change it");
    AddManagerOptions(*port, a.manager);
    CLI::Option* kind =
        port->add_option("KIND", a.newPort.kind, "Bits, as a number; 8: the port takes no direct requests");
    CLI::Option* name = port->add_option("NAME", a.newPort.name, "Name of the port");
    port->add_option("DETAIL", a.newPort.detail, "More about the port");
    kind->needs(name);
    port->callback([&, kind] {
        chosen = [&, kind] { return PortCommand(a.manager, kind->count() ? std::optional(a.newPort) : std::nullopt); };
    });
}

void AddPrinterCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* open = app.add_subcommand("open", "Open a printer and close it again, which creates its variables");
    open->group(""); // only for 'up'
    AddManagerOptions(*open, a.manager);
    open->add_option("--access-list", a.value, "The access control list of a printer that has none");
    open->callback([&] { chosen = [&] { return OpenCommand(a.manager, a.value); }; });

    CLI::App* printers = app.add_subcommand("printers", "Show the printers, or add and remove one");
    printers->require_subcommand(0, 1);
    printers->callback([&] {
        if (!chosen) chosen = [] { return PrintersCommand(); };
    });

    CLI::App* add = printers->add_subcommand("add", "Add a printer to the spooler and the registry");
    add->add_option("NAME", a.printer, "Name of the printer")->required();
    add->add_option("--driver", a.driver, "Name of the driver, which is also the model; not needed with --device");
    add->add_option("--port", a.port, "Name of the port")->capture_default_str();
    const CLI::Option* script =
        add->add_option("--script", a.script, "Script of the printer; 'oriel up' starts a printer side that plays it");
    const CLI::Option* device = add->add_option(
        "--device", a.device,
        "Address of the printer: ipp://HOST/PATH, ipps://HOST/PATH, snmp://HOST, cups:QUEUE; it is tried first");
    add->callback([&, script, device] {
        chosen = [&, script, device] {
            return AddPrinterCommand(
                {a.printer, a.driver, a.port, WhenGiven(script, a.script), WhenGiven(device, a.device)});
        };
    });

    CLI::App* discover = printers->add_subcommand(
        "discover", "Look for printers for some seconds: the print server's queues, and what announces itself");
    discover->callback([&] { chosen = [] { return DiscoverCommand(); }; });

    CLI::App* remove = printers->add_subcommand(
        "remove",
        "Remove a printer and the stored copies of its variables. The service keeps its database until it ends");
    remove->add_option("NAME", a.printer, "Name of the printer")->required();
    remove->callback([&] { chosen = [&] { return RemovePrinterCommand(a.printer); }; });
}

void AddRegistryCommands(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* reg = app.add_subcommand("reg", "Read and change the registry");
    reg->require_subcommand(1);
    const char* keyHelp = "HKLM\\... or HKCU\\...";

    CLI::App* query = reg->add_subcommand("query", "Show a key, or one of its values");
    query->add_option("KEY", a.key, keyHelp)->required();
    const CLI::Option* queryValue = query->add_option("VALUE", a.value, "Name of the value; \"\": the default value");
    query->add_flag("-r,--recursive", a.recursive, "Show all keys below it too");
    query->callback([&, queryValue] {
        chosen = [&, queryValue] { return RegQueryCommand(a.key, WhenGiven(queryValue, a.value), a.recursive); };
    });

    CLI::App* set = reg->add_subcommand("set", "Write a value; a missing key is created");
    set->add_option("KEY", a.registryValue.key, keyHelp)->required();
    const CLI::Option* setValue = set->add_option("VALUE", a.value, "Name of the value; \"\": the default value");
    CLI::Option* data = set->add_option("DATA", a.registryValue.data, "Text, a number, or hexadecimal bytes");
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
    remove->add_flag("--tree", a.tree, "Delete the key with all keys below it");
    remove->callback([&, removeValue] {
        chosen = [&, removeValue] { return RegDeleteCommand(a.key, WhenGiven(removeValue, a.value), a.tree); };
    });

    CLI::App* importFile = reg->add_subcommand("import", "Import a .reg file, all of it or nothing");
    importFile->add_option("FILE", a.file, "The file; - is standard input")->required();
    importFile->callback([&] { chosen = [&] { return RegImportCommand(a.file); }; });

    CLI::App* exportKey = reg->add_subcommand("export", "Write a key and everything below it as a .reg file");
    exportKey->add_option("KEY", a.key, keyHelp)->required();
    exportKey->add_option("FILE", a.file, "The file; - is standard output")->capture_default_str();
    exportKey->callback([&] { chosen = [&] { return RegExportCommand(a.key, a.file); }; });
}

void AddConfigCommand(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* config = app.add_subcommand("config", "Show the settings of the product, or change one");
    config->add_option("NAME", a.newSetting.name, "Name of the setting (default: all are shown)");
    config->add_option("VALUE", a.newSetting.words,
                       "The new value: a number, or for Views the command lines, each as one word");
    config->add_flag("--add", a.newSetting.add, "Add to the list instead of replacing it");
    config->add_flag("--default", a.newSetting.remove, "Remove the value, so that the default counts");
    config->callback([&] { chosen = [&] { return ConfigCommand(a.newSetting); }; });
}

// ---- help, and command lines that cannot be parsed

std::vector<std::string> CommandNames(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::App* below : command.get_subcommands([](const CLI::App*) { return true; }))
        if (!below->get_group().empty()) names.push_back(below->get_name());
    return names;
}

[[noreturn]] void ThrowNoSuchCommand(const CLI::App& command, const std::string& word) {
    const std::string inside = command.get_parent() == nullptr ? "" : " of '" + command.get_name() + "'";
    const std::string nearest = Nearest(word, CommandNames(command));
    throw UsageFailure("there is no command \"" + word + "\"" + inside,
                       nearest.empty() ? "'oriel --help' lists the commands" : "did you mean \"" + nearest + "\"?");
}

// The command that the words name; further words are its arguments. Throws Failure when a word should be a command and
// is not.
CLI::App& FindCommand(CLI::App& app, const std::vector<std::string>& words) {
    CLI::App* command = &app;
    for (const std::string& word : words) {
        if (CommandNames(*command).empty()) break;
        const auto below = command->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
        if (below.empty()) ThrowNoSuchCommand(*command, word);
        command = below.front();
    }
    return *command;
}

// "oriel reg set"; empty for none.
std::string PathOf(const CLI::App* command) {
    if (command == nullptr) return "";
    const std::string above = PathOf(command->get_parent());
    return above.empty() ? command->get_name() : above + " " + command->get_name();
}

void AddHelpCommand(CLI::App& app, Arguments& a, Command& chosen) {
    CLI::App* help = app.add_subcommand("help", "Show the help of a command");
    help->add_option("COMMAND", a.helpFor, "The command (default: all of them in short)");
    help->callback([&] {
        chosen = [&] {
            const View* view = a.helpFor.empty() ? nullptr : FindView(a.helpFor.front());
            if (view != nullptr) BecomeView(*view, {"--help"});
            const CLI::App& command = FindCommand(app, a.helpFor);
            // Not by help(), which on a parsed command shows the help of the command below it.
            const std::string path = PathOf(&command);
            const std::string text = command.get_formatter()->make_help(&command, path, CLI::AppFormatMode::Normal);
            if (g_output.json)
                PrintJson({{"help", text}});
            else
                PrintText(text);
            return Exit::Done;
        };
    });
}

// For the help; FindViewIn takes their command lines. Those that are not installed are not listed.
void AddViews(CLI::App& app) {
    for (const View& view : Views()) {
        CLI::App* command = app.add_subcommand(view.name, view.purpose);
        if (!IsInstalled(view)) command->group("");
    }
}

// The words of a command line that are not options. Values of options count too; they come after the command.
std::vector<std::string> Words(int argc, char** argv) {
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--scope") ++i;
        if (!word.starts_with('-')) words.push_back(word);
    }
    return words;
}

// Runs the view that is the first word of the command line, if one is, with all the others.
void BecomeViewIn(int argc, char** argv) {
    const std::vector<std::string> words = Words(argc, argv);
    const View* view = words.empty() ? nullptr : FindView(words.front());
    if (view == nullptr) return;
    std::vector<std::string> arguments(argv + 1, argv + argc);
    arguments.erase(std::find(arguments.begin(), arguments.end(), words.front()));
    BecomeView(*view, arguments);
}

Exit Run(int argc, char** argv) {
    Arguments arguments;
    Command chosen;
    CLI::App app{"Reads and changes the status of monitored printers, and runs the product that keeps it.", "oriel"};
    app.set_version_flag("--version", ORIEL_VERSION);
    app.require_subcommand(1);
    app.fallthrough();

    CLI::App* up = app.add_subcommand("up", "Start the product; Ctrl-C stops it. Ends with 1 if it is already up");
    up->add_flag("--quiet", arguments.up.quiet, "Print only errors");
    up->add_flag("--demo-printer", arguments.up.demoPrinter,
                 "Add a printer \"Demo printer\" whose device plays a script");
    up->callback([&] { chosen = [&] { return UpCommand(arguments.up); }; });
    CLI::App* status = app.add_subcommand("status", "Show what is installed and what runs");
    status->callback([&] { chosen = [] { return StatusCommand(); }; });
    CLI::App* doctor = app.add_subcommand("doctor", "Find out why a printer is not watched or does not print");
    doctor->add_option("PRINTER", arguments.printer, "Name of the printer (default: all)");
    doctor->callback([&] { chosen = [&] { return DoctorCommand(arguments.printer); }; });
    AddVariableCommands(app, arguments, chosen);
    AddWatchCommands(app, arguments, chosen);
    AddResultCommand(app, arguments, chosen);
    AddAuthorityCommands(app, arguments, chosen);
    AddJobCommands(app, arguments, chosen);
    AddPrinterCommands(app, arguments, chosen);
    AddNameCommands(app, arguments, chosen);
    AddRegistryCommands(app, arguments, chosen);
    AddConfigCommand(app, arguments, chosen);
    AddViews(app);
    AddHelpCommand(app, arguments, chosen);
    AddCommonOptions(app, arguments.common);
    app.footer(kExitCodes); // last: commands inherit it otherwise

    if (!Parse(app, argc, argv, arguments.common, [&] { return PathOf(&FindCommand(app, Words(argc, argv))); }))
        return Exit::Done;
    return chosen();
}

} // namespace

int main(int argc, char** argv) {
    return RunAndReport(argc, argv, [&] {
        BecomeViewIn(argc, argv);
        const std::vector<std::string> words = Words(argc, argv);
        g_output.stream = !words.empty() && (words.front() == "up" || words.front() == "watch");
        return Run(argc, argv);
    });
}
