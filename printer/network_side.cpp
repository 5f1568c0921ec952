// No state.
#include "network_side.h"

#include "network_device.h"
#include "text.h"

#include "product/growing_reads.h"
#include "product/guards.h"
#include "product/log.h"
#include "product/registry_names.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view kQueuePrefix = "cups:";

// ---- the certificate of a network printer, which is trusted from the first time that it is seen

constexpr char kCertificateValue[] = "Oriel Certificate";

RegistryKey OpenPrinterKey(const std::string& printer, REGSAM access) {
    HKEY key = nullptr;
    const std::string path = std::string(kPrintersKey) + "\\" + PrinterKeyName(printer.c_str()).name;
    return RegistryKey(RegOpenKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key) == ERROR_SUCCESS ? key
                                                                                                         : nullptr);
}

std::string ReadCertificate(const std::string& printer) {
    const RegistryKey key = OpenPrinterKey(printer, KEY_QUERY_VALUE);
    char text[128] = {};
    DWORD size = sizeof text - 1;
    if (!key || RegQueryValueExA(key.Get(), kCertificateValue, nullptr, nullptr, reinterpret_cast<BYTE*>(text),
                                 &size) != ERROR_SUCCESS)
        return "";
    return text;
}

void TrustCertificate(const std::string& printer, const std::string& certificate) {
    const RegistryKey key = OpenPrinterKey(printer, KEY_SET_VALUE);
    const bool stored = key && RegSetValueExA(key.Get(), kCertificateValue, 0, REG_SZ,
                                              reinterpret_cast<const BYTE*>(certificate.c_str()),
                                              static_cast<DWORD>(certificate.size() + 1)) == ERROR_SUCCESS;
    product::Log(product::LogLevel::Note, printer + ": trusts the printer's certificate " + certificate +
                                              (stored ? "" : ", until the printer side ends"));
}

// ---- queues of the print server

// What the print server itself sends the queue's jobs to. Empty: the server does not know the queue, or is not there.
std::string DeviceUriOf(const std::string& queue) {
    std::string name = ToAnsi(queue); // the call's text is not const
    const PrinterHandle printer = OpenSpoolerPrinter(name.data());
    std::vector<BYTE> buffer;
    const auto grow = [&](DWORD size) {
        buffer.resize(size);
        return buffer.data();
    };
    if (!printer || !ReadSpoolerRecords(grow, [&](LPBYTE into, DWORD size, LPDWORD needed) {
            return GetPrinterA(printer.Get(), 2, into, size, needed);
        }))
        return "";
    return ToUtf8(reinterpret_cast<const PRINTER_INFO_2A*>(buffer.data())->pPortName);
}

} // namespace

bool IsQueue(const std::string& device) {
    return device.starts_with(kQueuePrefix);
}

QueueDevice DeviceOfQueue(const std::string& device, DWORD limitMs, HANDLE stop) {
    const std::string uri = DeviceUriOf(device.substr(kQueuePrefix.size()));
    const size_t host = uri.find("://");
    if (host == uri.npos) return {device, uri.empty()};
    const std::string scheme = uri.substr(0, host);
    if (scheme == "ipp" || scheme == "ipps") return {uri.substr(0, uri.find('?'))};
    if (scheme != "socket" && scheme != "lpd") return {device};
    // It has no way to tell anything; SNMP beside it may.
    NetworkPrinter agent{.uri = "snmp://" + HostOf(uri)};
    if (!OpenNetworkPrinter(agent).empty()) return {device};
    const devices::Answer answer = TryNetworkPrinter(agent, limitMs, stop);
    CloseNetworkPrinter(agent);
    return answer.outcome == devices::Outcome::Answered ? QueueDevice{agent.uri} : QueueDevice{device, true};
}

int ServeDevice(const PrinterSideOptions& side, const Device& device, HANDLE stop) {
    const bool served = ServePrinter(side, device, stop);
    if (!served)
        product::Log(product::LogLevel::Error,
                     side.printer + ": cannot take jobs, system error " + std::to_string(GetLastError()));
    return served ? kStopped : kCannotBegin;
}

namespace {

int ServeAt(const std::string& uri, const PrinterSideOptions& side, DWORD pollMs, HANDLE stop) {
    const std::string name = side.printer;
    NetworkPrinter printer{.uri = uri,
                           .ofPrintServer = side.ofPrintServer,
                           // The server tells when its queue has changed.
                           .pollMs = IsQueue(uri) ? kPollMaxMs : pollMs,
                           .certificate = ReadCertificate(name),
                           .trusted = [name] { return ReadCertificate(name); },
                           .trust = [name](const std::string& seen) { TrustCertificate(name, seen); }};
    const std::string failure = OpenNetworkPrinter(printer);
    if (!failure.empty()) product::Log(product::LogLevel::Error, side.printer + ": " + failure);
    const int result = failure.empty() ? ServeDevice(side, DeviceOf(printer), stop) : kCannotBegin;
    CloseNetworkPrinter(printer);
    return result;
}

// ---- a queue whose printer could not be asked at the start, because it or the print server was not up yet

constexpr SIZE_T kStackSize = 256 * 1024;
constexpr DWORD kSearchPolls = 2;      // idle intervals until the printer is looked for again; twice as long each time
constexpr DWORD kSearchPollsMost = 32; // up to a quarter of an hour

struct Search {
    std::string queue;
    DWORD pollMs;
    HANDLE stop;
    KernelHandle over{}; // event, manual-reset: ends the serving of the queue itself
    std::string found{}; // once over is set: the printer; empty: it was stopped
};

// Sets over when stop is set, or when the printer is found.
DWORD WINAPI SearchPrinter(LPVOID parameter) {
    Search& search = *static_cast<Search*>(parameter);
    const HANDLE endings[] = {search.stop, search.over.Get()};
    ULONGLONG polls = kSearchPolls;
    bool goOn = true;
    while (WaitForMultipleObjects(2, endings, FALSE,
                                  goOn ? static_cast<DWORD>(std::min<ULONGLONG>(polls * search.pollMs, kPollMaxMs))
                                       : INFINITE) == WAIT_TIMEOUT) {
        const QueueDevice device = DeviceOfQueue(search.queue, kDeviceLimitMs, search.stop);
        goOn = device.mayChange;
        polls = std::min<ULONGLONG>(2 * polls, kSearchPollsMost);
        if (device.uri == search.queue) continue;
        if (WaitForSingleObject(search.over.Get(), 0) == WAIT_TIMEOUT) search.found = device.uri;
        break;
    }
    SetEvent(search.over.Get());
    return 0;
}

} // namespace

int ServeNetworkPrinter(const PrinterSideOptions& side, const std::string& device, DWORD pollMs, HANDLE stop) {
    const QueueDevice first =
        side.ofPrintServer ? DeviceOfQueue(device, kDeviceLimitMs, stop) : QueueDevice{.uri = device};
    if (!first.mayChange) return ServeAt(first.uri, side, pollMs, stop);
    Search search{.queue = device, .pollMs = pollMs, .stop = stop};
    search.over = KernelHandle(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    const KernelHandle thread(search.over ? CreateThread(nullptr, kStackSize, SearchPrinter, &search, 0, nullptr)
                                          : nullptr);
    if (!thread) return ServeAt(device, side, pollMs, stop);
    const int result = ServeAt(device, side, pollMs, search.over.Get());
    SetEvent(search.over.Get());
    WaitForSingleObject(thread.Get(), INFINITE); // bounded: by the calls of the print server and of the agent
    if (search.found.empty() || result != kStopped) return result;
    product::Log(product::LogLevel::Note, side.printer + ": the printer itself is asked from now on, " + search.found);
    return ServeAt(search.found, side, pollMs, stop);
}
