#include "commands/condition.h"

#include <algorithm>
#include <iterator>

namespace {

using Comparison = Condition::Comparison;

struct Operator {
    std::string_view text;
    Comparison comparison;
};
// Longer operators first: "<" is the start of "<=".
constexpr Operator kOperators[] = {
    {"==", Comparison::Equal},          {"!=", Comparison::Different}, {"<=", Comparison::LessOrEqual},
    {">=", Comparison::GreaterOrEqual}, {"=", Comparison::Equal},      {"<", Comparison::Less},
    {">", Comparison::Greater},         {"&", Comparison::AnyBit},
};

std::string_view Trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// What is compared: the value, or a field of it; null when there is no such field.
const Decoded* Compared(const Condition& condition, const Decoded& value) {
    if (condition.field.empty()) return &value;
    const auto part = std::find_if(value.parts.begin(), value.parts.end(),
                                   [&](const Decoded& candidate) { return candidate.name == condition.field; });
    return part == value.parts.end() ? nullptr : &*part;
}

bool Orders(Comparison comparison) {
    return comparison != Comparison::Equal && comparison != Comparison::Different;
}

// An unknown number has no order and no bits.
bool NumberHolds(Comparison comparison, uint64_t number, uint64_t operand, bool known) {
    switch (comparison) {
    case Comparison::Equal:
        return number == operand;
    case Comparison::Different:
        return number != operand;
    case Comparison::Less:
        return known && number < operand;
    case Comparison::LessOrEqual:
        return known && number <= operand;
    case Comparison::Greater:
        return known && number > operand;
    case Comparison::GreaterOrEqual:
        return known && number >= operand;
    case Comparison::AnyBit:
        return known && (number & operand) != 0;
    }
    return false;
}

} // namespace

Condition ParseCondition(const OpenedPrinter& printer, const std::string& text) {
    const std::string grammar = "give NAME or NAME.FIELD, one of = != < <= > >= &, and a value";
    const size_t place = text.find_first_of("=!<>&");
    const auto* used = std::find_if(std::begin(kOperators), std::end(kOperators), [&](const Operator& candidate) {
        return place != std::string::npos && text.compare(place, candidate.text.size(), candidate.text) == 0;
    });
    if (used == std::end(kOperators)) throw UsageFailure("\"" + text + "\" is not a condition", grammar);

    Condition condition{.comparison = used->comparison};
    const std::string_view operand = Trimmed(std::string_view(text).substr(place + used->text.size()));
    const bool quoted = operand.size() >= 2 && operand.front() == '"' && operand.back() == '"';
    condition.operand = quoted ? operand.substr(1, operand.size() - 2) : operand;
    std::string name(Trimmed(std::string_view(text).substr(0, place)));
    const size_t dot = name.rfind('.');
    const std::optional<std::string> whole = ToAnsi(name);
    if (dot != std::string::npos && !(whole && FindVariable(printer.variables, *whole))) {
        condition.field = name.substr(dot + 1);
        name.resize(dot);
    }
    condition.variable = &FindNamed(printer, name, "watch");

    // All values of a variable have the same parts, so a value of zeros serves to check the field.
    const Decoded sample = Decode(printer.variables, *condition.variable, Bytes(condition.variable->size));
    const Decoded* compared = Compared(condition, sample);
    if (compared == nullptr)
        throw UsageFailure(name + " has no field \"" + condition.field + "\"", "'oriel get' shows its fields");
    if (compared->form == Decoded::Form::Number) {
        if (!ParseKnownOrUnknown(condition.operand, compared->bits))
            throw UsageFailure("\"" + condition.operand + "\" is not a number that " + name + " can have",
                               "give it in decimal, or in hexadecimal with 0x");
    } else if (compared->form != Decoded::Form::Text || Orders(condition.comparison)) {
        throw UsageFailure("\"" + text + "\" compares a value that has no order",
                           "compare numbers, or compare text with = and !=");
    }
    return condition;
}

bool Holds(const Condition& condition, const Decoded& value) {
    const Decoded* compared = Compared(condition, value);
    if (compared == nullptr) return false;
    if (compared->form == Decoded::Form::Number) {
        const std::optional<uint64_t> operand = ParseKnownOrUnknown(condition.operand, compared->bits);
        return operand && NumberHolds(condition.comparison, compared->number, *operand, !IsUnknown(*compared));
    }
    return (compared->text == condition.operand) == (condition.comparison == Comparison::Equal);
}
