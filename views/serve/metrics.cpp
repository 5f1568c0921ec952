// Metrics. No state.
#include "serve/metrics.h"

#include "product/meanings.h"

#include <cstdio>

namespace views {

namespace {

constexpr size_t kFieldsMost = 8; // numbers of one value

// A metric with its samples: lines of one name must stand together.
struct Metric {
    const char* name;
    const char* type;
    const char* help;
    std::string samples{};
};

std::string LabelText(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '"') escaped += '\\';
        if (c == '\n')
            escaped += "\\n";
        else
            escaped += c;
    }
    return escaped;
}

std::string NumberText(double number) {
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", number);
    return text;
}

// labels: "a=\"b\",c=\"d\"".
void Add(Metric& metric, const std::string& labels, double number) {
    metric.samples += metric.name;
    if (!labels.empty()) metric.samples += "{" + labels + "}";
    metric.samples += " " + NumberText(number) + "\n";
}

std::string Label(const char* name, std::string_view value) {
    return std::string(name) + "=\"" + LabelText(value) + "\"";
}

struct Metrics {
    Metric up{"oriel_printer_up", "gauge", "1 while the values of the printer are sure, 0 while they are stale."};
    Metric severity{"oriel_printer_severity", "gauge", "0 nothing, 1 for information, 2 warning, 3 error."};
    Metric state{"oriel_printer_state", "gauge", "1 for the printer's present state, named by the label."};
    Metric answer{"oriel_printer_answer_age_seconds", "gauge", "Time since the printer's device last answered."};
    Metric supply{"oriel_supply_level_ratio", "gauge", "What is left of a supply, from 0 to 1."};
    Metric waiting{"oriel_printer_jobs_waiting", "gauge", "Jobs in the printer and its spooler."};
    Metric jobs{"oriel_printer_jobs_total", "counter", "Jobs that came since the server began."};
    Metric notifications{"oriel_printer_notifications_total", "counter",
                         "Changes of the printer's variables since the server began."};
    Metric value{"oriel_variable_value", "gauge", "A number of the variable's value."};
    Metric age{"oriel_variable_age_seconds", "gauge", "Time since the variable was last written."};
    Metric writes{"oriel_variable_writes_total", "counter", "Writes of the variable since the service was started."};
    Metric machine{"oriel_machine_connected", "gauge", "1 while the printers of the machine can be read."};
    Metric connections{"oriel_serve_connections", "gauge", "Open connections to this server."};
    Metric readers{"oriel_serve_event_readers", "gauge", "Readers of /events."};
    Metric refused{"oriel_serve_requests_refused_total", "counter", "Requests that were answered with an error."};
};

void AddNumber(Metrics& metrics, const std::string& labels, const std::string& field, const Json& value) {
    if (value.is_number()) Add(metrics.value, labels + "," + Label("field", field), value.get<double>());
}

void AddValue(Metrics& metrics, const std::string& labels, const Value& value) {
    // What the library composes repeats its parts.
    const bool composed = value.origin == product::NameOf(product::Origin::Library);
    AddNumber(metrics, labels, "", value.json);
    if (composed || !value.json.is_structured() || value.json.size() > kFieldsMost) return;
    for (const auto& [field, part] : value.json.items())
        AddNumber(metrics, labels, field, part);
}

void AddPrinter(Metrics& metrics, const BoardEntry& entry, int64_t now) {
    const Printer& printer = entry.printer;
    const Summary& summary = entry.summary;
    const std::string labels = Label("machine", printer.machine) + "," + Label("printer", printer.name);
    Add(metrics.up, labels, !printer.stale);
    Add(metrics.severity, labels, static_cast<double>(summary.severity));
    Add(metrics.state, labels + "," + Label("state", summary.state), 1);
    if (printer.answeredMs > 0) Add(metrics.answer, labels, static_cast<double>(now - printer.answeredMs) / 1000);
    for (size_t i = 0; i < summary.supplies.size(); ++i) {
        const Supply& supply = summary.supplies[i];
        // Two supplies may have one name.
        if (supply.percent >= 0)
            Add(metrics.supply,
                labels + "," + Label("supply", supply.name) + "," + Label("number", std::to_string(i + 1)),
                supply.percent / 100.0);
    }
    Add(metrics.waiting, labels, static_cast<double>(summary.jobs.size()));
    Add(metrics.jobs, labels, static_cast<double>(entry.jobs));
    Add(metrics.notifications, labels, static_cast<double>(entry.notifications));
    for (const auto& [name, value] : printer.values) {
        const std::string ofVariable = labels + "," + Label("variable", name);
        AddValue(metrics, ofVariable, value);
        if (value.writtenMs > 0) Add(metrics.age, ofVariable, static_cast<double>(now - value.writtenMs) / 1000);
        Add(metrics.writes, ofVariable, static_cast<double>(value.writes));
    }
}

} // namespace

std::string MetricsDocument(const Board& board, const ServerCounts& counts) {
    Metrics metrics;
    const int64_t now = NowMs();
    board.Look([&](const Board::Entries& entries, const Board::Machines& machines) {
        for (const auto& [key, entry] : entries)
            AddPrinter(metrics, entry, now);
        for (const auto& [name, machine] : machines)
            Add(metrics.machine, Label("machine", name), machine.connected);
    });
    Add(metrics.connections, "", static_cast<double>(counts.connections));
    Add(metrics.readers, "", static_cast<double>(counts.readers));
    Add(metrics.refused, "", static_cast<double>(counts.refused));
    std::string text;
    for (const Metric* metric :
         {&metrics.up, &metrics.severity, &metrics.state, &metrics.answer, &metrics.supply, &metrics.waiting,
          &metrics.jobs, &metrics.notifications, &metrics.value, &metrics.age, &metrics.writes, &metrics.machine,
          &metrics.connections, &metrics.readers, &metrics.refused}) {
        if (metric->samples.empty()) continue;
        text += std::string("# HELP ") + metric->name + " " + metric->help + "\n# TYPE " + metric->name + " " +
                metric->type + "\n" + metric->samples;
    }
    return text;
}

} // namespace views
