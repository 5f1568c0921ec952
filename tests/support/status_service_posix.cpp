#include "private_machine.h"
#include "status_service.h"

TestProcess StartTheService() {
    return TestProcess::Program(ProgramPath("TVSDBN.EXE"));
}

void Service::Stop() {
    process.Terminate();
}
