// Values of variables taken apart by their type, for people and for JSON, and put together again from what a user
// types.
//
// What is shown is what is known: records whose fields are not known are lists of their words, bits without a known
// meaning are only in the number.
#pragma once

#include "catalogue.h"
#include "output.h"
#include "text.h"

#include <span>

struct BitMeaning {
    uint32_t bit;
    const char* meaning;
};

struct Decoded {
    enum class Form { Number, Text, Bytes, Parts, List };
    Form form = Form::Bytes;
    std::string name;                       // of a part
    uint64_t number = 0;                    // unsigned
    unsigned bits = 32;                     // of the number
    std::span<const BitMeaning> meanings{}; // of its bits
    std::string text;                       // UTF-8
    Bytes bytes;
    std::vector<Decoded> parts; // named, or a list
};

// variables: those of the printer, for the members of a composite.
Decoded Decode(const std::vector<Variable>& variables, const Variable& variable, const Bytes& value);

// The highest number of 32 bits says that the value is not known.
bool IsUnknown(const Decoded& decoded);

// A number is unsigned, null when it is not known; one with known bits comes as a number too, and NamedBits tells the
// names of those that are set. Bytes come as null: the caller adds them in hexadecimal.
Json ToJson(const Decoded& decoded);
Json NamedBits(const Decoded& decoded);

std::string OneLine(const Decoded& decoded);
// A line each for the fields of a record, else one line.
std::string ManyLines(const Decoded& decoded);

// The value that the user's words stand for. One word: a number, "unknown", or a text. field=value words: a record's
// fields, the others as in `present`. Throws Failure (Exit::Usage).
Bytes Encode(const Variable& variable, const std::vector<std::string>& words, const Bytes& present);
// A number as the user types it, or "unknown".
inline constexpr char kUnknown[] = "unknown";
std::optional<uint64_t> ParseKnownOrUnknown(const std::string& word, unsigned bits);
// True when Encode needs the present value.
bool NeedsPresentValue(const Variable& variable);
