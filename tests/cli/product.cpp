#include "product.h"

#include "private_machine.h"

#include <gtest/gtest.h>

ProgramResult Oriel(const std::vector<std::string>& arguments, const Environment& environment) {
    return RunProgram(ProgramPath("oriel"), arguments, environment);
}

ProgramResult OrielAsNobody(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"--reuid=65534", "--regid=65534", "--clear-groups", ProgramPath("oriel")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunProgram("/usr/bin/setpriv", all);
}

Json OrielJson(std::vector<std::string> arguments, int exitCode, const Environment& environment) {
    arguments.push_back("--json");
    const ProgramResult result = Oriel(arguments, environment);
    EXPECT_EQ(result.exitCode, exitCode) << arguments[0] << ": " << result.errors;
    Json document = Json::parse(result.output, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << arguments[0] << ": " << result.output;
    return document;
}

std::string OrielText(const std::vector<std::string>& arguments, const Environment& environment) {
    ProgramResult result = Oriel(arguments, environment);
    EXPECT_EQ(result.exitCode, 0) << arguments[0] << ": " << result.errors;
    if (result.output.ends_with('\n')) result.output.pop_back();
    return result.output;
}

RunningProduct::RunningProduct(const Environment& environment)
    : m_up(TestProcess::Program(ProgramPath("oriel"), {"up", "--json"}, environment)) {
    for (;;) {
        const std::string line = m_up.Hear();
        const Json event = Json::parse(line, nullptr, false);
        if (event.is_discarded()) {
            ADD_FAILURE() << "the product did not start: " << line << m_up.Errors();
            return;
        }
        if (event["event"] == "up") return;
    }
}

RunningProduct::~RunningProduct() {
    if (!m_up.Running()) return;
    m_up.Terminate();
    EXPECT_EQ(m_up.Wait(), 0) << m_up.Errors();
}

Json RunningProduct::Event(const std::string& name) {
    Json event = Json::parse(m_up.Hear(), nullptr, false);
    EXPECT_EQ(event.value("event", ""), name);
    return event;
}

void AddExamplePrinter(const Environment& environment) {
    OrielText({"reg", "import", SourcePath("examples/example_laser.reg")}, environment);
    OrielText({"printers", "add", "Front desk", "--driver", "Example Laser"}, environment);
}
