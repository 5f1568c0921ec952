// Reading the list, and its binary and text forms. No state.
#include "commands/access_list.h"

#include "base/service_client.h"

#include "product/variable_names.h"

#include <sddl.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kLengthSize = sizeof(uint32_t); // precedes every value whose size varies
constexpr size_t kSidOffset = offsetof(ACCESS_ALLOWED_ACE, SidStart);
constexpr size_t kLargestSid = offsetof(SID, SubAuthority) + SID_MAX_SUB_AUTHORITIES * sizeof(DWORD);
constexpr DWORD kNameSize = 512;

using LocalMemory = Guard<HLOCAL, &LocalFree>;

// The list in a vector, whose memory is aligned for records.
PACL AsList(const Bytes& list) {
    return reinterpret_cast<PACL>(const_cast<uint8_t*>(list.data()));
}

std::string SidText(PSID sid) {
    char* text = nullptr;
    if (!ConvertSidToStringSidA(sid, &text)) return "";
    const LocalMemory owned(text);
    return text;
}

// Empty when there is no such account.
std::string AccountName(PSID sid, SID_NAME_USE* use) {
    char name[kNameSize];
    char domain[kNameSize];
    DWORD nameSize = sizeof name;
    DWORD domainSize = sizeof domain;
    if (!LookupAccountSidA(nullptr, sid, name, &nameSize, domain, &domainSize, use)) return "";
    return ToUtf8(*domain != '\0' ? std::string(domain) + "\\" + name : name);
}

// Information of this process's token. SIDs point into the block.
template <typename Record>
class TokenInformation {
public:
    explicit TokenInformation(TOKEN_INFORMATION_CLASS informationClass) {
        KernelHandle token;
        DWORD size = 0;
        if (OpenProcessToken(GetCurrentProcess(), TOKEN_READ, token.Receive()))
            GetTokenInformation(token.Get(), informationClass, nullptr, 0, &size);
        m_block.resize(size);
        if (size == 0 || !GetTokenInformation(token.Get(), informationClass, m_block.data(), size, &size))
            throw SystemFailure(GetLastError(), "cannot find out who you are");
    }
    const Record& Get() const { return *reinterpret_cast<const Record*>(m_block.data()); }

private:
    Bytes m_block;
};

struct Self {
    TokenInformation<TOKEN_USER> user{TokenUser};
    TokenInformation<TOKEN_GROUPS> groups{TokenGroups};

    bool IsUser(PSID sid) const { return EqualSid(sid, user.Get().User.Sid); }
    bool IsGroup(PSID sid) const {
        const TOKEN_GROUPS& all = groups.Get();
        for (DWORD i = 0; i < all.GroupCount; ++i)
            if (EqualSid(sid, all.Groups[i].Sid)) return true;
        return false;
    }
};

bool IsCreatorOwner(PSID sid) {
    return SidText(sid) == "S-1-3-0";
}

std::string TextOf(PACL list) {
    SECURITY_DESCRIPTOR descriptor;
    char* text = nullptr;
    if (!InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&descriptor, TRUE, list, FALSE) ||
        !ConvertSecurityDescriptorToStringSecurityDescriptorA(&descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                              &text, nullptr))
        return "";
    const LocalMemory owned(text);
    return text;
}

ListEntry Describe(const uint8_t* bytes, const Self& self) {
    ACE_HEADER header;
    std::memcpy(&header, bytes, sizeof header);
    ListEntry entry{.denies = header.AceType == ACCESS_DENIED_ACE_TYPE, .text = ToHex(bytes, header.AceSize)};
    if (!entry.denies && header.AceType != ACCESS_ALLOWED_ACE_TYPE) return entry;
    std::memcpy(&entry.mask, bytes + offsetof(ACCESS_ALLOWED_ACE, Mask), sizeof entry.mask);

    // An entry's text is that of a list with this entry alone, without "D:".
    Bytes alone(sizeof(ACL));
    ACL list{.AclRevision = ACL_REVISION, .AceCount = 1};
    list.AclSize = static_cast<WORD>(sizeof list + header.AceSize);
    std::memcpy(alone.data(), &list, sizeof list);
    alone.insert(alone.end(), bytes, bytes + header.AceSize);
    if (const std::string text = TextOf(AsList(alone)); !text.empty()) entry.text = text.substr(2);

    PSID sid = alone.data() + sizeof list + kSidOffset;
    SID_NAME_USE use = SidTypeUser;
    entry.account = AccountName(sid, &use);
    const bool applies = use == SidTypeUser ? self.IsUser(sid) : self.IsGroup(sid);
    if (entry.account.empty()) {
        entry.account = SidText(sid);
        entry.counts = Counts::NoAccount;
    } else if (applies) {
        entry.counts = use == SidTypeUser ? Counts::ForUser : Counts::ForGroup;
    } else {
        entry.counts = IsCreatorOwner(sid) ? Counts::ForOwners : Counts::NotForYou;
    }
    return entry;
}

// The SID of an account that is given by its name.
std::string SidOfAccount(const std::string& name) {
    const std::string ansi = RequireAnsi(name, "the account name");
    DWORD sid[kLargestSid / sizeof(DWORD)];
    DWORD sidSize = sizeof sid;
    char domain[kNameSize];
    DWORD domainSize = sizeof domain;
    SID_NAME_USE use = SidTypeUser;
    if (!LookupAccountNameA(nullptr, ansi.c_str(), sid, &sidSize, domain, &domainSize, &use))
        throw UsageFailure("there is no account \"" + name + "\"", "give a name, a SID, or WD, CO, AU, BA, BU");
    return SidText(sid);
}

// Replaces account names by SIDs. Anything else stays as it is; the conversion refuses it.
std::string WithSids(const std::string& text) {
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find(')', at), text.size());
        const size_t account = text.rfind(';', end) + 1;
        const bool named = account > at && end < text.size();
        const std::string name = named ? text.substr(account, end - account) : "";
        result += text.substr(at, (named ? account : end) - at);
        PSID parsed = nullptr;
        const bool known = name.empty() || ConvertStringSidToSidA(name.c_str(), &parsed);
        const LocalMemory owned(parsed);
        result += known ? name : SidOfAccount(name);
        if (end < text.size()) result += ')';
        at = end + 1;
    }
    return result;
}

} // namespace

Bytes ReadAccessControlList(const OpenedPrinter& printer) {
    Bytes value =
        ServiceDatabase(printer, WhatOf("read", names::kAccessControlList, printer)).Read(names::kAccessControlList);
    value.erase(value.begin(), value.begin() + static_cast<ptrdiff_t>(std::min(value.size(), kLengthSize)));
    return value;
}

bool IsWholeList(const Bytes& list) {
    return list.size() >= sizeof(ACL) && AsList(list)->AclSize <= list.size() && IsValidAcl(AsList(list));
}

std::string ListText(const Bytes& list) {
    std::string text = TextOf(AsList(list));
    if (text.empty())
        throw Failure{Exit::False, "the list has entries that neither allow nor deny, for which there is no text", "",
                      "'oriel acl show --json' gives its bytes"};
    return text;
}

std::vector<ListEntry> ListEntries(const Bytes& list) {
    const Self self;
    std::vector<ListEntry> entries;
    const uint8_t* at = list.data() + sizeof(ACL);
    for (WORD left = AsList(list)->AceCount; left > 0; --left) {
        entries.push_back(Describe(at, self));
        ACE_HEADER header;
        std::memcpy(&header, at, sizeof header);
        at += header.AceSize;
    }
    return entries;
}

Bytes ParseListText(const std::string& text) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(WithSids(text).c_str(), SDDL_REVISION_1, &descriptor,
                                                              nullptr)) {
        const DWORD error = GetLastError();
        throw UsageFailure(error == ERROR_INVALID_ACL ? "the list is too long"
                                                      : "\"" + text + "\" is not a list of entries",
                           "write it like D:(A;;SWRC;;;WD)(A;;0x10;;;CO)");
    }
    const LocalMemory owned(descriptor);
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL list = nullptr;
    if (!GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted) || !present || list == nullptr)
        throw UsageFailure("\"" + text + "\" has no list");
    const auto* bytes = reinterpret_cast<const uint8_t*>(list);
    return Bytes(bytes, bytes + list->AclSize);
}

std::string OwnAccountName() {
    const TokenInformation<TOKEN_USER> user(TokenUser);
    SID_NAME_USE use = SidTypeUser;
    const std::string name = AccountName(user.Get().User.Sid, &use);
    return name.empty() ? SidText(user.Get().User.Sid) : name;
}
