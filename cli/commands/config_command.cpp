// config: shows and changes the settings of the product. No state.
#include "commands/commands.h"
#include "commands/views.h"

#include "base/output.h"
#include "base/settings.h"

#include <algorithm>

namespace {

Json ValueJson(const Setting& setting) {
    if (setting.most != 0) return ReadNumberSetting(setting.name);
    Json list = Json::array();
    for (const std::string& text : ReadListSetting(setting.name))
        list.push_back(ToUtf8(text));
    return list;
}

std::string ValueText(const Setting& setting) {
    if (setting.most != 0) return std::to_string(ReadNumberSetting(setting.name));
    std::string line;
    for (const std::string& text : ReadListSetting(setting.name))
        line += (line.empty() ? "'" : " '") + Printable(ToUtf8(text)) + "'";
    return line;
}

Json SettingJson(const Setting& setting) {
    return {{"name", setting.name}, {"value", ValueJson(setting)}, {"default", !HasValue(setting)}};
}

const Setting& RequireSetting(const std::string& name) {
    if (const Setting* setting = FindSetting(name)) return *setting;
    std::vector<std::string> names;
    for (const Setting& setting : Settings())
        names.emplace_back(setting.name);
    const std::string nearest = Nearest(name, names);
    throw UsageFailure("there is no setting \"" + name + "\"",
                       nearest.empty() ? "'oriel config' lists them" : "did you mean " + nearest + "?");
}

DWORD RequireNumber(const Setting& setting, const std::vector<std::string>& words) {
    const std::optional<uint64_t> number = words.size() == 1 ? ParseNumber(words.front(), 32) : std::nullopt;
    if (number && *number >= setting.least && *number <= setting.most) return static_cast<DWORD>(*number);
    throw UsageFailure(std::string(setting.name) + " takes a number from " + std::to_string(setting.least) + " to " +
                       std::to_string(setting.most));
}

std::string RequireView(const std::string& line) {
    const std::string name = line.substr(0, line.find(' '));
    const View* view = FindView(name);
    if (view == nullptr)
        throw UsageFailure("there is no view \"" + name + "\"", "give a command line such as 'log --record'");
    if (!IsInstalled(*view)) throw NotInstalled(*view);
    return RequireAnsi(line, "the command line");
}

void Set(const Setting& setting, const NewSetting& wanted) {
    if (setting.most != 0) {
        if (wanted.add) throw UsageFailure(std::string(setting.name) + " is no list", "omit --add");
        WriteNumberSetting(setting, RequireNumber(setting, wanted.words));
        return;
    }
    std::vector<std::string> texts = wanted.add ? ReadListSetting(setting.name) : std::vector<std::string>();
    for (const std::string& word : wanted.words) {
        const std::string text = RequireView(word);
        if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(text);
    }
    WriteListSetting(setting, texts);
}

} // namespace

Exit ConfigCommand(const NewSetting& wanted) {
    if (wanted.name.empty()) {
        Json list = Json::array();
        Table table{{{"NAME", "VALUE", "WHAT IT IS"}}};
        for (const Setting& setting : Settings()) {
            list.push_back(SettingJson(setting));
            table.rows.push_back({setting.name, ValueText(setting), setting.what});
        }
        if (g_output.json)
            PrintJson({{"settings", list}});
        else
            table.Print();
        return Exit::Done;
    }
    const Setting& setting = RequireSetting(wanted.name);
    if (wanted.remove && (!wanted.words.empty() || wanted.add))
        throw UsageFailure("--default takes no value", "give one of both");
    if (wanted.add && wanted.words.empty()) throw UsageFailure("--add needs a value");
    if (wanted.remove)
        RemoveSetting(setting);
    else if (!wanted.words.empty())
        Set(setting, wanted);
    if (g_output.json)
        PrintJson({{"setting", SettingJson(setting)}});
    else if (!wanted.remove && wanted.words.empty())
        PrintLine(ValueText(setting));
    return Exit::Done;
}
