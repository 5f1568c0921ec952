// The list. State: the object's.
#include "top/rows.h"

#include <algorithm>
#include <strings.h>

namespace views {

namespace {

bool HasText(std::string_view text, std::string_view part) {
    const auto same = [](char a, char b) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
        return lower(a) == lower(b);
    };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

bool Matches(const Row& row, const std::string& filter) {
    for (const std::string* text : {&row.key.second, &row.key.first, &row.summary.state, &row.printer->device,
                                    &row.printer->driver, &row.printer->trouble})
        if (HasText(*text, filter)) return true;
    return false;
}

// Negative: a stands before b. The name decides where this is 0.
int Compare(Order order, const Row& a, const Row& b) {
    switch (order) {
    case Order::Severity:
        return static_cast<int>(b.summary.severity) - static_cast<int>(a.summary.severity);
    case Order::Name:
        return 0;
    case Order::Jobs:
        return static_cast<int>(b.summary.jobs.size()) - static_cast<int>(a.summary.jobs.size());
    case Order::Pages: {
        const uint32_t left = a.summary.pages.value_or(0), right = b.summary.pages.value_or(0);
        return left == right ? 0 : left > right ? -1 : 1;
    }
    case Order::Supplies:
        return LowestSupply(a.summary) - LowestSupply(b.summary);
    }
    return 0;
}

} // namespace

const char* NameOf(Order order) {
    switch (order) {
    case Order::Severity:
        return "attention";
    case Order::Name:
        return "name";
    case Order::Jobs:
        return "jobs";
    case Order::Pages:
        return "pages";
    case Order::Supplies:
        return "supplies";
    }
    return "";
}

int LowestSupply(const Summary& summary) {
    int lowest = 101;
    for (const Supply& supply : summary.supplies)
        if (supply.percent >= 0) lowest = std::min(lowest, supply.percent);
    return lowest;
}

void Rows::Update(const Printers& printers, const std::vector<Change>& changes) {
    std::set<PrinterKey> changed;
    bool all = false;
    for (const Change& change : changes) {
        changed.insert({change.machine, change.printer});
        all |= change.printer.empty();
    }
    if (all || m_rows.empty())
        for (const auto& [key, printer] : printers)
            changed.insert(key);
    std::erase_if(m_rows, [&](const auto& row) { return !printers.contains(row.first); });
    for (const PrinterKey& key : changed)
        if (const auto printer = printers.find(key); printer != printers.end())
            m_rows[key] = {key, &printer->second, SummaryOf(printer->second)};
    m_arranged = m_arranged && changed.empty();
}

void Rows::SetFilter(const std::string& text) {
    m_filter = text;
    m_arranged = false;
}

void Rows::SetOrder(Order order) {
    m_order = order;
    m_arranged = false;
}

void Rows::Arrange() {
    m_shown.clear();
    for (const auto& [key, row] : m_rows)
        if (Matches(row, m_filter)) m_shown.push_back(&row);
    std::stable_sort(m_shown.begin(), m_shown.end(), [this](const Row* a, const Row* b) {
        if (const int order = Compare(m_order, *a, *b); order != 0) return order < 0;
        const int names = strcasecmp(a->key.second.c_str(), b->key.second.c_str());
        return names != 0 ? names < 0 : a->key < b->key;
    });
    m_arranged = true;
}

const std::vector<const Row*>& Rows::Shown() {
    if (!m_arranged) Arrange();
    return m_shown;
}

size_t Rows::Chosen() {
    const std::vector<const Row*>& shown = Shown();
    const auto chosen = std::find_if(shown.begin(), shown.end(), [&](const Row* row) { return row->key == m_chosen; });
    return chosen == shown.end() ? 0 : static_cast<size_t>(chosen - shown.begin());
}

void Rows::Choose(size_t place) {
    const std::vector<const Row*>& shown = Shown();
    if (!shown.empty()) m_chosen = shown[std::min(place, shown.size() - 1)]->key;
}

Rows::Counts Rows::Count() const {
    Counts counts{.all = m_rows.size()};
    for (const auto& [key, row] : m_rows) {
        counts.errors += row.summary.severity == product::Severity::Error;
        counts.warnings += row.summary.severity == product::Severity::Warning;
        counts.stale += row.printer->stale;
    }
    return counts;
}

size_t Rows::Machines() const {
    std::set<std::string_view> machines;
    for (const auto& [key, row] : m_rows)
        machines.insert(key.first);
    return machines.size();
}

} // namespace views
