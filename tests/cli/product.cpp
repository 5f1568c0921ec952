#include "product.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

ProgramResult Oriel(const Words& arguments, const Environment& environment) {
    return RunProgram(ProgramPath("oriel"), arguments, environment);
}

ProgramResult OrielAs(unsigned user, const Words& arguments) {
    const std::string id = std::to_string(user);
    Words all = {"--reuid=" + id, "--regid=" + id, "--clear-groups", ProgramPath("oriel")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunProgram("/usr/bin/setpriv", all);
}

Json OrielJson(Words arguments, int exitCode, const Environment& environment) {
    arguments.push_back("--json");
    const ProgramResult result = Oriel(arguments, environment);
    EXPECT_EQ(result.exitCode, exitCode) << arguments[0] << ": " << result.errors;
    Json document = Json::parse(result.output, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << arguments[0] << ": " << result.output;
    return document;
}

std::string OrielText(const Words& arguments, const Environment& environment) {
    ProgramResult result = Oriel(arguments, environment);
    EXPECT_EQ(result.exitCode, 0) << arguments[0] << ": " << result.errors;
    if (result.output.ends_with('\n')) result.output.pop_back();
    return result.output;
}

Json VariableOf(const std::string& printer, const std::string& variable) {
    return OrielJson({"get", printer, variable})["variables"][0];
}

Json ValueOf(const std::string& printer, const std::string& variable) {
    return VariableOf(printer, variable)["value"];
}

void ExpectTakesRequests(const std::string& printer) {
    EXPECT_TRUE(WaitUntil([&] { return ValueOf(printer, "PrinterExtStatus") == 1; }, 30000)) << printer;
}

std::string FileOf(const std::string& name, const std::string& text) {
    const std::string path = PrivateDirectory() + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

void AddExamplePrinter() {
    OrielText({"reg", "import", SourcePath("examples/example_laser.reg")});
    OrielText({"printers", "add", kPrinter, "--driver", "Example Laser"});
}

RunningProduct::RunningProduct() : m_up(TestProcess::Program(ProgramPath("oriel"), {"up", "--json"})) {
    for (Json event = Json::object(); event.value("event", "") != "up";) {
        const std::string line = m_up.Hear();
        event = Json::parse(line, nullptr, false);
        if (event.is_discarded()) throw std::runtime_error("the product did not start: " + line + m_up.Errors());
    }
}

RunningProduct::~RunningProduct() {
    if (!m_up.Running()) return;
    m_up.Terminate();
    EXPECT_EQ(m_up.Wait(), 0) << m_up.Errors();
}

Json RunningProduct::Events(const Words& names) {
    Json event;
    for (const std::string& name : names) {
        event = Json::parse(m_up.Hear(), nullptr, false);
        EXPECT_EQ(event.value("event", ""), name);
    }
    return event;
}

void RunningProduct::KillService() {
    KillProcess(ProcessOf(kServiceProgram));
    Events({"service-ended", "service-started"});
}

std::vector<int> ProcessesOf(const std::string& program) {
    const auto textOf = [](const std::filesystem::path& path) {
        std::ifstream stream(path, std::ios::binary);
        std::ostringstream text;
        text << stream.rdbuf(); // which throws nothing when the process has ended
        return text.str();
    };
    std::vector<int> processes;
    const std::string state = std::string("ORIEL_STATE_DIR=") + std::getenv("ORIEL_STATE_DIR") + '\0';
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const int process = std::atoi(entry.path().filename().c_str());
        const std::string command = textOf(entry.path() / "cmdline");
        if (process <= 0 || command.find(program) == std::string::npos) continue;
        // The object server has no environment, but its directory as an argument.
        if (('\0' + textOf(entry.path() / "environ")).find('\0' + state) != std::string::npos ||
            command.find(std::getenv("ORIEL_RUNTIME_DIR") + std::string(1, '\0')) != std::string::npos)
            processes.push_back(process);
    }
    return processes;
}

int ProcessOf(const std::string& program) {
    const std::vector<int> processes = ProcessesOf(program);
    return processes.empty() ? 0 : processes.front();
}

void KillProcess(int process) {
    kill(process, SIGKILL);
}
