// Access tokens: a user and groups, as they were when the token was opened.
#pragma once

#include "kernel/handles.h"
#include "security/credentials.h"

namespace oriel {

struct TokenObject : Object {
    Credentials credentials;
};

extern const ObjectType kTokenType;

} // namespace oriel
