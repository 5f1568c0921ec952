// Named shared memory: CreateFileMappingA, OpenFileMappingA, MapViewOfFile, UnmapViewOfFile.
//
// State: the list of the views of this process; each holds a reference to its section. A view is a second mapping of
// the section's memory: a fork child keeps the view, but not the section.
#include "base/call.h"
#include "base/list.h"
#include "base/lock.h"
#include "base/steps.h"
#include "kernel/named_object.h"

#include <cerrno>
#include <errhandlingapi.h>
#include <memory>
#include <new>
#include <sharedmem.h>
#include <sys/mman.h>

using namespace oriel;

namespace oriel {
namespace {

struct View {
    void* address;
    size_t size;
    NamedObject* section;
    View* next = nullptr;
    View* previous = nullptr;
};

constinit Lock g_viewsLock;
List<View> g_views ORIEL_LOCK_CHECK(guarded_by(g_viewsLock));

void DropSection(Object* object) {
    auto* section = static_cast<NamedObject*>(object);
    if (DropNamed(section)) delete section;
}

constexpr ObjectType kSectionType{.name = "section", .drop = DropSection};

// Of a handle; CreateFileMappingA gives all.
constexpr RightsMap kSectionRights{.read = STANDARD_RIGHTS_READ | SECTION_MAP_READ,
                                   .write = STANDARD_RIGHTS_WRITE | SECTION_MAP_WRITE,
                                   .execute = READ_CONTROL,
                                   .all = STANDARD_RIGHTS_REQUIRED | SECTION_MAP_READ | SECTION_MAP_WRITE};

NamedObject* MakeSection() {
    return new (std::nothrow) NamedObject{{&kSectionType}};
}

// The child may unmap its views; the references belong to the parent.
void ForgetViews() ORIEL_LOCK_CHECK(no_thread_safety_analysis) {
    g_viewsLock.ForgetOwner();
    for (View& view : g_views)
        view.section = nullptr;
}

} // namespace

const ForkSteps kViewsFork{TakeForFork<g_viewsLock>, ReleaseAfterFork<g_viewsLock>, ForgetViews};

} // namespace oriel

HANDLE WINAPI CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES attributes, DWORD protection, DWORD sizeHigh,
                                 DWORD sizeLow, LPCSTR name) {
    TerminationHold hold;
    // Only named shared memory; nothing uses mapped files or unnamed sections.
    if (reinterpret_cast<LONG_PTR>(file) != -1 || protection != PAGE_READWRITE || name == nullptr || *name == '\0')
        return Fail(ERROR_NOT_SUPPORTED, nullptr);
    if (sizeHigh != 0 || sizeLow == 0 || sizeLow > kLargestSection) return Fail(ERROR_INVALID_PARAMETER, nullptr);
    return CreateByName(
        {.type = &kSectionType, .kind = ObjectKind::Section, .name = name, .size = sizeLow, .make = MakeSection},
        attributes);
}

HANDLE WINAPI OpenFileMappingA(DWORD access, BOOL inherit, LPCSTR name) {
    return OpenByName({.type = &kSectionType,
                       .kind = ObjectKind::Section,
                       .name = name,
                       .make = MakeSection,
                       .readingIsEnough = (access & FILE_MAP_WRITE) == 0},
                      access, inherit, kSectionRights);
}

LPVOID WINAPI MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes) {
    HandleUse<NamedObject> section(mapping, kSectionType, access & (FILE_MAP_READ | FILE_MAP_WRITE));
    if (!section) return nullptr;
    if (section->readOnly && (access & FILE_MAP_WRITE) != 0) return Fail(ERROR_ACCESS_DENIED, nullptr);
    const bool known = (access & FILE_MAP_WRITE) != 0 || (access & FILE_MAP_READ) != 0;
    if (!known || (access & ~DWORD{FILE_MAP_WRITE | FILE_MAP_READ}) != 0 || offsetHigh != 0 || offsetLow != 0)
        return Fail(ERROR_INVALID_PARAMETER, nullptr);
    const size_t size = section->size;
    if (bytes > size) return Fail(ERROR_ACCESS_DENIED, nullptr);
    std::unique_ptr<View> view(new (std::nothrow) View{});
    if (view == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    // A move of no bytes of a shared mapping copies it.
    void* address = mremap(section->head, 0, size, MREMAP_MAYMOVE);
    if (address == MAP_FAILED) return Fail(SystemError(errno), nullptr);
    madvise(address, size, MADV_DOFORK);
    if ((access & FILE_MAP_WRITE) == 0) mprotect(address, size, PROT_READ);
    section->references.fetch_add(1, std::memory_order_relaxed);
    LockHold lock(g_viewsLock);
    *view = {address, size, section.Get()};
    g_views.Add(*view.release());
    return address;
}

BOOL WINAPI UnmapViewOfFile(LPCVOID address) {
    TerminationHold hold;
    std::unique_ptr<View> view;
    {
        LockHold lock(g_viewsLock);
        view.reset(g_views.Find([=](const View& known) { return known.address == address; }));
        if (view != nullptr) g_views.Remove(*view);
    }
    if (view == nullptr) return Fail(ERROR_INVALID_ADDRESS);
    munmap(view->address, view->size);
    if (view->section != nullptr) DropReference(view->section);
    return TRUE;
}
