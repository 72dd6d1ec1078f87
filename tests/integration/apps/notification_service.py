#!/usr/bin/python3
"""The session's desktop services for tests: owns org.freedesktop.Notifications
on the session bus and prints "notify SUMMARY | BODY" for each notification,
and org.gnome.ScreenSaver, active while the file named by the first argument
exists (a locked screen)."""
import os
import sys

from gi.repository import Gio, GLib

NOTIFICATIONS = """<node><interface name="org.freedesktop.Notifications">
<method name="Notify"><arg type="s" direction="in"/><arg type="u" direction="in"/>
<arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="s" direction="in"/>
<arg type="as" direction="in"/><arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
<arg type="u" direction="out"/></method></interface></node>"""
SCREENSAVER = """<node><interface name="org.gnome.ScreenSaver">
<method name="GetActive"><arg type="b" direction="out"/></method></interface></node>"""
LOCKED = sys.argv[1] if len(sys.argv) > 1 else ""


def on_notify(connection, sender, path, interface, method, parameters, invocation):
    print("notify", parameters[3], "|", parameters[4], flush=True)
    invocation.return_value(GLib.Variant("(u)", (1,)))


def on_screensaver(connection, sender, path, interface, method, parameters, invocation):
    invocation.return_value(GLib.Variant("(b)", (bool(LOCKED) and os.path.exists(LOCKED),)))


def on_bus(connection, name):
    for xml, path, handler in ((NOTIFICATIONS, "/org/freedesktop/Notifications", on_notify),
                               (SCREENSAVER, "/org/gnome/ScreenSaver", on_screensaver)):
        info = Gio.DBusNodeInfo.new_for_xml(xml).interfaces[0]
        connection.register_object(path, info, handler, None, None)
    Gio.bus_own_name_on_connection(connection, "org.gnome.ScreenSaver",
                                   Gio.BusNameOwnerFlags.NONE, None, None)


Gio.bus_own_name(Gio.BusType.SESSION, "org.freedesktop.Notifications",
                 Gio.BusNameOwnerFlags.NONE, on_bus, lambda *a: print("ready", flush=True), None)
GLib.MainLoop().run()
