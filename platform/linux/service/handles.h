// Service managers and services: what their handles stand for, and how the calls find it.
#pragma once

#include "kernel/handles.h"

#include <string>
#include <winsvc.h>

namespace oriel {

struct ManagerObject : Object {};
struct ServiceObject : Object {
    std::string name; // as it was asked for
    std::string folded;
};
extern const ObjectType kManagerType;
extern const ObjectType kServiceType;

// The key of a service's configuration, below HKEY_LOCAL_MACHINE.
std::string ServiceKeyPath(const std::string& name);

} // namespace oriel
