// The demo printer. No state.
#include "commands/demo_printer.h"

#include "commands/access_list.h"
#include "base/failure.h"
#include "base/files.h"
#include "base/layer.h"
#include "base/printers.h"
#include "base/product.h"
#include "base/text.h"

#include <algorithm>
#include <fstream>

namespace {

constexpr char kName[] = "Demo printer";
constexpr char kDriver[] = "Example Laser";
constexpr char kPort[] = "DEMO:";
constexpr char kModelFile[] = "example_laser.reg";
constexpr char kScriptFile[] = "demo_printer.script";

// Reads an example file that is installed next to this program.
std::string ReadExample(const std::string& name) {
    std::string path = ToUtf8(OwnDirectory()) + "examples/" + name;
    std::replace(path.begin(), path.end(), '\\', '/');
    return ReadWholeFile(path);
}

void RegisterModel() {
    if (IsRegisteredModel(kDriver)) return;
    DWORD line = 0;
    const LSTATUS status = ImportRegistry(ReadExample(kModelFile), line);
    if (status != ERROR_SUCCESS)
        throw SystemFailure(static_cast<uint32_t>(status), std::string("cannot register the model ") + kDriver);
}

} // namespace

DemoPrinter EnsureDemoPrinter() {
    const std::string script = StateDirectoryName() + "/" + kScriptFile;
    const std::string scriptText = RequireAnsi(script, "the path of the demo printer's script");
    RegisterModel();
    if (!std::ifstream(script)) WriteWholeFile(script, ReadExample(kScriptFile));
    if (!DriverOf(kName)) {
        InstallPrinter(kName, kDriver, kPort);
        SetPrinterDevice(kName, "script:" + scriptText);
    }
    return {kName, script, "D:(A;;SWRC;;;WD)(A;;RPWPSDRCWDWO;;;CO)(A;;LCSWRPWPSDRCWDWO;;;" + OwnAccountName() + ")"};
}
