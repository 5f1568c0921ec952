// The attributes of docs/devices.md. No state.
#include "printer_attributes.h"

#include "product/conditions.h"
#include "session.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <strings.h>
#include <utility>

namespace devices {

// media-col-default names the tray in use.
const char* const kChangingAttributes[] = {
    "printer-state",
    "printer-state-reasons",
    "printer-state-message",
    "queued-job-count",
    "printer-is-accepting-jobs",
    "printer-up-time",
    "printer-alert",
    "printer-alert-description",
    "printer-config-change-time",
    "printer-input-tray",
    "printer-supply",
    "printer-supply-description",
    "marker-names",
    "marker-types",
    "marker-levels",
    "media-ready",
    "media-col-default",
    "media-col-ready",
    "printer-impressions-completed",
    "printer-pages-completed",
};
const int kChangingAttributeCount = static_cast<int>(std::size(kChangingAttributes));
const char* const kIdentityAttributes[] = {
    "printer-make-and-model",
    "printer-device-id",
    "printer-location",
    "printer-serial-number",
    "media-source-supported",
    "output-bin-supported",
    "finishings-supported",
    "sides-supported",
    "color-supported",
    "operations-supported",
    "notify-pull-method-supported",
};
const int kIdentityAttributeCount = static_cast<int>(std::size(kIdentityAttributes));
const char* const kAskedJobAttributes[] = {"job-id",
                                           "job-state",
                                           "job-name",
                                           "job-originating-user-name",
                                           "job-impressions-completed",
                                           "job-media-sheets-completed"};
const int kAskedJobAttributeCount = static_cast<int>(std::size(kAskedJobAttributes));

namespace {

constexpr int kValuesMax = 256; // of an attribute

ipp_attribute_t* Find(ipp_t* message, const char* name) {
    return ippFindAttribute(message, name, IPP_TAG_ZERO);
}

int CountOf(ipp_attribute_t* attribute) {
    return std::min(ippGetCount(attribute), kValuesMax);
}

bool IsNumber(ipp_attribute_t* attribute) {
    const ipp_tag_t tag = ippGetValueTag(attribute);
    return tag == IPP_TAG_INTEGER || tag == IPP_TAG_ENUM;
}

int32_t NumberIn(ipp_attribute_t* attribute, int32_t fallback) {
    return attribute != nullptr && IsNumber(attribute) ? ippGetInteger(attribute, 0) : fallback;
}

// Of a text, a name, a keyword, an octet string. Empty: it is none of these.
std::string TextIn(ipp_attribute_t* attribute, int at) {
    int length = 0;
    if (ippGetValueTag(attribute) == IPP_TAG_STRING) {
        const auto* bytes = static_cast<const char*>(ippGetOctetString(attribute, at, &length));
        return bytes != nullptr && length > 0 ? CleanText(bytes, static_cast<size_t>(length)) : "";
    }
    const char* text = ippGetString(attribute, at, nullptr);
    return text != nullptr ? CleanText(text, strnlen(text, 4 * kTextMax)) : "";
}

std::string TextOf(ipp_t* message, const char* name) {
    ipp_attribute_t* attribute = Find(message, name);
    return attribute != nullptr ? TextIn(attribute, 0) : "";
}

std::vector<std::string> TextsOf(ipp_t* message, const char* name, size_t most) {
    std::vector<std::string> texts;
    ipp_attribute_t* attribute = Find(message, name);
    for (int at = 0; attribute != nullptr && at < CountOf(attribute) && texts.size() < most; ++at)
        texts.push_back(TextIn(attribute, at));
    return texts;
}

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

// The value of a key in "key=value;key=value;" or, of a device id, "KEY:value;". Empty: there is none.
std::string_view FieldOf(std::string_view text, std::string_view key, char separator = '=') {
    while (!text.empty()) {
        const std::string_view field = Trimmed(text.substr(0, text.find(';')));
        text.remove_prefix(std::min(text.size(), text.find(';') == text.npos ? text.size() : text.find(';') + 1));
        if (field.size() > key.size() && field[key.size()] == separator &&
            strncasecmp(field.data(), key.data(), key.size()) == 0)
            return Trimmed(field.substr(key.size() + 1));
    }
    return {};
}

int32_t ToNumber(std::string_view text) {
    int32_t number = kNotKnown;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? number : kNotKnown;
}

// ---- reasons

struct Severity {
    std::string_view suffix;
    bool error;
    bool warning;
};
constexpr Severity kSeverities[] = {{"-error", true, false}, {"-warning", false, true}, {"-report", false, false}};

// Removes the suffix. Null: there is none. CUPS's own printer cuts its keywords at 31 bytes, and so the suffix.
const Severity* TakeSeverity(std::string_view* word) {
    constexpr size_t kCutAt = 31, kFewest = 2;
    for (const Severity& row : kSeverities) {
        for (size_t length = row.suffix.size(); length >= kFewest; --length) {
            if (word->size() > length && word->ends_with(row.suffix.substr(0, length))) {
                word->remove_suffix(length);
                return &row;
            }
            if (word->size() != kCutAt) break;
        }
    }
    return nullptr;
}

bool IsAsleep(std::string_view word) {
    return word.ends_with("power-saver") || word == "hibernate" || word == "standby" || word == "suspend";
}

bool IsPausing(std::string_view word) {
    return word == "paused" || word == "moving-to-paused" || word == "stopping" || word == "stopped-partly";
}

// ---- trays and supplies

Feed FeedOf(std::string_view type, std::string_view name) {
    const auto has = [&](std::string_view text, const char* what) {
        return std::search(text.begin(), text.end(), what, what + std::strlen(what),
                           [](char a, char b) { return (a | 0x20) == (b | 0x20); }) != text.end();
    };
    if (has(name, "envelope")) return Feed::Envelope;
    if (has(type, "manual") || has(name, "manual") || has(name, "by-pass") || has(name, "bypass")) return Feed::Manual;
    return Feed::Tray;
}

// What lies in each tray, by the tray's name: media-col-ready has a row for each tray that is not empty.
std::vector<std::pair<std::string, std::string>> ReadMedia(ipp_t* message) {
    std::vector<std::pair<std::string, std::string>> media;
    ipp_attribute_t* ready = Find(message, "media-col-ready");
    if (ready == nullptr || ippGetValueTag(ready) != IPP_TAG_BEGIN_COLLECTION) return media;
    for (int at = 0; at < CountOf(ready); ++at)
        if (ipp_t* row = ippGetCollection(ready, at))
            media.emplace_back(TextOf(row, "media-source"), TextOf(row, "media-size-name"));
    return media;
}

std::vector<Tray> ReadTrays(ipp_t* message) {
    const std::vector<std::pair<std::string, std::string>> byName = ReadMedia(message);
    const std::vector<std::string> inOrder = TextsOf(message, "media-ready", kTraysMax);
    const std::vector<std::string> texts = TextsOf(message, "printer-input-tray", kTraysMax);
    std::vector<Tray> trays;
    for (const std::string& text : texts) {
        const int32_t level = ToNumber(FieldOf(text, "level"));
        const int32_t capacity = ToNumber(FieldOf(text, "maxcapacity"));
        const std::string_view name = FieldOf(text, "name");
        Tray tray{.name = std::string(name), .feed = FeedOf(FieldOf(text, "type"), name)};
        // RFC 3805: -1 other, -2 unknown, -3 at least one.
        if (capacity >= 0) tray.capacity = capacity;
        if (level >= 0) tray.level = level;
        tray.hasSome = level == -3 || level > 0;
        const auto own = std::find_if(byName.begin(), byName.end(),
                                      [&](const auto& row) { return !name.empty() && row.first == name; });
        if (own != byName.end())
            tray.media = own->second;
        else if (inOrder.size() == texts.size()) // else nobody says which is of which tray
            tray.media = inOrder[trays.size()];
        trays.push_back(std::move(tray));
    }
    return trays;
}

int32_t PercentOf(int32_t level, int32_t capacity, std::string_view unit) {
    if (level < 0) return kNotKnown;
    if (unit == "percent") return std::min<int32_t>(level, 100);
    if (capacity <= 0) return kNotKnown;
    return static_cast<int32_t>(std::min<int64_t>(int64_t{level} * 100 / capacity, 100));
}

std::vector<Supply> ReadSupplies(ipp_t* message) {
    std::vector<Supply> supplies;
    const std::vector<std::string> names = TextsOf(message, "printer-supply-description", kSuppliesMax);
    for (const std::string& text : TextsOf(message, "printer-supply", kSuppliesMax)) {
        const int32_t level = ToNumber(FieldOf(text, "level")), capacity = ToNumber(FieldOf(text, "maxcapacity"));
        Supply supply{.kind = std::string(FieldOf(text, "type")),
                      .colour = std::string(FieldOf(text, "colorantname")),
                      .unit = std::string(FieldOf(text, "unit")),
                      .level = std::max(level, kNotKnown),
                      .capacity = std::max(capacity, kNotKnown),
                      .percent = PercentOf(level, capacity, FieldOf(text, "unit"))};
        if (supplies.size() < names.size()) supply.name = names[supplies.size()];
        supplies.push_back(std::move(supply));
    }
    if (!supplies.empty()) return supplies;
    const std::vector<std::string> types = TextsOf(message, "marker-types", kSuppliesMax);
    const std::vector<std::string> colours = TextsOf(message, "marker-colors", kSuppliesMax);
    const std::vector<int32_t> levels = NumbersOf(message, "marker-levels");
    for (const std::string& name : TextsOf(message, "marker-names", kSuppliesMax)) {
        Supply supply{.name = name};
        if (supplies.size() < types.size()) supply.kind = types[supplies.size()];
        if (supplies.size() < colours.size()) supply.colour = colours[supplies.size()];
        if (supplies.size() < levels.size()) supply.percent = PercentOf(levels[supplies.size()], 100, "percent");
        if (supply.percent >= 0) {
            supply.unit = "percent";
            supply.level = supply.percent;
            supply.capacity = 100;
        }
        supplies.push_back(std::move(supply));
    }
    return supplies;
}

// The number, from 1, of the tray that the printer takes paper from unless told otherwise.
int32_t ReadFeeder(ipp_t* message, const std::vector<std::string>& mediaSources) {
    ipp_attribute_t* column = Find(message, "media-col-default");
    if (column == nullptr || ippGetValueTag(column) != IPP_TAG_BEGIN_COLLECTION) return kNotKnown;
    ipp_t* members = ippGetCollection(column, 0);
    const std::string source = members != nullptr ? TextOf(members, "media-source") : "";
    const auto found = std::find(mediaSources.begin(), mediaSources.end(), source);
    return source.empty() || found == mediaSources.end() ? kNotKnown
                                                         : static_cast<int32_t>(found - mediaSources.begin()) + 1;
}

// What the alert is about: of the first critical one, else of the first.
uint32_t ReadAbout(ipp_t* message) {
    uint32_t about = 0;
    for (const std::string& alert : TextsOf(message, "printer-alert", kTraysMax)) {
        const int32_t index = ToNumber(FieldOf(alert, "groupindex"));
        const bool critical = FieldOf(alert, "severity").starts_with("critical");
        if (index > 0 && (about == 0 || critical)) about = static_cast<uint32_t>(index);
        if (index > 0 && critical) break;
    }
    return about;
}

} // namespace

std::vector<std::string> KeywordsOf(ipp_t* message, const char* name) {
    return TextsOf(message, name, kTraysMax);
}

std::vector<int32_t> NumbersOf(ipp_t* message, const char* name) {
    std::vector<int32_t> numbers;
    ipp_attribute_t* attribute = Find(message, name);
    for (int at = 0; attribute != nullptr && IsNumber(attribute) && at < CountOf(attribute); ++at)
        numbers.push_back(ippGetInteger(attribute, at));
    return numbers;
}

int32_t NumberOf(ipp_t* message, const char* name, int32_t fallback) {
    return NumberIn(Find(message, name), fallback);
}

void TakeReason(std::string_view keyword, Reading* reading) {
    std::string_view word = keyword;
    const Severity* severity = TakeSeverity(&word);
    const bool plain = severity == nullptr;
    if (word.empty() || word == "none") return;
    const bool report = !plain && !severity->error && !severity->warning;
    if (!plain) {
        reading->errors = reading->errors || severity->error;
        reading->warnings = reading->warnings || severity->warning;
    }
    const bool asleep = IsAsleep(word);
    const bool warmingUp = word.ends_with("warming-up");
    const bool pausing = IsPausing(word);
    reading->asleep = reading->asleep || asleep;
    reading->warmingUp = reading->warmingUp || warmingUp;
    reading->pausing = reading->pausing || pausing;
    uint32_t bit = word.ends_with("-jam") ? product::kJamBit : product::ConditionOfKeyword(word);
    if (bit == product::kConditionCount) {
        if (asleep || warmingUp || pausing) return;
        if (reading->otherReasons.size() + keyword.size() + 2 <= kTextMax)
            reading->otherReasons += (reading->otherReasons.empty() ? "" : ", ") + std::string(keyword);
        if (report) return;
        bit = product::kOtherBit;
    }
    // Without a suffix the condition itself says how bad it is.
    if (plain && product::kConditions[bit].stops) reading->errors = true;
    reading->conditions |= 1u << bit;
}

void ReadPrinter(ipp_t* message, const std::vector<std::string>& mediaSources, Reading* reading) {
    constexpr int32_t kIdle = 3, kProcessing = 4, kStopped = 5; // printer-state, RFC 8011
    const int32_t state = NumberOf(message, "printer-state");
    reading->state = state == kIdle         ? State::Idle
                     : state == kProcessing ? State::Printing
                     : state == kStopped    ? State::Stopped
                                            : State::Unknown;
    for (const std::string& keyword : KeywordsOf(message, "printer-state-reasons"))
        TakeReason(keyword, reading);
    ipp_attribute_t* accepts = Find(message, "printer-is-accepting-jobs");
    if (accepts != nullptr && ippGetValueTag(accepts) == IPP_TAG_BOOLEAN)
        reading->acceptsJobs = ippGetBoolean(accepts, 0) != 0;
    reading->display = TextOf(message, "printer-state-message");
    if (reading->display.empty()) reading->display = TextOf(message, "printer-alert-description");
    reading->about = ReadAbout(message);
    reading->trays = ReadTrays(message);
    reading->supplies = ReadSupplies(message);
    reading->currentFeeder = ReadFeeder(message, mediaSources);
    const int32_t impressions = NumberOf(message, "printer-impressions-completed");
    reading->pageCount =
        impressions >= 0 ? impressions : std::max(NumberOf(message, "printer-pages-completed"), kNotKnown);
}

Identity ReadIdentity(ipp_t* message) {
    Identity identity;
    const std::string id = TextOf(message, "printer-device-id");
    const std::string makeAndModel = TextOf(message, "printer-make-and-model");
    const auto first = [&](std::initializer_list<std::string_view> keys) {
        for (const std::string_view key : keys)
            if (const std::string_view value = FieldOf(id, key, ':'); !value.empty()) return std::string(value);
        return std::string();
    };
    identity.manufacturer = first({"MFG", "MANUFACTURER"});
    if (identity.manufacturer.empty()) identity.manufacturer = makeAndModel.substr(0, makeAndModel.find(' '));
    identity.model = first({"MDL", "MODEL"});
    if (identity.model.empty()) identity.model = makeAndModel;
    identity.serial = TextOf(message, "printer-serial-number");
    if (identity.serial.empty()) identity.serial = first({"SN", "SERN"});
    identity.location = TextOf(message, "printer-location");
    const std::vector<std::string> sides = KeywordsOf(message, "sides-supported");
    if (!sides.empty())
        identity.duplex =
            std::any_of(sides.begin(), sides.end(), [](const std::string& side) { return side != "one-sided"; });
    ipp_attribute_t* colour = Find(message, "color-supported");
    if (colour != nullptr && ippGetValueTag(colour) == IPP_TAG_BOOLEAN) identity.colour = ippGetBoolean(colour, 0) != 0;
    constexpr int32_t kNoFinishing = 3;
    for (const int32_t finishing : NumbersOf(message, "finishings-supported"))
        if (finishing != kNoFinishing) identity.finishings.push_back(finishing);
    if (Find(message, "finishings-supported") != nullptr) identity.finisher = !identity.finishings.empty();
    identity.outputBins = KeywordsOf(message, "output-bin-supported");
    return identity;
}

std::vector<Job> ReadJobs(ipp_t* message) {
    std::vector<Job> jobs;
    Job job;
    int32_t sheets = kNotKnown;
    const auto end = [&] {
        if (job.pages < 0) job.pages = sheets;
        if (job.id > 0 && job.state >= kJobPending && job.state <= kJobStopped && jobs.size() < kJobsMax)
            jobs.push_back(std::move(job));
        job = {};
        sheets = kNotKnown;
    };
    for (ipp_attribute_t* at = ippFirstAttribute(message); at != nullptr; at = ippNextAttribute(message)) {
        const char* text = ippGetName(at);
        if (ippGetGroupTag(at) != IPP_TAG_JOB || text == nullptr) { // between two jobs
            end();
            continue;
        }
        const std::string_view name = text;
        if (name == "job-id") job.id = NumberIn(at, 0);
        if (name == "job-state") job.state = NumberIn(at, 0);
        if (name == "job-name") job.name = TextIn(at, 0);
        if (name == "job-originating-user-name") job.user = TextIn(at, 0);
        if (name == "job-impressions-completed") job.pages = std::max(NumberIn(at, kNotKnown), kNotKnown);
        if (name == "job-media-sheets-completed") sheets = std::max(NumberIn(at, kNotKnown), kNotKnown);
    }
    end();
    return jobs;
}

} // namespace devices
