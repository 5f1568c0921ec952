// The printers as a list on the screen: what is shown of each, in which order, and which is chosen. State: the
// object's.
#pragma once

#include "model/summary.h"

#include <set>

namespace views {

enum class Order { Severity, Name, Jobs, Pages, Supplies };
inline constexpr int kOrders = 5;
const char* NameOf(Order order);

struct Row {
    PrinterKey key;
    const Printer* printer; // of the source
    Summary summary;
};

class Rows {
public:
    // Takes over what has changed.
    void Update(const Printers& printers, const std::vector<Change>& changes);

    void SetFilter(const std::string& text);
    const std::string& Filter() const { return m_filter; }
    void SetOrder(Order order);
    Order ShownOrder() const { return m_order; }

    // Those that match the filter, in order.
    const std::vector<const Row*>& Shown();
    // The place of the chosen one in Shown(); 0 when there is none. It stays chosen when the order changes.
    size_t Chosen();
    void Choose(size_t place);

    struct Counts {
        size_t all = 0, errors = 0, warnings = 0, stale = 0;
    };
    Counts Count() const;
    size_t Machines() const;

private:
    void Arrange();

    std::map<PrinterKey, Row> m_rows;
    std::vector<const Row*> m_shown;
    bool m_arranged = false;
    std::string m_filter;
    Order m_order = Order::Severity;
    PrinterKey m_chosen;
};

// The lowest percentage; 101 without one.
int LowestSupply(const Summary& summary);

} // namespace views
