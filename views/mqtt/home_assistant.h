// Documents with which Home Assistant finds the printers by itself (its MQTT discovery): a device for each printer,
// with a sensor for its state, one for its pages, one that says whether it needs somebody, and one for each level of a
// model. No state.
#pragma once

#include "model/source.h"
#include "mqtt/connection.h"
#include "mqtt/topics.h"

namespace views {

// What all topics of this machine's printers match; and below what all of them are.
std::string HomeAssistantFilter(const std::string& machine);
// "oriel_MACHINE", in the characters that are allowed there.
std::string HomeAssistantNode(const std::string& machine);
// machine: its name in topics.
std::vector<Outgoing> HomeAssistantDocuments(const std::string& machine, const MachineTopics& topics,
                                             const Printer& printer);
// Whether a topic is one of that printer's documents.
bool IsHomeAssistantTopic(const std::string& topic, const std::string& machine, const std::string& printer);

} // namespace views
