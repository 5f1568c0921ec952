// The process has one binding, and one such database at a time.
#include "base/service_client.h"

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
    std::string name;
    Check(FindPrinterDatabase(RequireAnsi(printer.shownName, "the printer name"), &name), m_what);
    if (name.empty()) Check(Answer::UnknownDatabase, m_what);
    Check(OpenDatabase(name.c_str(), m_database.Receive()), m_what);
}

Bytes ServiceDatabase::Read(const char* variable) const {
    Bytes value;
    Check(ReadWholeValue(m_database.Get(), variable, &value), m_what);
    return value;
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
