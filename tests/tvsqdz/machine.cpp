#include "machine.h"

#include "manager/printer_registration.h"
#include "not_here.h"
#include "private_machine.h"
#include "product/registry_names.h"

#include <winspool.h>

#include <cstring>
#include <filesystem>
#include <fstream>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

namespace {

const HINSTANCE kInstance = reinterpret_cast<HINSTANCE>(ULONG_PTR{0x10000});

HKEY CreateKey(HKEY root, const std::string& name) {
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(root, name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr), ERROR_SUCCESS)
        << name;
    return key;
}

DWORD WINAPI RunFunction(void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return 0;
}

} // namespace

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes Joined(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

HANDLE NewEvent(bool manual) {
    return CreateEventA(nullptr, manual, FALSE, nullptr);
}

bool IsSet(HANDLE handle, DWORD timeoutMs) {
    return WaitForSingleObject(handle, timeoutMs) == WAIT_OBJECT_0;
}

HWND MakeWindow(const char* className, const char* title) {
    WNDCLASSEXA windowClass = {};
    windowClass.cbSize = sizeof windowClass;
    windowClass.lpfnWndProc = DefWindowProcA;
    windowClass.lpszClassName = className;
    RegisterClassExA(&windowClass); // it may exist
    const HWND window = CreateWindowExA(0, className, title, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_NE(window, nullptr) << GetLastError();
    return window;
}

bool TakeMessage(MSG& message, HWND window) {
    return WaitUntil([&] { return PeekMessageA(&message, window, 0, 0, PM_REMOVE) != FALSE; });
}

void SetRegistryValue(const std::string& key, const std::string& name, DWORD type, const Bytes& data, HKEY root) {
    const HKEY opened = CreateKey(root, key);
    EXPECT_EQ(RegSetValueExA(opened, name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())),
              ERROR_SUCCESS)
        << key << " " << name;
    RegCloseKey(opened);
}

void SetRegistryText(const std::string& key, const std::string& name, const std::string& text, HKEY root) {
    SetRegistryValue(key, name, REG_SZ, BytesOf(text), root);
}

Bytes RegistryValue(const std::string& key, const std::string& name, DWORD* type) {
    HKEY opened = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return {};
    Bytes data(4096);
    DWORD size = static_cast<DWORD>(data.size());
    if (RegQueryValueExA(opened, name.c_str(), nullptr, type, data.data(), &size) != ERROR_SUCCESS) size = 0;
    RegCloseKey(opened);
    data.resize(size);
    return data;
}

std::string InstallDirectory() {
    return WindowsPath(PrivateDirectory() + "/product/");
}

void InstallProduct() {
    std::filesystem::create_directory(PrivateDirectory() + "/product");
    std::ofstream(PrivateDirectory() + "/product/TVSDBN.EXE") << "present";
    SetRegistryText("SOFTWARE\\Tavik\\Oriel", "DIRPATH", InstallDirectory());
}

void AddPrinter(const std::string& name, const std::string& driver) {
    const std::string key = PrinterKeyName(name.c_str()).name;
    SetRegistryText(kPrinterKeys + key, "Printer Driver", driver);
    RegCloseKey(CreateKey(HKEY_LOCAL_MACHINE, kPrinterKeys + key + "\\PrinterDriverData"));
}

void AddToSpooler(std::string name, std::string driver) {
    NeedsTheLayer("printers without an installed driver");
    PRINTER_INFO_2A info = {};
    std::string port = "LPT1:";
    std::string server = "\\\\server";
    if (name.starts_with(server)) info.pServerName = server.data();
    info.pPrinterName = name.data();
    info.pDriverName = driver.data();
    info.pPortName = port.data();
    const HANDLE printer = AddPrinterA(nullptr, 2, reinterpret_cast<BYTE*>(&info));
    ASSERT_NE(printer, nullptr) << name << " " << GetLastError();
    ClosePrinter(printer);
}

void AddModelVariable(const std::string& driver, const std::string& name, uint32_t size, uint32_t flags,
                      const Bytes& data) {
    SetRegistryValue("SOFTWARE\\Tavik\\Oriel\\Printers\\" + driver + "\\Status Variables", name, REG_BINARY,
                     Joined({Number(size), Number(flags), data}));
}

HANDLE ProductInitialisedEvent() {
    // Everyone's, whoever makes it first: a null list allows everything.
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, &descriptor, FALSE};
    const HANDLE event = CreateEventA(&attributes, TRUE, TRUE, "Global\\TVORPWD:INITIALIZED");
    EXPECT_NE(event, nullptr);
    SetEvent(event);
    return event;
}

void SetUpProduct() {
    InstallProduct();
    AddPrinter(kPrinter, kModel);
    const struct {
        const char* name;
        uint32_t size, flags;
        Bytes data;
    } variables[] = {
        {"ModelNumber", 4, 0x10004, Number(7)},
        {"Hidden", 4, 0x4, Number(1)}, // not for reading
        {"B", 4, 0x10001, Number(1)},  // a byte that is registered with four
        {"V", 5, 0x10010, Text("hello")},
        {"S", 4, 0x10008, Text("abcd")}, // fills its field: no NUL of its own
        {"Mix", 14, 0x10040, Text("ModelNumber;S;")},
        {"Q", 8, 0x10080, Number(0)}, // a queue, which no database has until a test creates it
        // What the printer can be asked for, only read, and not asked for.
        {"DNumber", 4, 0x30204, Number(1)},
        {"DText", 16, 0x30208, Bytes(16)},
        {"DVariable", 4, 0x30210, Text("vvvv")},
        {"DRead", 4, 0x40010004, Number(3)},
        {"Plain", 4, 0x30004, Number(4)},
        // Kept in the driver data; the last two depend on the port.
        {"PByte", 4, 0x10101, Number(1)},
        {"PNumber", 4, 0x10104, Number(2)},
        {"PString", 16, 0x10108, Text("initial text....")},
        {"PVariable", 4, 0x10910, Text("vvvv")},
        {"PRecord", 6, 0x10920, Text("record")},
    };
    for (const auto& row : variables)
        AddModelVariable(kModel, row.name, row.size, row.flags, row.data);
    ProductInitialisedEvent(); // lives as long as the test
}

Library::Library() {
    EXPECT_TRUE(DllMain(kInstance, DLL_PROCESS_ATTACH, nullptr));
}

Library::~Library() {
    DllMain(kInstance, DLL_PROCESS_DETACH, nullptr);
}

Opened::Opened(const char* user)
    : manager(OpenPrinter(2, kPrinter, user)), record(RecordOf(manager)), database(record->printerDatabase.handle) {}

OpenedReady::OpenedReady() : Opened(kPowerfulUser) {
    SetReady(manager);
}

void SetReady(TvsManager manager, uint32_t extStatus, uint32_t spoolerStatus, uint32_t portKind) {
    EXPECT_EQ(Update(manager, "PrinterExtStatus", Number(extStatus)), TVS_OK);
    EXPECT_EQ(Update(manager, "SpoolerStatus", Number(spoolerStatus)), TVS_OK);
    EXPECT_EQ(Update(manager, "Port", Joined({Number(portKind), Bytes(256)})), TVS_OK);
}

TvsManager OpenPrinter(uint32_t clientKind, const std::string& printer, const char* user) {
    TvsManager manager = 0;
    EXPECT_EQ(OpenManagerExA(printer.c_str(), user, clientKind, &manager), TVS_OK)
        << printer << ", last error " << GetLastError();
    EXPECT_NE(manager, 0u);
    return manager;
}

int32_t OpenStatus(const std::string& printer, uint32_t clientKind, const char* user) {
    TvsManager manager = 0;
    const int32_t status = OpenManagerExA(printer.c_str(), user, clientKind, &manager);
    if (status == TVS_OK) {
        EXPECT_EQ(CloseManager(manager), TVS_OK);
    }
    return status;
}

ManagerRecord* RecordOf(TvsManager manager) {
    const ManagerCall call(manager);
    EXPECT_TRUE(call);
    return call.Manager();
}

ReadResult Read(TvsManager manager, const std::string& variable, uint32_t size, decltype(&GetPrinterStatusA) read) {
    ReadResult result{0, 0xEEEEEEEE, Bytes(size, 0xEE)};
    result.status =
        read(manager, variable.c_str(), size > 0 ? result.bytes.data() : nullptr, size, &result.returnedSize);
    return result;
}

int32_t Update(TvsManager manager, const std::string& variable, const Bytes& data) {
    return UpdatePrinterStatusA(manager, variable.c_str(), data.data(), static_cast<uint32_t>(data.size()));
}

uint32_t NumberOf(TvsManager manager, const std::string& variable) {
    uint32_t value = 0xEEEEEEEE;
    uint32_t size = 0;
    EXPECT_EQ(GetPrinterStatusA(manager, variable.c_str(), &value, sizeof value, &size), TVS_OK) << variable;
    return value;
}

int32_t ResultOf(TvsManager manager, uint32_t number) {
    int32_t result = 1;
    EXPECT_EQ(ResSetPrinterStatus(manager, number, &result), TVS_OK);
    return result;
}

void StoreBytes(DatabaseHandle database, const std::string& variable, const Bytes& value) {
    EXPECT_EQ(WriteVariable(database, variable.c_str(), value.data(), static_cast<DWORD>(value.size())), Answer::Done)
        << variable;
}

Bytes StoredBytes(DatabaseHandle database, const std::string& variable) {
    Bytes value(65536);
    DWORD size = 0;
    EXPECT_EQ(ReadVariable(database, variable.c_str(), value.data(), 65536, &size), Answer::Done) << variable;
    value.resize(size);
    return value;
}

TestThread::TestThread(std::function<void()> function)
    : m_function(std::move(function)), m_thread(CreateThread(nullptr, 0, RunFunction, &m_function, 0, nullptr)) {
    EXPECT_NE(m_thread, nullptr);
}

TestThread::~TestThread() {
    EXPECT_TRUE(IsSet(m_thread, 20000));
    CloseHandle(m_thread);
}
