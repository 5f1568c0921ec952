// State: the object's; libsnmp's own is set up once.
#include "agent.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace devices {
namespace {

constexpr size_t kRowsMax = 512;    // of a column
constexpr size_t kBytesMax = 4096;  // of a value
constexpr int kRowsOfExchange = 24; // fits a datagram
constexpr int kTries = 3;
constexpr int64_t kLongestTryMs = 1200;
constexpr int64_t kShortestTryMs = 50;
constexpr off_t kCredentialsMax = 4096;

void SetUpOnce() {
    static const bool done = [] {
        // No file of the system changes what is asked, and nothing is written.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
        netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, "/dev/null");
        setenv("MIBS", "", 1); // objects are numbers here
        setenv("MIBDIRS", "/dev/null", 1);
        netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
        init_snmp("oriel");
        return true;
    }();
    static_cast<void>(done);
}

// Key and value at a separator.
std::pair<std::string, std::string> Divide(std::string_view text, char separator) {
    const size_t at = text.find(separator);
    return {std::string(text.substr(0, at)), at == text.npos ? "" : std::string(text.substr(at + 1))};
}

bool ReadCredentials(const std::string& path, std::map<std::string, std::string>* credentials, std::string* error) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        *error = "cannot read the credentials in " + path + ": " + std::strerror(errno);
    } else if ((status.st_uid != 0 && status.st_uid != geteuid()) || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        *error = "others may read or change the credentials in " + path + ": chmod 600, and owned by root";
    } else {
        std::string text(static_cast<size_t>(std::min(status.st_size, kCredentialsMax)), '\0');
        const ssize_t count = read(file, text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        std::string_view rest = text;
        while (!rest.empty()) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(line.size() + 1, rest.size()));
            if (!line.empty() && line.front() != '#') credentials->insert(Divide(line, ' '));
        }
    }
    if (file >= 0) close(file);
    return error->empty();
}

struct Protocol {
    std::string_view name;
    const oid* id;
    size_t length;
};
const Protocol kAuthentications[] = {
    {"SHA", usmHMACSHA1AuthProtocol, OID_LENGTH(usmHMACSHA1AuthProtocol)},
    {"SHA-256", usmHMAC192SHA256AuthProtocol, OID_LENGTH(usmHMAC192SHA256AuthProtocol)},
    {"SHA-512", usmHMAC384SHA512AuthProtocol, OID_LENGTH(usmHMAC384SHA512AuthProtocol)},
    {"MD5", usmHMACMD5AuthProtocol, OID_LENGTH(usmHMACMD5AuthProtocol)},
};
const Protocol kPrivacies[] = {
    {"AES", usmAESPrivProtocol, OID_LENGTH(usmAESPrivProtocol)},
    {"DES", usmDESPrivProtocol, OID_LENGTH(usmDESPrivProtocol)},
};

template <size_t count>
const Protocol* ProtocolOf(const Protocol (&protocols)[count], const std::string& name) {
    const auto found =
        std::find_if(protocols, protocols + count, [&](const Protocol& protocol) { return protocol.name == name; });
    return found == protocols + count ? nullptr : found;
}

bool MakeKey(netsnmp_session& session, const std::string& passphrase, u_char* key, size_t* length) {
    return generate_Ku(session.securityAuthProto, static_cast<u_int>(session.securityAuthProtoLen),
                       reinterpret_cast<const u_char*>(passphrase.data()), passphrase.size(), key,
                       length) == SNMPERR_SUCCESS;
}

// The user of version 3. session points into the address.
bool SetUser(netsnmp_session& session, AgentAddress& address, std::string* error) {
    std::map<std::string, std::string>& own = address.credentials;
    session.securityName = own["user"].data();
    session.securityNameLen = own["user"].size();
    session.securityLevel = SNMP_SEC_LEVEL_NOAUTH;
    const Protocol* authentication = ProtocolOf(kAuthentications, own["auth"].empty() ? "SHA" : own["auth"]);
    const Protocol* privacy = ProtocolOf(kPrivacies, own["priv"].empty() ? "AES" : own["priv"]);
    if (own["user"].empty() || authentication == nullptr || privacy == nullptr) {
        *error = "the credentials lack a user, or name an unknown auth or priv";
        return false;
    }
    if (own["authpass"].empty()) return true;
    session.securityLevel = SNMP_SEC_LEVEL_AUTHNOPRIV;
    session.securityAuthProto = const_cast<oid*>(authentication->id);
    session.securityAuthProtoLen = authentication->length;
    session.securityAuthKeyLen = USM_AUTH_KU_LEN;
    bool made = MakeKey(session, own["authpass"], session.securityAuthKey, &session.securityAuthKeyLen);
    if (!own["privpass"].empty()) {
        session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
        session.securityPrivProto = const_cast<oid*>(privacy->id);
        session.securityPrivProtoLen = privacy->length;
        session.securityPrivKeyLen = USM_PRIV_KU_LEN;
        made = made && MakeKey(session, own["privpass"], session.securityPrivKey, &session.securityPrivKeyLen);
    }
    if (!made) *error = "a passphrase in the credentials is too short: it has 8 characters or more";
    return made;
}

AgentValue ValueOf(const netsnmp_variable_list& variable) {
    AgentValue value;
    switch (variable.type) {
    case ASN_INTEGER:
        value.isNumber = true;
        value.number = *variable.val.integer;
        break;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
        value.isNumber = true;
        value.number = static_cast<uint32_t>(*variable.val.integer);
        break;
    case ASN_OCTET_STR:
        value.bytes.assign(reinterpret_cast<const char*>(variable.val.string), std::min(variable.val_len, kBytesMax));
        break;
    case ASN_OBJECT_ID:
        for (size_t i = 0; i < variable.val_len / sizeof(oid); ++i)
            value.bytes += (i == 0 ? "" : ".") + std::to_string(variable.val.objid[i]);
        break;
    default: // nothing that a printer tells
        break;
    }
    return value;
}

bool IsThere(const netsnmp_variable_list& variable) {
    return variable.type != SNMP_NOSUCHOBJECT && variable.type != SNMP_NOSUCHINSTANCE &&
           variable.type != SNMP_ENDOFMIBVIEW && variable.type != ASN_NULL;
}

ObjectId NameOf(const netsnmp_variable_list& variable) {
    return {variable.name, variable.name + variable.name_length};
}

void Ask(netsnmp_pdu* request, const ObjectId& object) {
    const std::vector<oid> name(object.begin(), object.end());
    snmp_add_null_var(request, name.data(), name.size());
}

} // namespace

struct Agent::Response {
    struct Free {
        void operator()(netsnmp_pdu* pdu) const { snmp_free_pdu(pdu); }
    };
    std::unique_ptr<netsnmp_pdu, Free> pdu{};
    const netsnmp_variable_list* First() const { return pdu ? pdu->variables : nullptr; }
};

bool ParseAgentAddress(const std::string& uri, AgentAddress* address, std::string* error) {
    constexpr std::string_view kScheme = "snmp://";
    std::string_view rest = uri;
    if (!rest.starts_with(kScheme)) rest = {};
    rest.remove_prefix(std::min(kScheme.size(), rest.size()));
    const size_t question = rest.find('?');
    std::string_view server = rest.substr(0, question);
    if (server.ends_with('/')) server.remove_suffix(1);
    const bool six = server.starts_with('[');
    const size_t bracket = server.find(']');
    const size_t colon = server.rfind(':');
    int port = SNMP_PORT;
    bool valid = !server.empty() && (!six || bracket != server.npos);
    if (valid && colon != server.npos && (!six || colon > bracket)) {
        const std::string_view digits = server.substr(colon + 1);
        const auto [end, wrong] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
        valid = wrong == std::errc{} && end == digits.data() + digits.size() && port > 0 && port < 65536;
        server = server.substr(0, colon);
    }
    for (const char c : server)
        valid = valid && (std::isalnum(static_cast<unsigned char>(c)) || std::strchr("-._[]:%", c) != nullptr);
    if (!valid || server.empty() || server.find(' ') != server.npos) {
        *error = "\"" + uri.substr(0, uri.find('?')) + "\" is no address such as snmp://printer";
        return false;
    }
    address->host = server;
    address->peer = (six ? "udp6:" : "udp:") + std::string(server) + ":" + std::to_string(port);
    std::string_view words = question == rest.npos ? std::string_view() : rest.substr(question + 1);
    std::string version = "2c", file;
    while (!words.empty()) {
        const auto [key, value] = Divide(words.substr(0, words.find('&')), '=');
        words.remove_prefix(std::min(words.find('&') == words.npos ? words.size() : words.find('&') + 1, words.size()));
        if (key == "community") {
            address->community = value;
        } else if (key == "version") {
            version = value;
        } else if (key == "credentials") {
            file = value;
        } else {
            *error = "\"" + key + "\" is no part of an SNMP address: version, community, credentials are";
            return false;
        }
    }
    if (!file.empty() && !ReadCredentials(file, &address->credentials, error)) return false;
    if (const auto own = address->credentials.find("community"); own != address->credentials.end())
        address->community = own->second;
    if (version != "1" && version != "2c" && version != "3") {
        *error = "\"" + version + "\" is no version of SNMP: 1, 2c and 3 are";
        return false;
    }
    address->version = version[0] - '0';
    if (address->version == 3 && file.empty()) *error = "version 3 needs credentials=FILE";
    return error->empty();
}

Agent::~Agent() {
    if (m_session != nullptr) snmp_sess_close(m_session);
}

bool Agent::Open(const AgentAddress& address, std::string* error) {
    SetUpOnce();
    m_address = address;
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = address.version == 1 ? SNMP_VERSION_1 : address.version == 2 ? SNMP_VERSION_2c : SNMP_VERSION_3;
    session.peername = m_address.peer.data();
    session.retries = 0; // Send repeats: it knows the deadline
    session.timeout = kLongestTryMs * 1000;
    if (address.version == 3) {
        if (!SetUser(session, m_address, error)) return false;
    } else {
        session.community = reinterpret_cast<u_char*>(m_address.community.data());
        session.community_len = m_address.community.size();
    }
    m_session = snmp_sess_open(&session);
    if (m_session == nullptr) *error = "the name " + address.host + " is not known, or version 3 is not answered";
    return m_session != nullptr;
}

void Agent::Begin(std::chrono::steady_clock::time_point deadline, const std::function<bool()>& isCut) {
    m_deadline = deadline;
    m_isCut = isCut;
    m_trouble.clear();
    m_refused = false;
}

// Takes the request.
Agent::Response Agent::Send(void* given) {
    auto* request = static_cast<netsnmp_pdu*>(given);
    for (int tries = 0; tries < kTries && !m_isCut(); ++tries) {
        const int64_t leftMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - std::chrono::steady_clock::now())
                .count();
        if (leftMs < kShortestTryMs) break;
        snmp_sess_session(m_session)->timeout = static_cast<long>(std::min(leftMs, kLongestTryMs)) * 1000;
        netsnmp_pdu* copy = snmp_clone_pdu(request);
        if (copy == nullptr) break;
        netsnmp_pdu* answer = nullptr;
        const int status = snmp_sess_synch_response(m_session, copy, &answer);
        Response response{.pdu = std::unique_ptr<netsnmp_pdu, Response::Free>(answer)};
        if (status == STAT_SUCCESS && response.pdu && response.pdu->command == SNMP_MSG_RESPONSE) {
            // An agent of version 1 tells which object it lacks; ask for the others.
            if (response.pdu->errstat == SNMP_ERR_NOSUCHNAME && request->command == SNMP_MSG_GET) {
                netsnmp_pdu* fewer = snmp_fix_pdu(response.pdu.get(), SNMP_MSG_GET);
                snmp_free_pdu(request);
                return fewer != nullptr ? Send(fewer) : Response{};
            }
            snmp_free_pdu(request);
            return response;
        }
        if (status != STAT_TIMEOUT) {
            int error = 0;
            int systemError = 0;
            char* text = nullptr;
            snmp_sess_error(m_session, &systemError, &error, &text);
            m_refused = m_address.version == 3;
            m_trouble = m_address.host + " takes no SNMP from us: " + (text != nullptr ? text : "");
            std::free(text);
            break;
        }
    }
    snmp_free_pdu(request);
    if (m_trouble.empty()) m_trouble = m_address.host + " does not answer in time";
    return {};
}

bool Agent::Get(const std::vector<ObjectId>& objects, std::map<ObjectId, AgentValue>* values) {
    netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GET);
    if (request == nullptr) return false;
    for (const ObjectId& object : objects)
        Ask(request, object);
    const Response response = Send(request);
    for (const netsnmp_variable_list* at = response.First(); at != nullptr; at = at->next_variable)
        if (response.pdu->errstat == SNMP_ERR_NOERROR && IsThere(*at)) (*values)[NameOf(*at)] = ValueOf(*at);
    return m_trouble.empty();
}

bool Agent::Walk(const ObjectId& column, std::map<ObjectId, AgentValue>* rows) {
    ObjectId last = column;
    while (rows->size() < kRowsMax) {
        netsnmp_pdu* request = snmp_pdu_create(m_address.version == 1 ? SNMP_MSG_GETNEXT : SNMP_MSG_GETBULK);
        if (request == nullptr) return false;
        if (m_address.version != 1) {
            request->non_repeaters = 0;
            request->max_repetitions = kRowsOfExchange;
        }
        Ask(request, last);
        const Response response = Send(request);
        if (!m_trouble.empty()) return false;
        bool more = false;
        for (const netsnmp_variable_list* at = response.First(); at != nullptr; at = at->next_variable) {
            const ObjectId name = NameOf(*at);
            const bool below = name.size() > column.size() && std::equal(column.begin(), column.end(), name.begin());
            // An agent that goes backwards would be asked forever.
            more = response.pdu->errstat == SNMP_ERR_NOERROR && IsThere(*at) && below && last < name;
            if (!more) break;
            (*rows)[ObjectId(name.begin() + static_cast<ptrdiff_t>(column.size()), name.end())] = ValueOf(*at);
            last = name;
        }
        if (!more) return true;
    }
    return true;
}

} // namespace devices
