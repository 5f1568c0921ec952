// authority, acl: what this user may do with a printer and why, and its access control list. No state.
#include "commands/access_list.h"
#include "base/service_client.h"

#include "product/authority_rules.h"
#include "product/client_kinds.h"
#include "product/variable_names.h"

#include <algorithm>
#include <cstdio>

namespace {

using names::kAccessControlList;
using names::kUserAuthority;

bool CountsForYou(const ListEntry& entry) {
    return entry.counts == Counts::ForUser || entry.counts == Counts::ForGroup;
}

bool CountsForOwners(const ListEntry& entry) {
    return entry.counts == Counts::ForOwners;
}

template <typename Whom>
ListedRights Sum(const std::vector<ListEntry>& entries, Whom whom) {
    ListedRights rights;
    for (const ListEntry& entry : entries)
        if (whom(entry)) rights.Count(entry.denies, entry.mask);
    return rights;
}

// One right, whether the list gives it, and which entries are the reason.
struct Explanation {
    const char* right;
    bool had = false;
    DWORD missing = 0;        // bits, of a right that takes several
    std::vector<size_t> gave; // numbers of entries, from 1
    std::vector<size_t> took;
};

class Explainer {
public:
    explicit Explainer(const std::vector<ListEntry>& entries)
        : m_entries(entries), m_yours(Sum(entries, CountsForYou)), m_owners(Sum(entries, CountsForOwners)) {}

    std::vector<Explanation> All() const {
        std::vector<Explanation> all;
        for (const AuthorityRule& rule : kAuthorityRules) {
            Explanation explanation = Any(rule.name, rule.user);
            for (size_t i = 0; i < m_entries.size(); ++i)
                if (CountsForOwners(m_entries[i])) Note(explanation, i, rule.owners, m_owners);
            explanation.had |= (m_owners.Effective() & rule.owners) != 0;
            all.push_back(explanation);
        }
        all.push_back(DirectWrite());
        return all;
    }

private:
    void Note(Explanation& explanation, size_t index, DWORD bits, const ListedRights& rights) const {
        const ListEntry& entry = m_entries[index];
        if (!entry.denies && (entry.mask & bits & ~rights.denied) != 0) explanation.gave.push_back(index + 1);
        if (entry.denies && (entry.mask & bits & rights.allowed) != 0) explanation.took.push_back(index + 1);
    }

    Explanation Any(const char* right, DWORD bits) const {
        Explanation explanation{.right = right, .had = (m_yours.Effective() & bits) != 0};
        for (size_t i = 0; i < m_entries.size(); ++i)
            if (CountsForYou(m_entries[i])) Note(explanation, i, bits, m_yours);
        return explanation;
    }

    Explanation DirectWrite() const {
        OSVERSIONINFOA version{};
        version.dwOSVersionInfoSize = sizeof version;
        GetVersionExA(&version);
        const DWORD bits = DirectWriteRights(version.dwMajorVersion, m_yours.Effective());
        Explanation explanation = Any(kDirectWriteName, bits);
        explanation.missing = bits & ~m_yours.Effective();
        explanation.had = explanation.missing == 0;
        return explanation;
    }

    const std::vector<ListEntry>& m_entries;
    ListedRights m_yours;
    ListedRights m_owners;
};

const char* CountsText(Counts counts) {
    switch (counts) {
    case Counts::ForUser:
        return "you";
    case Counts::ForGroup:
        return "a group of yours";
    case Counts::ForOwners:
        return "owners of jobs";
    case Counts::NotForYou:
        return "not you";
    case Counts::NoAccount:
        return "nobody: no such account";
    case Counts::OtherKind:
        return "nobody: neither allows nor denies";
    }
    return "";
}

std::string Numbers(const std::vector<size_t>& numbers) {
    std::string text;
    for (const size_t number : numbers)
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    return text;
}

std::string HexText(DWORD bits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(bits));
    return text;
}

std::string Reason(const Explanation& explanation) {
    std::string text;
    if (!explanation.gave.empty()) text = "given by " + Numbers(explanation.gave);
    if (!explanation.took.empty()) text += (text.empty() ? "denied by " : ", denied by ") + Numbers(explanation.took);
    if (text.empty()) return "no entry gives this right";
    if (explanation.missing != 0) text += ", lacks " + HexText(explanation.missing);
    return text;
}

Json EntriesJson(const std::vector<ListEntry>& entries) {
    Json list = Json::array();
    for (size_t i = 0; i < entries.size(); ++i)
        list.push_back({{"entry", i + 1},
                        {"text", entries[i].text},
                        {"account", entries[i].account},
                        {"countsFor", CountsText(entries[i].counts)}});
    return list;
}

Json RightsJson(const std::vector<Explanation>& rights) {
    Json list = Json::array();
    for (const Explanation& right : rights)
        list.push_back({{"right", right.right}, {"granted", right.had}, {"given", right.gave}, {"taken", right.took}});
    return list;
}

// Where the library takes the authority from; empty for the access control list.
std::string OtherSource(const OpenedPrinter& printer, const ManagerOptions& options) {
    OSVERSIONINFOA version{};
    version.dwOSVersionInfoSize = sizeof version;
    const Reading port = ReadValue(printer, FindNamed(printer, names::kPort, "read"), false);
    uint32_t kind = 0;
    if (port.status == TVS_OK && port.value.size() >= sizeof kind)
        std::copy_n(port.value.begin(), sizeof kind, reinterpret_cast<uint8_t*>(&kind));
    const bool known = GetVersionExA(&version);
    switch (AuthoritySourceOf(kind, KindOf(options.kind).bit, known ? version.dwPlatformId : 0, options.user.c_str())) {
    case AuthoritySource::StoredValue:
        return "the value stored in UserAuthority, because of the printer's port";
    case AuthoritySource::Polling:
        return "the client kind, which polls and has the same rights for everybody";
    case AuthoritySource::NoAccounts:
        return "the system version: Windows 95, 98 and Me have no accounts";
    case AuthoritySource::PortMonitor:
        return "the user name: the port monitor may do everything";
    case AuthoritySource::AccessList:
        return "";
    }
    return "";
}

void ExplainList(const OpenedPrinter& printer, Json& document) {
    const Bytes list = ReadAccessControlList(printer);
    const bool whole = IsWholeList(list);
    const std::vector<ListEntry> entries = whole ? ListEntries(list) : std::vector<ListEntry>();
    const std::vector<Explanation> rights = Explainer(entries).All();
    document["entries"] = EntriesJson(entries);
    document["rights"] = RightsJson(rights);
    if (g_output.json) return;
    if (!whole) return PrintLine("There is no valid access control list, so nobody has any right.");
    Table list2{{{"ENTRY", "TEXT", "ACCOUNT", "COUNTS FOR"}}};
    for (size_t i = 0; i < entries.size(); ++i)
        list2.rows.push_back(
            {std::to_string(i + 1), entries[i].text, Printable(entries[i].account), CountsText(entries[i].counts)});
    list2.Print();
    Table reasons{{{"RIGHT", "GRANTED", "WHY"}}};
    for (const Explanation& right : rights)
        reasons.rows.push_back({right.right, right.had ? "yes" : "no", Reason(right)});
    reasons.Print();
}

// What the service takes of this user, whatever the access control list says.
void ExplainWrites(const OpenedPrinter& printer, Json& document) {
    const ServiceDatabase database(printer, "cannot ask what you may change");
    std::vector<std::string> may;
    bool all = true;
    for (const Variable& variable : printer.variables) {
        const ServiceDatabase::Writes writes = database.WritesOf(variable.name.c_str());
        if (writes == ServiceDatabase::Writes::Taken) may.push_back(variable.name);
        all &= writes != ServiceDatabase::Writes::Denied;
    }
    document["changes"] = may;
    if (g_output.json) return;
    PrintLine(all ? "As an administrator you may change every variable."
                  : "You may change these variables; the others are for administrators:");
    for (const std::string& name : may)
        if (!all) PrintLine("  " + name);
}

} // namespace

Exit AuthorityCommand(const ManagerOptions& options, bool explain) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const Variable& variable = FindNamed(printer, kUserAuthority, "read");
    const Reading reading = ReadValue(printer, variable, false);
    if (reading.status != TVS_OK) throw StatusFailure(reading.status, WhatOf("read", kUserAuthority, printer));
    const Decoded decoded = Decode(printer.variables, variable, reading.value);
    const std::string other = OtherSource(printer, options);
    Json document = {{"printer", printer.shownName},
                     {"user", OwnAccountName()},
                     {"authority", ToJson(decoded)},
                     {"bits", NamedBits(decoded)},
                     {"source", other.empty() ? "the access control list" : other}};
    if (!g_output.json) PrintLine(OneLine(decoded));
    if (explain && !g_output.json) PrintLine("From " + document["source"].get<std::string>() + ".");
    if (explain && other.empty()) ExplainList(printer, document);
    if (explain) ExplainWrites(printer, document);
    if (g_output.json) PrintJson(document);
    return Exit::Done;
}

Exit AclShowCommand(const ManagerOptions& options) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    const Bytes list = ReadAccessControlList(printer);
    const bool whole = IsWholeList(list);
    if (!g_output.json) {
        if (!whole)
            throw Failure{Exit::False, "\"" + printer.shownName + "\" has no valid access control list", "",
                          "give it one: oriel acl set \"" + printer.shownName + "\" 'D:(A;;SWRC;;;WD)'"};
        PrintLine(ListText(list));
        return Exit::Done;
    }
    Json document = {{"printer", printer.shownName}, {"valid", whole}, {"hex", ToHex(list.data(), list.size())}};
    const std::vector<ListEntry> entries = whole ? ListEntries(list) : std::vector<ListEntry>();
    const bool hasText = whole && std::none_of(entries.begin(), entries.end(), [](const ListEntry& entry) {
                             return entry.counts == Counts::OtherKind;
                         });
    document["text"] = hasText ? Json(ListText(list)) : Json(nullptr);
    document["entries"] = EntriesJson(entries);
    PrintJson(document);
    return Exit::Done;
}

namespace {

void WriteList(const OpenedPrinter& printer, const Bytes& list) {
    const int32_t status = UpdatePrinterStatusA(printer.manager.Get(), kAccessControlList, list.data(),
                                                static_cast<uint32_t>(list.size()));
    if (status != TVS_OK) throw StatusFailure(status, WhatOf("write", kAccessControlList, printer));
}

} // namespace

Exit AclSetCommand(const ManagerOptions& options, const std::string& text) {
    const Bytes list = ParseListText(text);
    const OpenedPrinter printer = OpenPrinterOf(options);
    WriteList(printer, list);
    if (g_output.json) PrintJson({{"printer", printer.shownName}, {"text", ListText(list)}, {"written", list.size()}});
    return Exit::Done;
}

Exit OpenCommand(const ManagerOptions& options, const std::string& accessList) {
    const OpenedPrinter printer = OpenPrinterOf(options);
    if (!accessList.empty() && !IsWholeList(ReadAccessControlList(printer)))
        WriteList(printer, ParseListText(accessList));
    return Exit::Done;
}
