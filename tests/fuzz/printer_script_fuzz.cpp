// Scripts of printers: read, and played for a while.
#include "fuzz.h"
#include "scripted_device.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> errors;
    ScriptedPrinter printer{ReadScript({reinterpret_cast<const char*>(data), size}, "fuzz", &errors)};
    for (const std::string& error : errors)
        REQUIRE(error.starts_with("fuzz:"));
    if (!errors.empty()) return 0;
    const Device device = DeviceOf(printer);
    DWORD next = 0;
    device.queues(device.self);
    device.state(device.self);
    for (ULONGLONG now = 0; now < 100'000'000 && next != kNothingDue; now += 1'000'000 + next) {
        for (const DeviceAsk kind : {DeviceAsk::Read, DeviceAsk::Write, DeviceAsk::Refresh})
            device.ask(device.self, {.kind = kind, .subject = "PageCount", .value = {1, 2, 3, 4}}, now);
        device.drop(device.self, 0);
        next = device.take(device.self, now).nextMs;
    }
    device.pagesOut(device.self, 3);
    return 0;
}
