// No state.
#include "commands/views.h"

#include "base/failure.h"
#include "base/layer.h"
#include "base/product.h"

#include "product/program_names.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr View kViews[] = {
    {"log", "Show the changes of printers that were recorded: when, what, and what it means"},
    {"record", "Write the changes of a printer as a script, which a printer side plays again"},
    {"top", "Show all printers in the terminal, live"},
    {"serve", "Show all printers to browsers, and their figures to Prometheus"},
    {"bridge", "Tell an MQTT broker of all printers"},
    {"fleet", "Show the printers of all machines that tell a broker"},
};

} // namespace

std::span<const View> Views() {
    return kViews;
}

const View* FindView(const std::string& name) {
    const auto view =
        std::find_if(std::begin(kViews), std::end(kViews), [&](const View& each) { return each.name == name; });
    return view == std::end(kViews) ? nullptr : view;
}

std::string ProgramOf(const View& view) {
    return OwnDirectory() + "oriel-" + view.name;
}

bool IsInstalled(const View& view) {
    return FileExists(ProgramOf(view).c_str());
}

Failure NotInstalled(const View& view) {
    return {Exit::False, std::string("the command \"") + view.name + "\" is not installed", "",
            "install the package oriel-views"};
}

void BecomeView(const View& view, const std::vector<std::string>& arguments) {
    if (!IsInstalled(view)) throw NotInstalled(view);
    ReplaceProgram(std::string("oriel-") + view.name, arguments);
}
