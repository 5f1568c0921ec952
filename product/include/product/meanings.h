// What the values of the built-in variables mean: a row for each variable, beside the table of variables
// (product/variables.h). docs/devices.md says which attribute or object of a printer each comes from. No state.
//
// Rows describe what the product's own printer sides store. A printer side of somebody else may give a value another
// meaning.
#pragma once

#include <windows.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace product {

// Who a value comes from.
enum class Origin : uint8_t {
    Device,      // the printer
    PrinterSide, // how it stands with the printer
    Spooler,     // jobs
    Library,     // made by the library when it is read, or composed
    Users,       // whoever writes it
};
const char* NameOf(Origin origin);

enum class Severity : uint8_t { None, Info, Warning, Error };
const char* NameOf(Severity severity);

struct Named {
    uint32_t value; // a bit, or the whole number
    const char* words;
    Severity severity = Severity::Info;
};

// One number of a value, at a multiple of four bytes.
struct WordMeaning {
    const char* name = "";            // of a record's word
    std::span<const Named> bits{};    // each that is set has its words
    std::span<const Named> numbers{}; // one of these
    const char* unit = "";            // of a number that none of these is
};

struct VariableMeaning {
    const char* variable;
    Origin origin;
    const char* what; // the variable itself, in words
    std::span<const WordMeaning> words{};
    const char* none = nullptr; // in words, when no word says anything
    bool text = false;          // a text in a record
};

// Null: of a model.
const VariableMeaning* MeaningOf(const char* variable);

struct Explanation {
    std::string words{}; // "stopped by an error, paper jam, unit 2"; a text in the ANSI code page; empty when the value
                         // says nothing more than itself
    Severity severity = Severity::None;
};
// value: as the library's A functions give it. A number that is -1 is "not known".
Explanation Explain(const VariableMeaning& meaning, const BYTE* value, SIZE_T size);

// What of a value has words of its own: each bit that is set, and each number that has a name.
std::vector<Named> NamedParts(const VariableMeaning& meaning, const BYTE* value, SIZE_T size);

} // namespace product
