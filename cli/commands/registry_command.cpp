// reg query, set, delete, import, export. No state.
#include "commands/commands.h"

#include "base/files.h"
#include "base/layer.h"
#include "base/output.h"
#include "base/registry.h"

#include <algorithm>
#include <cstring>

namespace {

struct RootName {
    HKEY root;
    const char* name;
    const char* shortName;
};
const RootName kRoots[] = {
    {HKEY_LOCAL_MACHINE, "HKEY_LOCAL_MACHINE", "HKLM"},
    {HKEY_CURRENT_USER, "HKEY_CURRENT_USER", "HKCU"},
};

struct KeyPath {
    HKEY root = nullptr;
    std::string path;  // ANSI, below the root; empty: the root itself
    std::string shown; // UTF-8, with the long name of the root
};

KeyPath ParseKey(const std::string& text) {
    const size_t end = std::min(text.find('\\'), text.size());
    const std::string rootText = text.substr(0, end);
    for (const RootName& row : kRoots) {
        if (lstrcmpiA(rootText.c_str(), row.name) != 0 && lstrcmpiA(rootText.c_str(), row.shortName) != 0) continue;
        const std::string below = end < text.size() ? text.substr(end + 1) : "";
        return {row.root, RequireAnsi(below, "the key"), row.name + (below.empty() ? "" : "\\" + below)};
    }
    throw UsageFailure("\"" + text + "\" does not start with a root key", "start it with HKLM\\ or HKCU\\");
}

Failure KeyFailure(LSTATUS status, const std::string& verb, const KeyPath& key) {
    Failure failure = SystemFailure(static_cast<uint32_t>(status), "cannot " + verb + " " + key.shown);
    if (status == ERROR_FILE_NOT_FOUND) failure.why = "no such key";
    return failure;
}

// ---- types of values

struct TypeRow {
    DWORD type;
    const char* name;
    const char* word; // on the command line
};
constexpr TypeRow kTypes[] = {
    {REG_SZ, "REG_SZ", "sz"},
    {REG_EXPAND_SZ, "REG_EXPAND_SZ", "expand"},
    {REG_MULTI_SZ, "REG_MULTI_SZ", "multi"},
    {REG_DWORD, "REG_DWORD", "dword"},
    {REG_QWORD, "REG_QWORD", "qword"},
    {REG_BINARY, "REG_BINARY", "binary"},
    {REG_NONE, "REG_NONE", "none"},
};

std::string TypeName(DWORD type) {
    for (const TypeRow& row : kTypes)
        if (row.type == type) return row.name;
    return "REG_" + std::to_string(type);
}

std::vector<std::string> Strings(const Bytes& data) {
    std::vector<std::string> strings;
    const std::string text(data.begin(), data.end());
    for (size_t at = 0; at < text.size() && text[at];) {
        const size_t end = std::min(text.find('\0', at), text.size());
        strings.push_back(ToUtf8(text.substr(at, end - at)));
        at = end + 1;
    }
    return strings;
}

// A text, a number or a list of texts, as the type and size say; else null.
Json DataJson(const RegistryValue& value) {
    if (const std::optional<std::string> text = value.Text()) return ToUtf8(*text);
    if (value.type == REG_MULTI_SZ) return Strings(value.data);
    const bool number =
        (value.type == REG_DWORD && value.data.size() == 4) || (value.type == REG_QWORD && value.data.size() == 8);
    if (!number) return nullptr;
    uint64_t word = 0;
    std::memcpy(&word, value.data.data(), value.data.size());
    return word;
}

std::string DataText(const RegistryValue& value) {
    const Json json = DataJson(value);
    if (json.is_string()) return Printable(json.get<std::string>());
    if (json.is_number()) {
        char text[48];
        const auto number = json.get<unsigned long long>();
        std::snprintf(text, sizeof text, "0x%llx (%llu)", number, number);
        return text;
    }
    if (!json.is_array()) return ToHex(value.data.data(), value.data.size());
    std::string text;
    for (const Json& one : json)
        text += (text.empty() ? "" : " | ") + Printable(one.get<std::string>());
    return text;
}

Json ValueJson(const RegistryValue& value) {
    return {{"name", ToUtf8(value.name)},
            {"type", TypeName(value.type)},
            {"data", DataJson(value)},
            {"hex", ToHex(value.data.data(), value.data.size())}};
}

std::vector<std::string> ValueRow(const RegistryValue& value) {
    return {"    " + (value.name.empty() ? "(default)" : Printable(ToUtf8(value.name))), TypeName(value.type),
            DataText(value)};
}

void QueryKey(HKEY root, const KeyPath& path, bool recursive, Json& keys) {
    LSTATUS status = ERROR_SUCCESS;
    const RegistryKey key = OpenKey(root, path.path, KEY_READ, &status);
    if (!key) throw KeyFailure(status, "read", path);
    Json values = Json::array();
    Table table;
    for (const RegistryValue& value : ListValues(key.Get())) {
        values.push_back(ValueJson(value));
        table.rows.push_back(ValueRow(value));
    }
    const std::vector<std::string> names = ListSubkeys(key.Get());
    Json subkeys = Json::array();
    for (const std::string& name : names)
        subkeys.push_back(ToUtf8(name));
    keys.push_back({{"key", path.shown}, {"values", values}, {"subkeys", subkeys}});
    if (!g_output.json) {
        PrintLine(Styled(Printable(path.shown), Style::Name));
        table.Print(false);
    }
    for (const std::string& name : names) {
        const KeyPath below{path.root, path.path.empty() ? name : path.path + "\\" + name,
                            path.shown + "\\" + ToUtf8(name)};
        if (recursive) {
            QueryKey(root, below, true, keys);
        } else if (!g_output.json) {
            PrintLine(Printable(below.shown));
        }
    }
}

Bytes ZeroEnded(const std::string& text, const char* what) {
    const std::string ansi = RequireAnsi(text, what);
    return Bytes(ansi.c_str(), ansi.c_str() + ansi.size() + 1);
}

Bytes EncodeData(DWORD type, const std::vector<std::string>& data) {
    Bytes bytes;
    if (type == REG_MULTI_SZ) {
        for (const std::string& text : data) {
            if (text.empty()) throw UsageFailure("a string in a REG_MULTI_SZ cannot be empty");
            const Bytes one = ZeroEnded(text, "the data");
            bytes.insert(bytes.end(), one.begin(), one.end());
        }
        bytes.push_back(0);
        return bytes;
    }
    if (type == REG_BINARY || type == REG_NONE) {
        std::string text;
        for (const std::string& word : data)
            text += word + " ";
        const std::optional<Bytes> parsed = FromHex(text);
        if (!parsed)
            throw UsageFailure("\"" + text + "\" is not a list of bytes", "give two hexadecimal digits for each byte");
        return *parsed;
    }
    if (data.size() != 1) throw UsageFailure(TypeName(type) + " takes one DATA", "quote text that contains spaces");
    if (type == REG_SZ || type == REG_EXPAND_SZ) return ZeroEnded(data.front(), "the data");
    const unsigned bits = type == REG_QWORD ? 64 : 32;
    const std::optional<uint64_t> number = ParseNumber(data.front(), bits);
    if (!number)
        throw UsageFailure(TypeName(type) + " takes a " + std::to_string(bits) + "-bit number, not \"" + data.front() +
                           "\"");
    const auto* start = reinterpret_cast<const uint8_t*>(&*number);
    return Bytes(start, start + bits / 8);
}

} // namespace

Exit RegQueryCommand(const std::string& keyText, const std::optional<std::string>& valueName, bool recursive) {
    const KeyPath path = ParseKey(keyText);
    if (!valueName) {
        Json keys = Json::array();
        QueryKey(path.root, path, recursive, keys);
        if (g_output.json) PrintJson({{"keys", keys}});
        return Exit::Done;
    }
    LSTATUS status = ERROR_SUCCESS;
    const RegistryKey key = OpenKey(path.root, path.path, KEY_QUERY_VALUE, &status);
    if (!key) throw KeyFailure(status, "read", path);
    const std::optional<RegistryValue> value = ReadValue(key.Get(), RequireAnsi(*valueName, "the value name"));
    if (!value)
        throw Failure{Exit::False, "no value \"" + *valueName + "\" in " + path.shown, "",
                      "list them with 'oriel reg query \"" + path.shown + "\"'"};
    if (g_output.json) {
        PrintJson({{"key", path.shown}, {"value", ValueJson(*value)}});
    } else {
        PrintLine(DataText(*value));
    }
    return Exit::Done;
}

Exit RegSetCommand(const NewRegistryValue& value) {
    const KeyPath path = ParseKey(value.key);
    const auto type =
        std::find_if(std::begin(kTypes), std::end(kTypes), [&](const TypeRow& row) { return value.type == row.word; });
    if (type == std::end(kTypes)) throw UsageFailure("unknown type \"" + value.type + "\"");
    const Bytes data = value.name ? EncodeData(type->type, value.data) : Bytes{};
    RegistryKey key;
    LSTATUS status = CreateKey(path.root, path.path, key);
    if (status != ERROR_SUCCESS) throw KeyFailure(status, "create the key", path);
    if (value.name) {
        status = RegSetValueExA(key.Get(), RequireAnsi(*value.name, "the value name").c_str(), 0, type->type,
                                data.data(), static_cast<DWORD>(data.size()));
        if (status != ERROR_SUCCESS) throw KeyFailure(status, "write \"" + *value.name + "\" in", path);
    }
    if (g_output.json) PrintJson({{"key", path.shown}, {"value", value.name ? Json(*value.name) : Json(nullptr)}});
    return Exit::Done;
}

Exit RegDeleteCommand(const std::string& keyText, const std::optional<std::string>& valueName, bool tree) {
    const KeyPath path = ParseKey(keyText);
    LSTATUS status = ERROR_SUCCESS;
    if (valueName) {
        const RegistryKey key = OpenKey(path.root, path.path, KEY_SET_VALUE, &status);
        if (!key) throw KeyFailure(status, "change", path);
        status = RegDeleteValueA(key.Get(), RequireAnsi(*valueName, "the value name").c_str());
        if (status == ERROR_FILE_NOT_FOUND)
            throw Failure{Exit::False, "no value \"" + *valueName + "\" in " + path.shown, "", "", status};
        if (status != ERROR_SUCCESS) throw KeyFailure(status, "delete \"" + *valueName + "\" of", path);
    } else {
        if (path.path.find_first_not_of('\\') == std::string::npos)
            throw UsageFailure("a root key cannot be deleted", "name a key below it");
        {
            const RegistryKey key = OpenKey(path.root, path.path, KEY_READ, &status);
            if (!key) throw KeyFailure(status, "delete", path);
            if (!tree && !ListSubkeys(key.Get()).empty())
                throw Failure{Exit::False, "cannot delete " + path.shown, "it has subkeys",
                              "--tree deletes it with them"};
        }
        status = DeleteTree(path.root, path.path);
        if (status != ERROR_SUCCESS) throw KeyFailure(status, "delete", path);
    }
    if (g_output.json) PrintJson({{"deleted", path.shown}, {"value", valueName ? Json(*valueName) : Json(nullptr)}});
    return Exit::Done;
}

Exit RegImportCommand(const std::string& file) {
    DWORD line = 0;
    const LSTATUS status = ImportRegistry(ReadWholeFile(file), line);
    if (status != ERROR_SUCCESS) {
        const std::string where = line ? ", line " + std::to_string(line) : "";
        Failure failure = SystemFailure(static_cast<uint32_t>(status), "cannot import " + file + where);
        if (status == ERROR_BAD_FORMAT) failure.next = "correct that line; nothing was changed";
        throw failure;
    }
    if (g_output.json) PrintJson({{"imported", file}});
    return Exit::Done;
}

Exit RegExportCommand(const std::string& keyText, const std::string& file) {
    const KeyPath path = ParseKey(keyText);
    std::string text;
    const LSTATUS status = ExportRegistry(path.root, path.path, text);
    if (status != ERROR_SUCCESS) throw KeyFailure(status, "export", path);
    if (g_output.json && file == "-") {
        PrintJson({{"key", path.shown}, {"text", ToUtf8(text)}});
        return Exit::Done;
    }
    WriteWholeFile(file, text);
    if (g_output.json) PrintJson({{"key", path.shown}, {"file", file}, {"bytes", text.size()}});
    return Exit::Done;
}
