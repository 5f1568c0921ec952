// The board: 1 taking over changes, 2 the day behind, 3 events, 4 documents. State: the object's.
#include "serve/board.h"

#include "model/times.h"

#include "product/meanings.h"

#include <algorithm>
#include <charconv>
#include <random>

namespace views {

namespace {

constexpr size_t kChangesKept = 1000;
constexpr size_t kChangesTold = 50; // in one message: the latest
constexpr size_t kRemovedKept = 1000;
constexpr size_t kMessageSize = 256 << 10; // about: a message ends after the printer that reaches it
constexpr int64_t kDayMs = 24 * 3600 * 1000;
constexpr size_t kSpansMost = 200000; // of all printers
constexpr size_t kSpansOfPrinter = 2000;
constexpr size_t kSpansLeast = 20;

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string NewRun() {
    std::random_device random;
    const uint64_t number = uint64_t{random()} << 32 | random();
    return std::to_string(number);
}

Json ChangeJson(const Change& change) {
    Json json{{"kind", NameOf(change.kind)},
              {"at", UtcText(change.atMs)},
              {"machine", change.machine},
              {"printer", change.printer},
              {"variable", change.variable}};
    for (const auto& [key, value] : {std::pair("before", &change.before), std::pair("after", &change.after)})
        if (*value)
            json[key] = {{"text", (*value)->text},
                         {"meaning", (*value)->meaning},
                         {"severity", product::NameOf((*value)->severity)}};
    if (change.missed) json["missed"] = change.missed;
    return json;
}

} // namespace

// ---- 1 taking over changes

Board::Board() : m_run(NewRun()), m_beganMs(NowMs()) {}

bool Board::Update(const Printers& printers, const std::vector<Change>& changes) {
    const std::lock_guard hold(m_lock);
    const uint64_t before = m_number;
    for (const Change& change : changes)
        Apply(printers, change);
    Sync(printers);
    std::sort(m_dirty.begin(), m_dirty.end());
    m_dirty.erase(std::unique(m_dirty.begin(), m_dirty.end()), m_dirty.end());
    for (const PrinterKey& key : m_dirty)
        if (const auto entry = m_entries.find(key); entry != m_entries.end()) Refresh(entry->second);
    m_dirty.clear();
    return m_number != before;
}

void Board::Apply(const Printers& printers, const Change& change) {
    const PrinterKey key{change.machine, change.printer};
    const auto now = printers.find(key);
    const auto entry = m_entries.find(key);
    switch (change.kind) {
    case ChangeKind::Value:
        if (entry == m_entries.end() || !change.after) break;
        entry->second.printer.values[change.variable] = *change.after;
        entry->second.notifications += 1 + change.missed;
        m_dirty.push_back(key);
        break;
    case ChangeKind::PrinterAdded:
    case ChangeKind::Stale:
    case ChangeKind::Fresh:
        if (now != printers.end()) Take(now->second);
        break;
    case ChangeKind::PrinterRemoved:
        Drop(key);
        break;
    case ChangeKind::Gap:
        Replace(printers, change.machine);
        break;
    case ChangeKind::Connected:
    case ChangeKind::Disconnected:
        m_machines[change.machine] = {change.kind == ChangeKind::Connected, change.atMs};
        m_machinesNumber = ++m_number;
        Replace(printers, change.machine);
        break;
    }
    Remember(change);
}

// What changes without a change: when the device answered.
void Board::Sync(const Printers& printers) {
    auto entry = m_entries.begin();
    for (const auto& [key, printer] : printers) {
        while (entry != m_entries.end() && entry->first < key)
            ++entry;
        if (entry == m_entries.end()) return;
        if (entry->first == key) entry->second.printer.answeredMs = printer.answeredMs;
    }
}

// What changed is not known: takes all printers of a machine anew.
void Board::Replace(const Printers& printers, const std::string& machine) {
    std::vector<PrinterKey> gone;
    for (const auto& [key, entry] : m_entries)
        if (key.first == machine && !printers.contains(key)) gone.push_back(key);
    for (const PrinterKey& key : gone)
        Drop(key);
    for (const auto& [key, printer] : printers)
        if (key.first == machine) Take(printer);
}

void Board::Take(const Printer& printer) {
    const PrinterKey key{printer.machine, printer.name};
    const auto [entry, isNew] = m_entries.try_emplace(key);
    entry->second.printer = printer;
    m_dirty.push_back(key);
    if (!isNew) return;
    if (const auto past = m_past.spans.extract(key)) entry->second.spans = past.mapped();
    for (auto removed = m_removed.begin(); removed != m_removed.end();)
        removed = removed->second == key ? m_removed.erase(removed) : std::next(removed);
}

void Board::Drop(const PrinterKey& key) {
    const auto entry = m_entries.find(key);
    if (entry == m_entries.end()) return;
    m_order.erase(entry->second.number);
    m_entries.erase(entry);
    m_removed[++m_number] = key;
    if (m_removed.size() <= kRemovedKept) return;
    m_forgotten = m_removed.begin()->first;
    m_removed.erase(m_removed.begin());
}

void Board::Remember(const Change& change) {
    // What the library composes repeats its parts.
    if (change.after && change.after->origin == product::NameOf(product::Origin::Library)) return;
    m_changes.push_back({++m_number, Dump(ChangeJson(change))});
    if (m_changes.size() > kChangesKept) m_changes.pop_front();
}

void Board::Refresh(BoardEntry& entry) {
    Summary summary = SummaryOf(entry.printer);
    std::string json = Dump(SummaryJson(entry.printer, summary));
    if (json == entry.json) return;
    for (const Job& job : summary.jobs)
        entry.jobs += std::none_of(entry.summary.jobs.begin(), entry.summary.jobs.end(),
                                   [&](const Job& each) { return each.id == job.id; });
    entry.summary = std::move(summary);
    entry.json = std::move(json);
    m_order.erase(entry.number);
    entry.number = ++m_number;
    m_order[entry.number] = {entry.printer.machine, entry.printer.name};
    AddSpan(entry);
}

// ---- 2 the day behind

Span SpanOf(const Printer& printer, const Summary& summary, int64_t fromMs) {
    return {fromMs, summary.severity, printer.stale, summary.state};
}

void Board::SetPast(Past past) {
    const std::lock_guard hold(m_lock);
    m_past = std::move(past);
    if (m_past.beganMs > 0) m_beganMs = std::min(m_beganMs, m_past.beganMs);
}

void Board::AddTo(std::deque<Span>& spans, const Span& span) {
    while (!spans.empty() && spans.back().fromMs >= span.fromMs)
        spans.pop_back();
    if (!spans.empty()) {
        const Span& last = spans.back();
        if (last.severity == span.severity && last.stale == span.stale && last.state == span.state &&
            last.known == span.known)
            return;
    }
    spans.push_back(span);
}

void Board::AddSpan(BoardEntry& entry) {
    const int64_t now = NowMs();
    std::deque<Span>& spans = entry.spans;
    AddTo(spans, SpanOf(entry.printer, entry.summary, now));
    const size_t most = std::clamp(kSpansMost / std::max<size_t>(m_entries.size(), 1), kSpansLeast, kSpansOfPrinter);
    // The first one may have begun before the day.
    while (spans.size() > most || (spans.size() > 1 && spans[1].fromMs < now - kDayMs))
        spans.pop_front();
}

// ---- 3 events

Board::Place Board::PlaceOf(std::string_view lastEventId) const {
    const std::lock_guard hold(m_lock);
    const std::string prefix = m_run + "-";
    if (!lastEventId.starts_with(prefix)) return {};
    lastEventId.remove_prefix(prefix.size());
    uint64_t number = 0;
    const char* const end = lastEventId.data() + lastEventId.size();
    const auto [last, error] = std::from_chars(lastEventId.data(), end, number);
    if (error != std::errc{} || last != end || number > m_number || number < m_forgotten) return {};
    return {number, true, true};
}

bool Board::HasMoreNow(const Place& place) const {
    return !place.ready || place.number < m_number;
}

bool Board::HasMore(const Place& place) const {
    const std::lock_guard hold(m_lock);
    return HasMoreNow(place);
}

std::shared_ptr<const std::string> Board::Next(Place& place) {
    const std::lock_guard hold(m_lock);
    if (!HasMoreNow(place)) return nullptr;
    if (place.number < m_forgotten) place = {};
    if (m_lastMessage && place.ready && place.number == m_lastFrom && m_lastTo.number == m_number) {
        place = m_lastTo;
        return m_lastMessage;
    }
    const bool shared = place.ready;
    const uint64_t from = place.number;
    auto message = std::make_shared<const std::string>(MessageAfter(place));
    if (shared) {
        m_lastFrom = from;
        m_lastTo = place;
        m_lastMessage = message;
    }
    return message;
}

std::string Board::MessageAfter(Place& place) const {
    std::string text;
    const auto add = [&](const char* event, const std::string& data) {
        text += std::string("event: ") + event + "\ndata: " + data + "\n\n";
    };
    if (!place.greeted) text = "retry: 1000\n";
    if (!place.greeted) add("hello", Dump({{"began", UtcText(m_beganMs)}}));
    place.greeted = true;
    const uint64_t from = place.number;
    uint64_t to = m_number;
    for (auto each = m_order.upper_bound(from); each != m_order.end(); ++each) {
        add("printer", m_entries.at(each->second).json);
        if (text.size() < kMessageSize) continue;
        to = std::next(each) == m_order.end() ? m_number : each->first;
        break;
    }
    for (auto each = m_removed.upper_bound(from); each != m_removed.end() && each->first <= to; ++each)
        add("removed", Dump({{"machine", each->second.first}, {"name", each->second.second}}));
    if (m_machinesNumber > from && m_machinesNumber <= to) {
        Json machines = Json::array();
        for (const auto& [name, machine] : m_machines)
            machines.push_back({{"name", name}, {"connected", machine.connected}, {"since", UtcText(machine.sinceMs)}});
        add("machines", Dump(machines));
    }
    const auto older = [](const Told& told, uint64_t number) { return told.number <= number; };
    auto first = std::lower_bound(m_changes.begin(), m_changes.end(), from, older);
    const auto last = std::lower_bound(first, m_changes.end(), to, older);
    if (const auto count = last - first; count > static_cast<ptrdiff_t>(kChangesTold)) first = last - kChangesTold;
    for (; first != last; ++first)
        add("change", first->json);
    place.number = to;
    if (!place.ready && to == m_number) {
        add("ready", "{}");
        place.ready = true;
    }
    // An event without data only sets the id, and only when all that is before it has arrived.
    return text + "id: " + m_run + "-" + std::to_string(to) + "\n\n";
}

// ---- 4 documents

std::string Board::PrintersDocument() const {
    const std::lock_guard hold(m_lock);
    std::string text = "{\"at\":\"" + UtcText(NowMs()) + "\",\"printers\":[";
    bool first = true;
    for (const auto& [key, entry] : m_entries) {
        text += (first ? "\n" : ",\n") + entry.json;
        first = false;
    }
    return text + "\n]}\n";
}

std::vector<const BoardEntry*> Board::FindAll(const std::string& machine, const std::string& name) const {
    std::vector<const BoardEntry*> found;
    for (const auto& [key, entry] : m_entries)
        if ((machine.empty() || key.first == machine) && (name.empty() || key.second == name)) found.push_back(&entry);
    return found;
}

Board::Found Board::PrinterDocument(const std::string& machine, const std::string& name) const {
    const std::lock_guard hold(m_lock);
    const std::vector<const BoardEntry*> found = FindAll(machine, name);
    if (found.empty()) return {};
    if (found.size() > 1) return {409, {}};
    return {200, Dump(PrinterJson(found.front()->printer)) + "\n"};
}

Board::Found Board::TimelineDocument(const std::string& machine, const std::string& name, int64_t sinceMs) const {
    const std::lock_guard hold(m_lock);
    const std::vector<const BoardEntry*> found = FindAll(machine, name);
    if (found.empty() && !name.empty()) return {};
    Json printers = Json::array();
    for (const BoardEntry* entry : found) {
        Json spans = Json::array();
        for (size_t i = 0; i < entry->spans.size(); ++i) {
            const Span& span = entry->spans[i];
            // One that ended before is left out.
            if (i + 1 < entry->spans.size() && entry->spans[i + 1].fromMs <= sinceMs) continue;
            spans.push_back({{"from", UtcText(std::max(span.fromMs, sinceMs))},
                             {"severity", product::NameOf(span.severity)},
                             {"stale", span.stale},
                             {"state", span.state},
                             {"known", span.known}});
        }
        printers.push_back(
            {{"machine", entry->printer.machine}, {"name", entry->printer.name}, {"spans", std::move(spans)}});
    }
    return {200,
            Dump({{"at", UtcText(NowMs())}, {"began", UtcText(m_beganMs)}, {"printers", std::move(printers)}}) + "\n"};
}

} // namespace views
