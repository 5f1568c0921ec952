#include "base/child_program.h"

std::string Quoted(const std::string& word) {
    std::string quoted = "\"";
    size_t backslashes = 0;
    for (const char c : word) {
        if (c == '"') quoted.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    quoted.append(backslashes, '\\');
    return quoted + '"';
}

KernelHandle StartProgram(const std::string& program, std::string commandLine) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    if (!CreateProcessA(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &information))
        return {};
    CloseHandle(information.hThread);
    return KernelHandle(information.hProcess);
}
