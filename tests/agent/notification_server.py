"""A desktop that shows notifications: a line of JSON for each call, on standard output."""

import json

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NAME = "org.freedesktop.Notifications"


class Server(dbus.service.Object):
    last = 0

    @dbus.service.method(NAME, in_signature="susssasa{sv}i", out_signature="u")
    def Notify(self, application, replaces, icon, title, body, actions, hints, expires):
        if replaces == 0:
            self.last += 1
        number = int(replaces) or self.last
        print(json.dumps({"shown": number, "title": title, "body": body, "urgency": int(hints["urgency"])}), flush=True)
        return number

    @dbus.service.method(NAME, in_signature="u")
    def CloseNotification(self, number):
        print(json.dumps({"closed": int(number)}), flush=True)


DBusGMainLoop(set_as_default=True)
name = dbus.service.BusName(NAME, dbus.SessionBus())
server = Server(name, "/org/freedesktop/Notifications")
print("{}", flush=True)
GLib.MainLoop().run()
