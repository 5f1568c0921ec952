// Notifications by D-Bus (org.freedesktop.Notifications 1.2). No state: each call
// makes a connection of its own, because one that is kept open would keep the user's session bus from ending.
#include "desktop_module.h"

#include <dbus/dbus.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr int kAnswerMs = 3000;
constexpr char kService[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr char kApplication[] = "Oriel";
constexpr char kIcon[] = "printer-warning";
constexpr dbus_int32_t kServerDecides = -1; // how long it is shown

struct CloseConnection {
    void operator()(DBusConnection* connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
using Connection = std::unique_ptr<DBusConnection, CloseConnection>;
struct UnrefMessage {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, UnrefMessage>;

// The bus of the session; null without one. The library's own search would start a bus where there is none.
Connection Connect() {
    std::string address;
    if (const char* given = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
        address = given;
    } else if (const char* folder = std::getenv("XDG_RUNTIME_DIR")) {
        char* escaped = dbus_address_escape_value(folder);
        if (escaped) address = "unix:path=" + std::string(escaped) + "/bus";
        dbus_free(escaped);
    }
    if (address.empty() || address.starts_with("autolaunch:")) return nullptr;
    Connection connection(dbus_connection_open_private(address.c_str(), nullptr));
    if (!connection) return nullptr;
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    // As dbus_bus_register does, which waits for longer.
    const Message hello(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"));
    if (!hello) return nullptr;
    const Message answer(dbus_connection_send_with_reply_and_block(connection.get(), hello.get(), kAnswerMs, nullptr));
    const char* name = nullptr;
    if (!answer || !dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID))
        return nullptr;
    dbus_bus_set_unique_name(connection.get(), name);
    return connection;
}

Message Ask(DBusConnection* connection, const Message& call) {
    return Message(dbus_connection_send_with_reply_and_block(connection, call.get(), kAnswerMs, nullptr));
}

Message CallOf(const char* method) {
    return Message(dbus_message_new_method_call(kService, kPath, kService, method));
}

// Some servers read the body as markup. The words of the body are the product's own, but for a model's.
std::string WithoutMarkup(const std::string& text) {
    std::string plain;
    for (const char character : text)
        if (character != '<' && character != '>' && character != '&') plain += character;
    return plain;
}

bool AppendHints(DBusMessageIter* arguments, desktop::Urgency urgency) {
    const char* key = "urgency";
    const auto byte = static_cast<unsigned char>(urgency);
    DBusMessageIter hints, hint, value;
    return dbus_message_iter_open_container(arguments, DBUS_TYPE_ARRAY, "{sv}", &hints) &&
           dbus_message_iter_open_container(&hints, DBUS_TYPE_DICT_ENTRY, nullptr, &hint) &&
           dbus_message_iter_append_basic(&hint, DBUS_TYPE_STRING, &key) &&
           dbus_message_iter_open_container(&hint, DBUS_TYPE_VARIANT, "y", &value) &&
           dbus_message_iter_append_basic(&value, DBUS_TYPE_BYTE, &byte) &&
           dbus_message_iter_close_container(&hint, &value) && dbus_message_iter_close_container(&hints, &hint) &&
           dbus_message_iter_close_container(arguments, &hints);
}

bool AppendNoActions(DBusMessageIter* arguments) {
    DBusMessageIter actions;
    return dbus_message_iter_open_container(arguments, DBUS_TYPE_ARRAY, "s", &actions) &&
           dbus_message_iter_close_container(arguments, &actions);
}

uint32_t Show(const desktop::Notification& notification) {
    const Connection connection = Connect();
    const Message call = CallOf("Notify");
    if (!connection || !call) return 0;
    const std::string plain = WithoutMarkup(notification.body);
    const char *application = kApplication, *icon = kIcon, *title = notification.title.c_str(), *body = plain.c_str();
    const dbus_uint32_t replaces = notification.replaces;
    DBusMessageIter arguments;
    dbus_message_iter_init_append(call.get(), &arguments);
    if (!dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &application) ||
        !dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, &replaces) ||
        !dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &icon) ||
        !dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &title) ||
        !dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &body) || !AppendNoActions(&arguments) ||
        !AppendHints(&arguments, notification.urgency) ||
        !dbus_message_iter_append_basic(&arguments, DBUS_TYPE_INT32, &kServerDecides))
        return 0;
    const Message answer = Ask(connection.get(), call);
    dbus_uint32_t number = 0;
    if (!answer || !dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID))
        return 0;
    return number;
}

void Close(uint32_t number) {
    const Connection connection = Connect();
    const Message call = CallOf("CloseNotification");
    const dbus_uint32_t shown = number;
    if (connection && call && dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, &shown, DBUS_TYPE_INVALID))
        Ask(connection.get(), call);
}

constexpr desktop::Module kModule{.size = sizeof kModule, .show = Show, .close = Close};

} // namespace

extern "C" __attribute__((visibility("default"))) const desktop::Module* OrielDesktopModule() {
    return &kModule;
}
