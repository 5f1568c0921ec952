// What processes and the object server say to each other, and the memory of an object.
//
// A process has one connection (SOCK_SEQPACKET) for each user that it acts as, and one request in flight on it. A
// request and its reply are one record each, in the byte order of the machine, and carry the same number, which counts
// up from 1. The reply to a creation or an opening carries a descriptor of the object's memory: a memfd whose size is
// sealed, opened anew with the access granted.
//
// No state.
#pragma once

#include "base/futex.h"
#include "security/records.h"

#include <cstddef>
#include <sys/types.h>

namespace oriel {

enum class ObjectKind : uint32_t { ManualEvent = 1, AutoEvent = 2, Mutex = 3, Section = 4 };

inline bool IsEvent(ObjectKind kind) {
    return kind == ObjectKind::ManualEvent || kind == ObjectKind::AutoEvent;
}

// The memory of an event or a mutex, 64 bytes; that of a section has only its own bytes. Whoever may change the object
// may write anything here.
struct ObjectHead {
    Word word;  // event: its state (kernel/event.cpp). mutex: the word that waiters sleep on (kernel/mutex.cpp)
    Word owner; // mutex: not 0 while owned
    uint32_t unused[14];
};
static_assert(sizeof(ObjectHead) == 64 && offsetof(ObjectHead, owner) == 4);
constexpr uint32_t kLargestSection = 1 << 20;
constexpr uint32_t kLongestObjectName = 250;

inline uint32_t ObjectBytes(ObjectKind kind, uint32_t size) {
    return kind == ObjectKind::Section ? size : uint32_t{sizeof(ObjectHead)};
}

enum class ObjectAction : uint32_t {
    Open = 1,
    Create = 2,     // or open what exists
    Close = 3,      // gives a hold back; the object ends with its last hold
    CloseOwned = 4, // the same if this hold is the only one, else ERROR_BUSY and nothing: a mutex without handles
    Count = 5, // for the server's user and root: size and kind of the reply are the numbers of objects and of holds
};

// Flags of a request.
constexpr uint32_t kReadingIsEnough = 1; // open: to wait for an event or to read a section
constexpr uint32_t kOwnedAtBirth = 2;    // create a mutex: its descriptor has the file lock of the owner
// Flags of a reply.
constexpr uint32_t kExisted = 1;
constexpr uint32_t kOnlyReadable = 2;
constexpr uint32_t kOwned = 4;

constexpr uint32_t kObjectProtocol = 0x316A624F; // "Obj1"

struct ObjectRequest {
    uint32_t protocol = kObjectProtocol;
    uint32_t number;
    ObjectAction action;
    uint32_t flags;
    uint32_t hold; // to give back
    // Of the object to open or create:
    ObjectKind kind;
    uint32_t size; // of a new section, bytes
    uint32_t word; // of a new object
    ForEveryone forEveryone;
    char name[252]; // without "Global\"; filled with NULs
};
static_assert(sizeof(ObjectRequest) == 288 && sizeof(ForEveryone) == 4 && offsetof(ObjectRequest, name) == 36);
static_assert(sizeof ObjectRequest::name > kLongestObjectName);

struct ObjectReply {
    uint32_t protocol;
    uint32_t number;
    uint32_t error; // Win32; with another than ERROR_SUCCESS the rest is 0
    uint32_t hold;
    ObjectKind kind;
    uint32_t size;
    uint32_t flags;
};
static_assert(sizeof(ObjectReply) == 28);

// The request in a received record. False for anything that no process of ours sends.
bool DecodeRequest(const void* record, size_t length, ObjectRequest& request);

// The next record on a client's connection, as recvmsg returns it. memory: the descriptor that came with it, which the
// caller closes; -1: none.
ssize_t ReceiveReply(int connection, int flags, ObjectReply& reply, int& memory);

// The name of the server's socket in the run directory.
constexpr char kObjectsSocket[] = "objects";

} // namespace oriel
