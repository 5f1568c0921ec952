// No state.
#include "mqtt/home_assistant.h"

#include "product/variable_names.h"

#include <algorithm>
#include <string_view>

namespace views {

namespace {

constexpr char kRoot[] = "homeassistant";
constexpr std::string_view kLevel = "Level"; // the end of the name of a model's variable in percent

// Letters, digits, "-"; the rest as "_" and two hexadecimal digits.
std::string Identifier(const std::string& name) {
    constexpr char kHex[] = "0123456789abcdef";
    std::string id;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-')
            id += c;
        else
            id += {'_', kHex[byte >> 4], kHex[byte & 15]};
    }
    return id;
}

std::string TextOf(const Printer& printer, const char* variable) {
    const auto found = printer.values.find(variable);
    return found != printer.values.end() && found->second.json.is_string() ? found->second.json.get<std::string>() : "";
}

struct Sensor {
    const char* component;
    std::string variable;
    const char* name;
    const char* valueTemplate;
    Json more;
};

} // namespace

std::string HomeAssistantNode(const std::string& machine) {
    return "oriel_" + Identifier(machine);
}

std::string HomeAssistantFilter(const std::string& machine) {
    return std::string(kRoot) + "/+/" + HomeAssistantNode(machine) + "/+/config";
}

bool IsHomeAssistantTopic(const std::string& topic, const std::string& machine, const std::string& printer) {
    return topic.starts_with(std::string(kRoot) + "/") &&
           topic.find("/" + HomeAssistantNode(machine) + "/" + Identifier(printer) + "__") != std::string::npos;
}

std::vector<Outgoing> HomeAssistantDocuments(const std::string& machine, const MachineTopics& topics,
                                             const Printer& printer) {
    const std::string node = HomeAssistantNode(machine);
    const std::string id = Identifier(printer.name);
    Json device = {{"identifiers", {node + "_" + id}}, {"name", printer.name}};
    if (const std::string maker = TextOf(printer, names::kPrinterManufacturer); !maker.empty())
        device["manufacturer"] = maker;
    if (const std::string model = TextOf(printer, names::kPrinterModel); !model.empty()) device["model"] = model;

    std::vector<Sensor> sensors = {
        {"sensor", names::kPrinterStatus, "State", "{{ value_json.meaning[:255] }}", {{"icon", "mdi:printer"}}},
        {"binary_sensor",
         names::kPrinterStatus,
         "Problem",
         "{{ 'ON' if value_json.severity == 'error' else 'OFF' }}",
         {{"device_class", "problem"}}},
        {"sensor",
         names::kPageCount,
         "Pages",
         "{{ value_json.value }}",
         {{"state_class", "total_increasing"}, {"unit_of_measurement", "pages"}}}};
    for (const auto& [name, value] : printer.values)
        if (name.size() > kLevel.size() && std::string_view(name).ends_with(kLevel) && value.json.is_number())
            sensors.push_back({"sensor",
                               name,
                               nullptr,
                               "{{ value_json.value }}",
                               {{"state_class", "measurement"}, {"unit_of_measurement", "%"}}});
    std::vector<Outgoing> documents;
    for (const Sensor& sensor : sensors) {
        if (!printer.values.contains(sensor.variable)) continue;
        const std::string object = id + "__" + Identifier(sensor.variable);
        Json json = {{"name", sensor.name != nullptr ? std::string(sensor.name) : sensor.variable},
                     {"unique_id", node + "_" + object + "_" + sensor.component},
                     {"state_topic", topics.Value(printer.name, sensor.variable)},
                     {"value_template", sensor.valueTemplate},
                     {"availability_topic", topics.Available()},
                     {"device", device}};
        json.update(sensor.more);
        documents.push_back(
            {.topic = std::string(kRoot) + "/" + sensor.component + "/" + node + "/" + object + "/config",
             .payload = json.dump(-1, ' ', false, Json::error_handler_t::replace)});
    }
    return documents;
}

} // namespace views
