// Values of variables: decoded by their type, for people and for JSON, and encoded from what a user types. No state.
//
// A record whose fields are not known is a list of its words. A bit whose meaning is not known shows only in the
// number.
#pragma once

#include "base/catalogue.h"
#include "base/output.h"
#include "base/text.h"

#include "product/meanings.h"

#include <span>

struct Decoded {
    enum class Form { Number, Text, Bytes, Parts, List };
    Form form = Form::Bytes;
    std::string name;                           // of a part
    uint64_t number = 0;                        // unsigned
    unsigned bits = 32;                         // of the number
    std::span<const product::Named> meanings{}; // of its bits
    std::string text;                           // UTF-8
    Bytes bytes;
    std::vector<Decoded> parts; // named, or a list
};

// variables: those of the printer, for the members of a composite.
Decoded Decode(const std::vector<Variable>& variables, const Variable& variable, const Bytes& value);

// True for the highest 32-bit number, which says that the value is not known.
bool IsUnknown(const Decoded& decoded);

// A number is unsigned, or null when it is not known. NamedBits has the names of the bits that are set. Bytes are null;
// the caller adds them in hexadecimal.
Json ToJson(const Decoded& decoded);
Json NamedBits(const Decoded& decoded);

std::string OneLine(const Decoded& decoded);
// One line for each field of a record; else one line.
std::string ManyLines(const Decoded& decoded);

// The value that the user's words mean. One word is a number, "unknown", or a text. FIELD=VALUE words set fields of a
// record; the other fields come from `present`. Throws Failure (Exit::Usage).
Bytes Encode(const Variable& variable, const std::vector<std::string>& words, const Bytes& present);
// A number as the user types it, or "unknown". Throws Failure (Exit::Usage).
inline constexpr char kUnknown[] = "unknown";
std::optional<uint64_t> ParseKnownOrUnknown(const std::string& word, unsigned bits);
// True when Encode needs the present value.
bool NeedsPresentValue(const Variable& variable);
