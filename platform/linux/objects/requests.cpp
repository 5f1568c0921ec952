#include "objects/requests.h"

#include "base/descriptor.h"
#include "objects/table.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <winerror.h>

namespace oriel {
namespace {

constexpr unsigned kMfdNoExecSeal = 8; // of Linux 6.3, not in every C library's headers yet

std::span<const ORIEL_RESERVED_NAME> g_rules;

bool WriteWord(int memory, uint32_t word) {
    return pwrite(memory, &word, sizeof word, offsetof(ObjectHead, word)) == ssize_t{sizeof word};
}

// The memory of a new object: nobody can change its size, and only the server's user could open it by a path.
int MakeMemory(const ObjectRequest& request) {
    char name[NAME_MAX - 5] = ""; // for those who look at /proc/PID/maps
    std::memcpy(name, request.name, sizeof name - 1);
    Descriptor file(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING | kMfdNoExecSeal));
    if (!file.IsOpen()) file = Descriptor(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING)); // an earlier Linux
    // Allocated, so that no access to it fails later.
    if (!file.IsOpen() || fchmod(file.Get(), S_IRUSR | S_IWUSR) != 0 ||
        posix_fallocate(file.Get(), 0, ObjectBytes(request.kind, request.size)) != 0 ||
        (request.kind != ObjectKind::Section && !WriteWord(file.Get(), request.word)) ||
        fcntl(file.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return -1;
    return file.Release();
}

// The object's memory for one client: a new open file description, which has the access granted and locks of its own.
Descriptor OpenMemory(const ObjectRecord& object, uint32_t flags) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", object.file);
    Descriptor file(open(path, ((flags & kOnlyReadable) != 0 ? O_RDONLY : O_RDWR) | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    // Fails only for the second answer to a request whose first one arrived, which has the lock.
    if ((flags & kOwned) != 0) fcntl(file.Get(), F_OFD_SETLK, &lock);
    return file;
}

const ORIEL_RESERVED_NAME* RuleFor(const char* name) {
    const auto rule = std::find_if(g_rules.begin(), g_rules.end(),
                                   [=](const auto& row) { return fnmatch(row.pattern, name, 0) == 0; });
    return rule != g_rules.end() ? &*rule : nullptr;
}

DWORD Join(uint32_t connection, const ObjectRequest& request, uint32_t number, ObjectReply& reply) {
    const ObjectRecord& object = g_table->objects[number];
    if (object.kind != request.kind && !(IsEvent(object.kind) && IsEvent(request.kind))) return ERROR_INVALID_HANDLE;
    const ForEveryone granted = Granted(connection, object);
    // A wait for an automatic event or for a mutex changes it.
    const bool canBeOnlyRead = object.kind == ObjectKind::ManualEvent || object.kind == ObjectKind::Section;
    if (granted == ForEveryone::Nothing) return ERROR_ACCESS_DENIED;
    if (granted == ForEveryone::Read && ((request.flags & kReadingIsEnough) == 0 || !canBeOnlyRead))
        return ERROR_ACCESS_DENIED;
    const uint32_t hold = AddHold(connection, number);
    if (hold == 0) return ERROR_NO_SYSTEM_RESOURCES;
    reply.hold = hold;
    reply.kind = object.kind;
    reply.size = object.size;
    if (granted == ForEveryone::Read) reply.flags |= kOnlyReadable;
    return ERROR_SUCCESS;
}

DWORD Make(uint32_t connection, const ObjectRequest& request, ObjectReply& reply) {
    ForEveryone forEveryone = request.forEveryone;
    if (const ORIEL_RESERVED_NAME* rule = RuleFor(request.name)) {
        if (rule->kind != static_cast<DWORD>(request.kind)) return ERROR_INVALID_HANDLE;
        if (rule->ownerMakes && !IsPrivileged(connection)) return ERROR_ACCESS_DENIED;
        forEveryone = static_cast<ForEveryone>(rule->others);
    }
    Descriptor file(MakeMemory(request));
    const uint32_t object = file.IsOpen() ? AddObject(connection, request, forEveryone, file.Get()) : 0;
    if (object == 0) return ERROR_NO_SYSTEM_RESOURCES;
    const DWORD error = Join(connection, request, object, reply);
    if (error == ERROR_SUCCESS) file.Release();
    if (error == ERROR_SUCCESS && (request.flags & kOwnedAtBirth) != 0) reply.flags |= kOwned;
    return error;
}

DWORD GiveBackHold(uint32_t connection, const ObjectRequest& request, int& unused) {
    const uint32_t hold = request.hold;
    if (hold == 0 || hold > g_table->holdPool.used || g_table->holds[hold].connection != connection)
        return ERROR_INVALID_HANDLE;
    if (request.action == ObjectAction::CloseOwned && g_table->objects[g_table->holds[hold].object].holds != 1)
        return ERROR_BUSY;
    unused = RemoveHold(hold);
    return ERROR_SUCCESS;
}

// unused: a descriptor to close once the change is final.
DWORD Apply(uint32_t connection, const ObjectRequest& request, ObjectReply& reply, int& unused) {
    switch (request.action) {
    case ObjectAction::Create:
    case ObjectAction::Open:
        if (const uint32_t object = FindObject(request.name)) {
            reply.flags = kExisted;
            return Join(connection, request, object, reply);
        }
        return request.action == ObjectAction::Create ? Make(connection, request, reply) : ERROR_FILE_NOT_FOUND;
    case ObjectAction::Close:
    case ObjectAction::CloseOwned:
        return GiveBackHold(connection, request, unused);
    case ObjectAction::Count:
        if (!IsPrivileged(connection)) return ERROR_ACCESS_DENIED;
        reply.size = g_table->objectPool.live;
        reply.kind = static_cast<ObjectKind>(g_table->holdPool.live);
        return ERROR_SUCCESS;
    }
    return ERROR_INVALID_FUNCTION;
}

void Execute(uint32_t number, const ObjectRequest& request) {
    ObjectReply reply{.protocol = kObjectProtocol, .number = request.number};
    int unused = -1;
    const DWORD error = Apply(number, request, reply, unused);
    if (error != ERROR_SUCCESS) {
        Undo();
        reply = {.protocol = kObjectProtocol, .number = request.number, .error = error};
    }
    ObjectReply& kept = g_table->connections[number].reply;
    uint32_t words[sizeof reply / sizeof(uint32_t)]; // a copy: the compiler need not see that a word is also a kind
    std::memcpy(words, &reply, sizeof words);
    for (size_t i = 0; i < std::size(words); ++i)
        Change(reinterpret_cast<uint32_t*>(&kept)[i], words[i]);
    Commit();
    if (unused >= 0) close(unused);
}

// False when the client does not take it.
bool Answer(const ConnectionRecord& connection) {
    ObjectReply reply = connection.reply;
    iovec bytes{&reply, sizeof reply};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    Descriptor file;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (reply.hold != 0) {
        file = OpenMemory(g_table->objects[g_table->holds[reply.hold].object], reply.flags);
        if (!file.IsOpen()) return false;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        const int passed = file.Get();
        std::memcpy(CMSG_DATA(header), &passed, sizeof passed);
    }
    return sendmsg(connection.file, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == ssize_t{sizeof reply};
}

} // namespace

void SetRules(std::span<const ORIEL_RESERVED_NAME> rules) {
    g_rules = rules;
}

bool ExecuteAndAnswer(uint32_t number, const void* record, size_t length) {
    const ConnectionRecord& connection = g_table->connections[number];
    ObjectRequest request;
    if (!DecodeRequest(record, length, request)) return false;
    if (request.number == connection.reply.number + 1)
        Execute(number, request);
    else if (request.number != connection.reply.number || request.number == 0)
        return false;
    return Answer(connection);
}

} // namespace oriel
