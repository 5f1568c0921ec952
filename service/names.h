// Names of variables, each kept once for all databases: a thousand printers have the same 60. State: the table in
// names.cpp; names stay until the service ends.
#pragma once

#include "arena.h"

#include <string_view>

struct Name {
    Name* next;
    DWORD hash;
    WORD length;
    char text[2]; // length bytes and a NUL

    std::string_view Text() const { return {text, length}; }
};

DWORD HashOf(std::string_view text);

// The name with that text. Null: *status says why.
const Name* InternName(Account& account, std::string_view text, product::ServiceStatus* status);

// At the end of the service.
void ReleaseNames();
