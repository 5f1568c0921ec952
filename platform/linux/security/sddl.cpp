// Security records as text (SDDL). No state.
#include "base/call.h"
#include "security/accounts.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sddl.h>
#include <securitybaseapi.h>
#include <string>
#include <vector>

namespace oriel {
namespace {

// In the order in which rights are written.
struct Letters {
    char text[3];
    DWORD bits;
};
constexpr Letters kRights[] = {
    {"CC", 0x1},
    {"DC", 0x2},
    {"LC", 0x4},
    {"SW", 0x8},
    {"RP", 0x10},
    {"WP", 0x20},
    {"DT", 0x40},
    {"LO", 0x80},
    {"CR", 0x100},
    {"SD", DELETE},
    {"RC", READ_CONTROL},
    {"WD", WRITE_DAC},
    {"WO", WRITE_OWNER},
    {"GA", GENERIC_ALL},
    {"GR", GENERIC_READ},
    {"GW", GENERIC_WRITE},
    {"GX", GENERIC_EXECUTE},
};
constexpr Letters kFlags[] = {
    {"OI", OBJECT_INHERIT_ACE}, {"CI", CONTAINER_INHERIT_ACE}, {"NP", NO_PROPAGATE_INHERIT_ACE},
    {"IO", INHERIT_ONLY_ACE},   {"ID", INHERITED_ACE},
};
constexpr Letters kTypes[] = {{"A", ACCESS_ALLOWED_ACE_TYPE}, {"D", ACCESS_DENIED_ACE_TYPE}};

constexpr char kListTitle[] = "D:";
constexpr size_t kFields = 6; // type, flags, rights, object, inherited object, account
constexpr size_t kLargestList = 0xFFFC;
constexpr unsigned long long kDecimalAuthorities = 1ULL << 32; // above this, authorities are written in hexadecimal

// A number up to the end of the text, decimal or with 0x.
std::optional<unsigned long long> Number(std::string_view text, unsigned long long limit) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (hex) text.remove_prefix(2);
    unsigned long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || number > limit) return std::nullopt;
    return number;
}

// Empty when a bit has no letters.
template <size_t count>
std::optional<std::string> ToLetters(const Letters (&table)[count], DWORD bits) {
    std::string text;
    for (const Letters& letters : table)
        if ((bits & letters.bits) == letters.bits) {
            text += letters.text;
            bits &= ~letters.bits;
        }
    return bits == 0 ? std::optional(text) : std::nullopt;
}

template <size_t count>
std::optional<DWORD> FromLetters(const Letters (&table)[count], std::string_view text) {
    DWORD bits = 0;
    for (; !text.empty(); text.remove_prefix(2)) {
        const Letters* found = nullptr;
        for (const Letters& letters : table)
            if (text.substr(0, 2) == letters.text) found = &letters;
        if (found == nullptr) return std::nullopt;
        bits |= found->bits;
    }
    return bits;
}

std::string_view Trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
}

std::string SidText(const SidCopy& sid) {
    unsigned long long authority = 0;
    for (size_t i = offsetof(SID, IdentifierAuthority); i < kSidHeaderSize; ++i)
        authority = authority << 8 | sid.bytes[i];
    char text[32];
    std::snprintf(text, sizeof text, authority < kDecimalAuthorities ? "S-1-%llu" : "S-1-0x%012llX", authority);
    std::string whole = text;
    for (DWORD i = 0; i < sid.SubAuthorities(); ++i)
        whole += "-" + std::to_string(sid.SubAuthority(i));
    return whole;
}

// An invalid SID when the text is not one.
SidCopy SidOf(std::string_view text) {
    if (const WellKnownAccount* known = FindWellKnownAlias(text)) return known->sid;
    if (!text.starts_with("S-1-")) return {};
    text.remove_prefix(4);
    std::vector<unsigned long long> parts;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find('-', at), text.size());
        const auto part = Number(text.substr(at, end - at), parts.empty() ? (1ULL << 48) - 1 : 0xFFFFFFFF);
        if (!part || parts.size() > SID_MAX_SUB_AUTHORITIES) return {};
        parts.push_back(*part);
        at = end + 1;
    }
    BYTE bytes[kMaxSidSize] = {SID_REVISION, static_cast<BYTE>(parts.size() - 1)};
    for (size_t i = 0; i < sizeof(SID_IDENTIFIER_AUTHORITY); ++i)
        bytes[kSidHeaderSize - 1 - i] = static_cast<BYTE>(parts[0] >> (8 * i));
    for (size_t i = 1; i < parts.size(); ++i) {
        const auto part = static_cast<DWORD>(parts[i]);
        std::memcpy(bytes + kSidHeaderSize + (i - 1) * sizeof part, &part, sizeof part);
    }
    return SidCopy(bytes);
}

std::string SidOrAlias(const SidCopy& sid) {
    const WellKnownAccount* known = FindWellKnown(sid);
    return known != nullptr ? known->alias : SidText(sid);
}

// Nothing for an entry of another kind.
std::optional<std::string> EntryText(const BYTE* entry) {
    ACCESS_ALLOWED_ACE fixed;
    std::memcpy(&fixed, entry, kAceSidOffset);
    const bool denies = fixed.Header.AceType == ACCESS_DENIED_ACE_TYPE;
    const std::optional<std::string> flags = ToLetters(kFlags, fixed.Header.AceFlags);
    if ((!denies && fixed.Header.AceType != ACCESS_ALLOWED_ACE_TYPE) || !flags) return std::nullopt;
    char number[16];
    std::snprintf(number, sizeof number, "0x%x", fixed.Mask);
    return std::string("(") + (denies ? "D" : "A") + ";" + *flags + ";" +
           ToLetters(kRights, fixed.Mask).value_or(number) + ";;;" + SidOrAlias(SidCopy(entry + kAceSidOffset)) + ")";
}

// Appends the entry between two brackets. ERROR_SUCCESS or why not.
DWORD AppendEntry(std::vector<BYTE>& list, std::string_view text) {
    std::string_view fields[kFields];
    for (size_t i = 0; i < kFields; ++i) {
        const size_t end = text.find(';');
        if ((end == std::string_view::npos) != (i == kFields - 1)) return ERROR_INVALID_PARAMETER;
        fields[i] = Trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end, text.size() - 1) + 1);
    }
    const auto& [type, flags, rights, object, inherited, account] = fields;
    const Letters* typeFound = nullptr;
    for (const Letters& letters : kTypes)
        if (type == letters.text) typeFound = &letters;
    const std::optional<DWORD> flagBits = FromLetters(kFlags, flags);
    std::optional<DWORD> mask = FromLetters(kRights, rights);
    if (!mask) {
        if (const auto number = Number(rights, 0xFFFFFFFF)) mask = static_cast<DWORD>(*number);
    }
    if (typeFound == nullptr || !flagBits || !mask || !object.empty() || !inherited.empty())
        return ERROR_INVALID_PARAMETER;
    const SidCopy sid = SidOf(account);
    if (!sid.Valid()) return ERROR_INVALID_SID;

    ACCESS_ALLOWED_ACE entry{};
    entry.Header.AceType = static_cast<BYTE>(typeFound->bits);
    entry.Header.AceFlags = static_cast<BYTE>(*flagBits);
    entry.Header.AceSize = static_cast<WORD>(kAceSidOffset + sid.length);
    entry.Mask = *mask;
    if (list.size() + entry.Header.AceSize > kLargestList) return ERROR_INVALID_ACL;
    const auto* bytes = reinterpret_cast<const BYTE*>(&entry);
    list.insert(list.end(), bytes, bytes + kAceSidOffset);
    list.insert(list.end(), sid.bytes, sid.bytes + sid.length);
    return ERROR_SUCCESS;
}

// The list of a text that is only a list.
DWORD ParseList(std::string_view text, std::vector<BYTE>& list) {
    list.resize(sizeof(ACL));
    text = Trimmed(text);
    if (!text.starts_with(kListTitle)) return ERROR_INVALID_PARAMETER;
    text.remove_prefix(sizeof kListTitle - 1);
    ACL header{.AclRevision = ACL_REVISION};
    for (text = Trimmed(text); !text.empty(); text = Trimmed(text)) {
        const size_t end = text.find(')');
        if (text[0] != '(' || end == std::string_view::npos) return ERROR_INVALID_PARAMETER;
        if (const DWORD error = AppendEntry(list, text.substr(1, end - 1)); error != ERROR_SUCCESS) return error;
        ++header.AceCount;
        text.remove_prefix(end + 1);
    }
    header.AclSize = static_cast<WORD>(list.size());
    std::memcpy(list.data(), &header, sizeof header);
    return ERROR_SUCCESS;
}

// A block for LocalFree.
template <typename Pointer>
BOOL Give(Pointer* to, const void* data, size_t size) {
    void* block = std::malloc(size);
    if (block == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY);
    *to = static_cast<Pointer>(std::memcpy(block, data, size));
    return TRUE;
}

} // namespace
} // namespace oriel

using namespace oriel;

HLOCAL WINAPI LocalFree(HLOCAL memory) {
    std::free(memory);
    return nullptr;
}

BOOL WINAPI ConvertSidToStringSidA(PSID sid, LPSTR* text) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        const SidCopy copy(sid);
        if (!copy.Valid()) return Fail(ERROR_INVALID_SID);
        if (text == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        const std::string whole = SidText(copy);
        return Give(text, whole.c_str(), whole.size() + 1);
    });
}

BOOL WINAPI ConvertStringSidToSidA(LPCSTR text, PSID* sid) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (text == nullptr || sid == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        const SidCopy parsed = SidOf(text);
        return parsed.Valid() ? Give(sid, parsed.bytes, parsed.length) : Fail(ERROR_INVALID_SID);
    });
}

BOOL WINAPI ConvertSecurityDescriptorToStringSecurityDescriptorA(PSECURITY_DESCRIPTOR descriptor, DWORD revision,
                                                                 SECURITY_INFORMATION information, LPSTR* text,
                                                                 PULONG length) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (revision != SDDL_REVISION_1) return Fail(ERROR_UNKNOWN_REVISION);
        if (information != DACL_SECURITY_INFORMATION || text == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        const DescriptorParts parts(descriptor);
        const AclCopy list(parts.dacl);
        if (!parts.valid || !list.Valid()) return Fail(ERROR_INVALID_SECURITY_DESCR);
        std::string whole = kListTitle;
        const BYTE* at = list.bytes.get() + sizeof(ACL);
        for (DWORD i = 0; i < list.count; ++i) {
            ACE_HEADER header;
            std::memcpy(&header, at, sizeof header);
            const bool known = header.AceSize >= kAceSidOffset;
            const std::optional<std::string> entry = known ? EntryText(at) : std::nullopt;
            if (!entry) return Fail(ERROR_INVALID_ACL);
            whole += *entry;
            at += header.AceSize;
        }
        if (!Give(text, whole.c_str(), whole.size() + 1)) return FALSE;
        if (length != nullptr) *length = static_cast<ULONG>(whole.size() + 1);
        return TRUE;
    });
}

BOOL WINAPI ConvertStringSecurityDescriptorToSecurityDescriptorA(LPCSTR text, DWORD revision,
                                                                 PSECURITY_DESCRIPTOR* descriptor, PULONG size) {
    return Call<BOOL>(FALSE, [&]() -> BOOL {
        if (revision != SDDL_REVISION_1) return Fail(ERROR_UNKNOWN_REVISION);
        if (text == nullptr || descriptor == nullptr) return Fail(ERROR_INVALID_PARAMETER);
        std::vector<BYTE> list;
        if (const DWORD error = ParseList(text, list); error != ERROR_SUCCESS) return Fail(error);
        SECURITY_DESCRIPTOR_RELATIVE header{};
        header.Revision = SECURITY_DESCRIPTOR_REVISION;
        header.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
        header.Dacl = sizeof header;
        const auto* bytes = reinterpret_cast<const BYTE*>(&header);
        list.insert(list.begin(), bytes, bytes + sizeof header);
        if (!Give(descriptor, list.data(), list.size())) return FALSE;
        if (size != nullptr) *size = static_cast<ULONG>(list.size());
        return TRUE;
    });
}
