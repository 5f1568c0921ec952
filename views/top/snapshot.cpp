// Snapshots. No state.
#include "top/snapshot.h"

#include "base/text.h"

namespace views {

std::string SuppliesText(const Summary& summary) {
    std::string text;
    for (const Supply& supply : summary.supplies)
        text += (text.empty() ? "" : ", ") + supply.name + " " +
                (supply.percent < 0 ? "?" : std::to_string(supply.percent) + " %");
    return text;
}

std::string StateText(const Row& row) {
    const Printer& printer = *row.printer;
    if (!printer.stale) return row.summary.state;
    return row.summary.state + " (not sure" + (printer.trouble.empty() ? "" : ": " + printer.trouble) + ")";
}

void PrintSnapshot(Rows& rows) {
    if (g_output.json) {
        Json printers = Json::array();
        for (const Row* row : rows.Shown())
            printers.push_back(SummaryJson(*row->printer, row->summary));
        return PrintJson({{"printers", printers}});
    }
    const bool machines = rows.Machines() > 1;
    Table table{{{"PRINTER", "SEVERITY", "JOBS", "PAGES", "SUPPLIES", "STATE"}}};
    if (machines) table.rows[0].insert(table.rows[0].begin() + 1, "MACHINE");
    for (const Row* row : rows.Shown()) {
        const Summary& summary = row->summary;
        table.rows.push_back({row->key.second, product::NameOf(summary.severity), std::to_string(summary.jobs.size()),
                              summary.pages ? std::to_string(*summary.pages) : "-", SuppliesText(summary),
                              StateText(*row)});
        for (std::string& cell : table.rows.back())
            cell = cell.empty() ? "-" : Printable(cell);
        if (machines) table.rows.back().insert(table.rows.back().begin() + 1, Printable(row->key.first));
    }
    if (table.rows.size() > 1)
        table.Print();
    else
        PrintLine(rows.Filter().empty() ? "no printers" : "no printer matches");
}

} // namespace views
