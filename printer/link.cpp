// Connecting, and values in the forms of the database. State: the link's.
#include "link.h"

#include "product/guards.h"
#include "product/program_client.h"
#include "product/variable_names.h"
#include "product/variables.h"

#include <algorithm>
#include <iterator>
#include <string.h>
#include <utility>

using namespace product;

namespace {

constexpr DWORD kSmallValue = 512; // bytes; larger values are asked for

constexpr const char* kWatchedNames[kWatchedCount] = {names::kReadRequest, names::kWriteRequest, kForwardMailbox,
                                                      names::kLMFunction};

// A service that cannot be reached, or does not know our handle, is gone or new: the link is lost.
LONG Examine(Link& link, Answer answer) {
    const auto status = static_cast<LONG>(answer);
    if (status > 0 || status == kUnknownDatabase) link.lost = true;
    return status;
}

std::string FindDatabaseName(const std::string& printer, std::string* name, std::string* driver) {
    const Answer answer = FindPrinterDatabase(printer, name, driver);
    const auto status = static_cast<LONG>(answer);
    if (status > 0) return "the status database service does not answer (" + std::to_string(status) + ")";
    if (answer != Answer::Done) return "no printer has been opened yet";
    return name->empty() ? "the printer has not been opened yet" : "";
}

// What is published of the variable, and its value if it has at most that many bytes. Ask: nothing, or the service has
// ended, which makes the link a lost one.
PublishedRead ReadPublished(Link& link, const char* variable, BYTE* value, DWORD capacity, PublishedState* state) {
    if (!link.published.IsMapped()) return PublishedRead::Ask;
    if (!link.published.ServiceLives()) {
        link.lost = true;
        return PublishedRead::Ask;
    }
    if (!link.published.IsCurrent()) {
        PublishedPlace place;
        if (Examine(link, FindPublishedValues(link.database, &place)) != kDone || !link.published.Map(place))
            return PublishedRead::Ask;
    }
    return product::ReadPublished(link.published.Section(), variable, value, capacity, state);
}

HANDLE OpenSignal(const Link& link, const char* variable, VariableSignal signal, DWORD access) {
    return OpenEventA(access, FALSE, VariableEventName(link.terminalServer, link.databaseName, variable, signal).text);
}

// Two printer sides would answer each other's requests. When the other one ends it releases the mutex. Only this user
// can open the mutex: another user could hold it and keep the printer without a printer side.
bool BecomeOnlyOne(Link& link) {
    const KernelName name = ObjectName(link.terminalServer, "TVORSQD:PrinterSide:" + link.databaseName);
    KernelHandle mutex(name.text[0] ? CreateMutexA(nullptr, FALSE, name.text) : nullptr);
    if (!mutex || !link.hold.Acquire(mutex.Get(), 0)) return false;
    link.onlyOne = std::move(mutex);
    return true;
}

// An earlier printer side may have made both.
bool MakeMailbox(Link& link) {
    constexpr BYTE kEmpty[sizeof(ForwardedRequest)] = {};
    static_assert(sizeof kEmpty == sizeof(ForwardedAnswer));
    for (const char* variable : {kForwardMailbox, kForwardAnswer}) {
        const LONG status = CreateRecord(link, variable, kEmpty, sizeof kEmpty);
        if (status != kDone && status != kVariableExists) return false;
    }
    return true;
}

// The service creates the event when the variable is watched.
bool Watch(Link& link, DWORD which) {
    const char* variable = kWatchedNames[which];
    if (Examine(link, WatchVariable(link.database, variable, kEveryWrite)) != kDone) return false;
    link.events[which] = OpenSignal(link, variable, VariableSignal::Updated, SYNCHRONIZE | EVENT_MODIFY_STATE);
    if (!link.events[which]) UnwatchVariable(link.database, variable);
    return link.events[which] != nullptr;
}

// Cuts a lone number to the size of the variable. False: bytes would be lost that are not copies of its sign.
bool NarrowNumber(Bytes& bytes, SIZE_T size) {
    LONG number = 0;
    if (bytes.size() != sizeof number) return bytes.size() == size;
    memcpy(&number, bytes.data(), sizeof number);
    const LONG above = size == sizeof number ? 0 : number >> (8 * size);
    bytes.resize(size);
    return above == 0 || (above == -1 && (bytes.back() & 0x80) != 0);
}

// Converts to the bytes that the database stores. False: not a value of such a variable.
bool ToStoredForm(const VariableInfo& info, Bytes& bytes) {
    switch (info.type) {
    case kTypeByte:
    case kTypeWord:
    case kTypeNumber:
        return NarrowNumber(bytes, info.size);
    case kTypeString:
    case kTypeRecord:
    case kTypeComposite:
        bytes.resize(std::max<SIZE_T>(bytes.size(), info.size));
        return true;
    case kTypeVariableLength: {
        const DWORD length = static_cast<DWORD>(bytes.size());
        const auto* lengthBytes = reinterpret_cast<const BYTE*>(&length);
        bytes.insert(bytes.begin(), lengthBytes, lengthBytes + sizeof length);
        return true;
    }
    default:
        return false;
    }
}

// The value of a variable that nobody has told yet. Of the built-in ones it is in the table of variables; a number of a
// model is -1.
Bytes NotKnown(const std::string& variable, const VariableInfo& info) {
    for (const BuiltInVariable& row : kBuiltInVariables) {
        if (variable != row.name || row.initial == nullptr) continue;
        const auto* initial = static_cast<const BYTE*>(row.initial);
        if (TypeOf(row) != SVT_VARIABLE) return {initial, initial + row.size};
        // The payload: its length goes before it again.
        return row.initialSize != 0 ? Bytes(initial + sizeof(DWORD), initial + row.initialSize) : Bytes(sizeof(DWORD));
    }
    const bool number = info.type == kTypeByte || info.type == kTypeWord || info.type == kTypeNumber;
    return Bytes(info.type == kTypeVariableLength ? 0 : info.size, number ? BYTE{0xFF} : BYTE{0});
}

} // namespace

std::string Connect(Link& link) {
    std::string name;
    std::string failure = FindDatabaseName(link.printer, &name, &link.driver);
    if (!failure.empty()) return failure;
    link.databaseName = name;
    if (OpenDatabase(name.c_str(), &link.database) != Answer::Done) return "the printer's database is not ready yet";
    link.lost = false;
    if (!BecomeOnlyOne(link)) return "another printer side serves the printer";
    if (!MakeMailbox(link)) return "the mailbox of forwarded requests cannot be made";
    PublishedPlace place;
    if (FindPublishedValues(link.database, &place) == Answer::Done) link.published.Map(place); // or it is read by calls
    for (DWORD which = 0; which < kWatchedCount; ++which)
        if (!Watch(link, which)) return std::string("\"") + kWatchedNames[which] + "\" cannot be watched";
    return "";
}

void Disconnect(Link& link) {
    // Watches belong to the process, not to the handle. A service that does not know the handle has none of it; one
    // that cannot be reached is not asked again.
    bool asks = link.database != 0;
    for (DWORD which = 0; which < kWatchedCount; ++which) {
        if (!link.events[which]) continue;
        CloseHandle(link.events[which]);
        link.events[which] = nullptr;
        if (asks) asks = static_cast<LONG>(UnwatchVariable(link.database, kWatchedNames[which])) <= 0;
    }
    if (asks) CloseDatabase(link.database);
    link.database = 0;
    link.hold.Release();
    link.onlyOne.Reset();
    link.known.clear();
    link.published.Unmap();
    link.lost = true;
}

void AskService(Link& link) {
    VariableInfo info = {};
    Examine(link, GetVariableInfo(link.database, names::kReadRequest, &info));
}

LONG ReadBytes(Link& link, const char* variable, Bytes* value) {
    BYTE small[kSmallValue];
    PublishedState state = {};
    if (ReadPublished(link, variable, small, sizeof small, &state) == PublishedRead::Done) {
        value->assign(small, small + state.size);
        return kDone;
    }
    if (link.lost) return kUnknownDatabase;
    return Examine(link, ReadWholeValue(link.database, variable, value));
}

LONG WriteBytes(Link& link, const char* variable, const void* value, DWORD size) {
    return Examine(link, WriteVariable(link.database, variable, value, size));
}

std::string ReadTextOf(Link& link, const char* variable) {
    Bytes value;
    if (ReadBytes(link, variable, &value) != kDone) return "";
    return {value.begin(), std::find(value.begin(), value.end(), BYTE{0})};
}

DWORD ReadNumberOf(Link& link, const char* variable) {
    Bytes value;
    DWORD number = 0;
    if (ReadBytes(link, variable, &value) == kDone && value.size() == sizeof number)
        memcpy(&number, value.data(), sizeof number);
    return number;
}

LONG InfoOf(Link& link, const char* variable, VariableInfo* info) {
    PublishedState state = {};
    if (ReadPublished(link, variable, nullptr, 0, &state) != PublishedRead::Ask) {
        *info = ToVariableInfo(state);
        return kDone;
    }
    if (link.lost) return kUnknownDatabase;
    return Examine(link, GetVariableInfo(link.database, variable, info));
}

LONG CreateQueue(Link& link, const char* variable, const void* value, DWORD size) {
    return Examine(link, CreateVariable(link.database, variable, kTypeVariableLength, size, value));
}

LONG CreateRecord(Link& link, const char* variable, const void* value, DWORD size) {
    return Examine(link, CreateVariable(link.database, variable, kTypeRecord, size, value));
}

LONG StoreValue(Link& link, const DeviceValue& value) {
    const char* variable = value.variable.c_str();
    auto known = link.known.find(value.variable);
    if (known == link.known.end()) {
        VariableInfo info = {};
        if (const LONG status = InfoOf(link, variable, &info); status != kDone) return status;
        known = link.known.emplace(value.variable, info).first;
    }
    Bytes bytes = value.known ? value.bytes : NotKnown(value.variable, known->second);
    if (!ToStoredForm(known->second, bytes)) return kWrongSize;
    return WriteBytes(link, variable, bytes.data(), static_cast<DWORD>(bytes.size()));
}

bool IsWatched(Link& link, const char* variable) {
    PublishedState state = {};
    if (ReadPublished(link, variable, nullptr, 0, &state) != PublishedRead::Ask) return state.watched;
    return HasEvent(link, variable, VariableSignal::Updated) || HasEvent(link, variable, VariableSignal::Changed);
}

bool HasEvent(const Link& link, const char* variable, VariableSignal signal) {
    return static_cast<bool>(KernelHandle(OpenSignal(link, variable, signal, SYNCHRONIZE)));
}

bool SomebodyWaits(Link& link) {
    return IsWatched(link, names::kRWResult);
}
