// The process has one binding, and one such database at a time.
#include "base/service_client.h"

#include "product/object_names.h"

namespace {

void Check(Answer answer, const std::string& what) {
    if (answer != Answer::Done) throw StatusFailure(static_cast<int32_t>(answer), what);
}

} // namespace

std::string RunningInstance() {
    const ServiceBinding binding;
    product::ServiceInstance instance = 0;
    if (!BindStatusDatabase() || GetServiceInstance(&instance) != Answer::Done) return "";
    return std::to_string(instance);
}

ServiceDatabase::ServiceDatabase(const OpenedPrinter& printer, const std::string& what) : m_what(what) {
    if (!BindStatusDatabase()) Check(Answer::InvalidBinding, m_what);
    Check(FindPrinterDatabase(RequireAnsi(printer.shownName, "the printer name"), &m_name), m_what);
    if (m_name.empty()) Check(Answer::UnknownDatabase, m_what);
    Check(OpenDatabase(m_name.c_str(), m_database.Receive()), m_what);
}

Bytes ServiceDatabase::Read(const char* variable) const {
    Bytes value;
    Check(ReadWholeValue(m_database.Get(), variable, &value), m_what);
    return value;
}

Bytes ServiceDatabase::TryRead(const char* variable) const {
    Bytes value;
    return ReadWholeValue(m_database.Get(), variable, &value) == Answer::Done ? value : Bytes();
}

KernelHandle OpenWrittenEvent(const std::string& database, const char* variable) {
    const product::KernelName name = product::VariableEventName(product::MachineIsTerminalServer(), database, variable,
                                                                product::VariableSignal::Updated);
    return KernelHandle(OpenEventA(SYNCHRONIZE, FALSE, name.text));
}

HANDLE ServiceDatabase::Watch(const char* variable) {
    if (m_written || WatchVariable(m_database.Get(), variable, product::kEveryWrite) != Answer::Done)
        return m_written.Get();
    m_written = OpenWrittenEvent(m_name, variable);
    return m_written.Get();
}

ServiceDatabase::Writes ServiceDatabase::WritesOf(const char* variable) const {
    const Answer answer = MayWrite(m_database.Get(), variable);
    if (answer == Answer::AccessDenied) return Writes::Denied;
    if (answer == Answer::NotWritable || answer == Answer::UnknownVariable) return Writes::NotStored;
    Check(answer, m_what);
    return Writes::Taken;
}

// A restarted service never issues a handle of its predecessor.
ServiceDatabase::Service ServiceDatabase::Look() const {
    product::DatabaseInfo info{};
    switch (GetDatabaseInfo(m_database.Get(), &info)) {
    case Answer::Done:
        return Service::Same;
    case Answer::UnknownDatabase:
        return Service::Another;
    default:
        return Service::Gone;
    }
}
