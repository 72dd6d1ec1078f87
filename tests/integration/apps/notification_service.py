#!/usr/bin/python3
"""The session's desktop services for tests: owns org.freedesktop.Notifications
on the session bus and prints "notify SUMMARY | BODY | ACTION-KEYS" for each
notification, and org.gnome.ScreenSaver and org.freedesktop.ScreenSaver, active
while the file named by the first argument exists (a locked screen). A person
pressing a notification's button: the test writes the action's key to that
name + ".press", and ActionInvoked follows for the latest notification with that
action."""
import os
import sys

from gi.repository import Gio, GLib

NOTIFICATIONS = """<node><interface name="org.freedesktop.Notifications">
<method name="Notify"><arg type="s" direction="in"/><arg type="u" direction="in"/>
<arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="s" direction="in"/>
<arg type="as" direction="in"/><arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
<arg type="u" direction="out"/></method>
<method name="CloseNotification"><arg type="u" direction="in"/></method>
<signal name="ActionInvoked"><arg type="u"/><arg type="s"/></signal></interface></node>"""
SCREENSAVER = """<node><interface name="%s">
<method name="GetActive"><arg type="b" direction="out"/></method></interface></node>"""
LOCKED = sys.argv[1] if len(sys.argv) > 1 else ""
PATH = "/org/freedesktop/Notifications"
bus = []
ids = [0]
offering = {}  # action key: the latest notification that offers it


def on_notify(connection, sender, path, interface, method, parameters, invocation):
    if method == "CloseNotification":
        invocation.return_value(None)
        return
    if not parameters[1]:
        ids[0] += 1
    notification = parameters[1] or ids[0]
    bus[:] = [connection]
    for key in parameters[5][::2]:
        offering[key] = notification
    print("notify", parameters[3], "|", parameters[4], "|", " ".join(parameters[5][::2]),
          flush=True)
    invocation.return_value(GLib.Variant("(u)", (notification,)))


def on_screensaver(connection, sender, path, interface, method, parameters, invocation):
    invocation.return_value(GLib.Variant("(b)", (bool(LOCKED) and os.path.exists(LOCKED),)))


def pressed():
    press = LOCKED + ".press"
    if LOCKED and bus and os.path.exists(press):
        with open(press) as f:
            key = f.read().strip()
        os.remove(press)
        bus[0].emit_signal(None, PATH, "org.freedesktop.Notifications", "ActionInvoked",
                           GLib.Variant("(us)", (offering.get(key, 0), key)))
    return True


def on_bus(connection, name):
    services = [(NOTIFICATIONS, PATH, on_notify)]
    for screensaver in ("org.gnome.ScreenSaver", "org.freedesktop.ScreenSaver"):
        services.append((SCREENSAVER % screensaver, "/" + screensaver.replace(".", "/"),
                         on_screensaver))
        Gio.bus_own_name_on_connection(connection, screensaver, Gio.BusNameOwnerFlags.NONE,
                                       None, None)
    for xml, path, handler in services:
        info = Gio.DBusNodeInfo.new_for_xml(xml).interfaces[0]
        connection.register_object(path, info, handler, None, None)


# Gone with the session's bus.
Gio.bus_own_name(Gio.BusType.SESSION, "org.freedesktop.Notifications",
                 Gio.BusNameOwnerFlags.NONE, on_bus, lambda *a: print("ready", flush=True),
                 lambda *a: os._exit(0))
GLib.timeout_add(100, pressed)
GLib.MainLoop().run()
