// A printer with an open manager: finding its variables by name, reading and describing them. No state.
#pragma once

#include "base/catalogue.h"
#include "base/handles.h"
#include "base/output.h"
#include "base/presentation.h"

// How a manager is opened. Kind 3 needs no initialised product, adds a printer that nobody has opened yet, takes no
// ownership and starts no agent.
struct ManagerOptions {
    std::string printer;
    uint32_t kind = 3;
    std::string user;    // empty: the logon name
    bool hex = false;    // values as bytes
    bool direct = false; // asks the printer itself
};

struct OpenedPrinter {
    std::string shownName; // UTF-8
    std::vector<Variable> variables;
    Manager manager;
};

// Throws Failure.
OpenedPrinter OpenPrinterOf(const ManagerOptions& options);
// Replaces the manager by a new one. Throws Failure.
void OpenAgain(OpenedPrinter& printer, const ManagerOptions& options);

// "cannot VERB PageCount of "Front desk"".
std::string WhatOf(const char* verb, const std::string& variable, const OpenedPrinter& printer);

// name: UTF-8. Throws Failure, with the nearest name as advice.
const Variable& FindNamed(const OpenedPrinter& printer, const std::string& name, const char* verb);

struct Reading {
    int32_t status = TVS_OK;
    Bytes value;
};
// GetPrinterStatusA and those like it.
using ReadFunction = int32_t(TVS_CALL*)(TvsManager, const char*, void*, uint32_t, uint32_t*);
// takeItem: whether to read a queue, which removes its oldest item. False only asks for the size of that item.
Reading ReadValue(const OpenedPrinter& printer, const Variable& variable, bool takeItem,
                  ReadFunction read = GetPrinterStatusA);

// "2026-11-24T08:15:00.123Z"; empty for the time of a value that was never written.
std::string TimeText(const SYSTEMTIME& time);
// *time is all zero when it was never written.
int32_t ReadWriteTime(const OpenedPrinter& printer, const Variable& variable, SYSTEMTIME& time);
int32_t ReadWriteTime(const OpenedPrinter& printer, const Variable& variable, std::string& text);

// Name, type, size and source; then value, bits and hex.
Json VariableJson(const Variable& variable);
void AddValue(Json& json, const Decoded& decoded, const Bytes& value);
