// Security records: descriptors as text, and lists and descriptors as bytes.
#include "fuzz.h"
#include "security/records.h"

#include <sddl.h>
#include <sys/mman.h>
#include <windows.h>

namespace {

constexpr SECURITY_INFORMATION kList = DACL_SECURITY_INFORMATION;

std::string TextOf(PSECURITY_DESCRIPTOR descriptor) {
    LPSTR text = nullptr;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1, kList, &text, nullptr))
        return "";
    const std::string copy = text;
    LocalFree(text);
    return copy;
}

// A text that is understood becomes the same descriptor when it is written and read again.
void ReadText(const std::string& text) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr))
        return;
    const std::string written = TextOf(descriptor);
    LocalFree(descriptor);
    REQUIRE(!written.empty());
    REQUIRE(
        ConvertStringSecurityDescriptorToSecurityDescriptorA(written.c_str(), SDDL_REVISION_1, &descriptor, nullptr));
    REQUIRE(TextOf(descriptor) == written);
    LocalFree(descriptor);
}

// At the end of a page behind which there is nothing: the fault guard ends what reads beyond.
void ReadBytes(std::string_view bytes) {
    static unsigned char* const pages = [] {
        void* memory = mmap(nullptr, 2 * 65536, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        REQUIRE(memory != MAP_FAILED);
        mprotect(static_cast<char*>(memory) + 65536, 65536, PROT_NONE);
        return static_cast<unsigned char*>(memory);
    }();
    const size_t size = std::min<size_t>(bytes.size(), 65536) & ~size_t{3}; // records are aligned
    unsigned char* record = pages + 65536 - size;
    std::memcpy(record, bytes.data(), size);
    const oriel::AclCopy list(record);
    REQUIRE(!list.Valid() || (list.size <= size && list.EntryOffset(list.count) <= list.size));
    const oriel::SidCopy sid(record);
    REQUIRE(!sid.Valid() || sid.length <= size);
    IsValidAcl(reinterpret_cast<PACL>(record));
    TextOf(record);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, record, FALSE};
    oriel::GrantedToEveryone(&attributes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PrivateMachine();
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    ReadText(std::string(bytes));
    ReadBytes(bytes);
    return 0;
}
