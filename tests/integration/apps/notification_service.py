#!/usr/bin/python3
"""A desktop notification service for tests: owns org.freedesktop.Notifications
on the session bus and prints "notify SUMMARY | BODY" for each notification."""
from gi.repository import Gio, GLib

INTERFACE = """<node><interface name="org.freedesktop.Notifications">
<method name="Notify"><arg type="s" direction="in"/><arg type="u" direction="in"/>
<arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="s" direction="in"/>
<arg type="as" direction="in"/><arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
<arg type="u" direction="out"/></method></interface></node>"""


def on_call(connection, sender, path, interface, method, parameters, invocation):
    print("notify", parameters[3], "|", parameters[4], flush=True)
    invocation.return_value(GLib.Variant("(u)", (1,)))


def on_bus(connection, name):
    info = Gio.DBusNodeInfo.new_for_xml(INTERFACE).interfaces[0]
    connection.register_object("/org/freedesktop/Notifications", info, on_call, None, None)


Gio.bus_own_name(Gio.BusType.SESSION, "org.freedesktop.Notifications",
                 Gio.BusNameOwnerFlags.NONE, on_bus, lambda *a: print("ready", flush=True), None)
GLib.MainLoop().run()
