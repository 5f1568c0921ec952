// Objects that processes share by name: events, mutexes, sections. Unnamed ones have the same record without a name.
//
// Names belong to the object server (objects/). It gives each process that opens an object a descriptor of its memory,
// which the process maps, and forgets the object when the last process has given it back or has ended. The server takes
// no part in what follows: a set, a wait, a lock and a read are system calls or none.
//
// The memory holds only numbers, no pointers and no types of the C library. Whoever may change the object can write
// anything there, but cannot change the size of the memory.
//
// State: named_object.cpp. Any thread may call these functions.
#pragma once

#include "kernel/handles.h"
#include "kernel/object_client.h"

#include <cstddef>
#include <minwinbase.h>

namespace oriel {

struct NamedObject : Object {
    ObjectKind kind{};
    uint32_t size = 0;
    bool named = false;
    bool readOnly = false;          // another user's: only to wait for, or to read
    std::atomic<bool> owned{false}; // a thread owns the mutex, with a reference of its own
    ObjectHead own{};               // of an unnamed object
    ObjectHead* head = &own;        // of a named object: the mapping, for a section its bytes
    int file = -1;                  // of a named mutex, for its lock
    ServerHold hold;
    char name[kLongestObjectName + 1] = ""; // "" after the name was given back
    NamedObject* nextNamed = nullptr;
};

// The arguments of OpenNamed.
struct NamedRequest {
    const ObjectType* type;
    ObjectKind kind;
    const char* name;                                  // NULL or "": unnamed
    uint32_t word = 0;                                 // of a new one
    uint32_t size = 0;                                 // of a new section
    NamedObject* (*make)();                            // an empty record; null without memory
    bool (*atCreation)(NamedObject* object) = nullptr; // owns a new mutex; false with the last error set
    bool readingIsEnough = false;                      // to wait for an event, to read a section
    bool create = false;                               // CreateByName's: else it has to exist,
    ForEveryone forEveryone = ForEveryone::Nothing;    // and the rights of a new one
};

// For CreateEventA and its kin: a handle with all rights to a new or an existing object; the last error is
// ERROR_ALREADY_EXISTS for an existing one, else 0. An existing event may have the other kind of reset than requested.
// NULL with the last error set; ERROR_NOT_SUPPORTED for unsupported attributes.
HANDLE CreateByName(NamedRequest request, const SECURITY_ATTRIBUTES* attributes);

// For OpenEventA and its kin: a handle with the requested rights; ERROR_ACCESS_DENIED for none and for rights that the
// kind does not have.
HANDLE OpenByName(const NamedRequest& request, DWORD desired, BOOL inherit, const RightsMap& map);

// For ObjectType::drop: releases a reference. True for the last one: name, mapping and descriptor are gone, and the
// caller deletes the record.
bool DropNamed(NamedObject* object);

// Security attributes that can be followed, else false with ERROR_NOT_SUPPORTED.
bool AttributesAreSupported(const SECURITY_ATTRIBUTES* attributes);

} // namespace oriel
