#!/usr/bin/python3
"""A small GTK 3 window that the desktop integration tests drive.

It prints one line per event it sees on standard output:
  ready X Y W H PX PY PW PH  the window is shown and focused, and where the
                           pad is (root coordinates)
  clicked LABEL            a button was activated
  toggled LABEL 0|1        the check box changed
  text JSON                the text field's content after a burst of changes
  focus NAME               a widget took the keyboard focus
  key KEYVAL_NAME STATE    a key press reached the window (state = X modifier mask)
  press B X Y / release B X Y / drag X Y   pointer buttons and motion on the pad
  scroll DIRECTION         a wheel step on the pad
Options: --widgets N adds N extra buttons; --at X Y places the window there;
--fullscreen fills its monitor (on Wayland, where a window cannot place
itself); --background COLOUR paints the window's background.
"""
import json
import sys

import gi

gi.require_version("Gtk", "3.0")
gi.require_version("Gdk", "3.0")
from gi.repository import Gdk, GLib, Gtk  # noqa: E402


def say(*parts):
    print(" ".join(str(p) for p in parts), flush=True)


def main():
    extra = 0
    if "--widgets" in sys.argv:
        extra = int(sys.argv[sys.argv.index("--widgets") + 1])
    at = (0, 0)
    if "--at" in sys.argv:
        i = sys.argv.index("--at")
        at = (int(sys.argv[i + 1]), int(sys.argv[i + 2]))

    window = Gtk.Window(title="Zul Test App")
    if "--background" in sys.argv:
        css = Gtk.CssProvider()
        colour = sys.argv[sys.argv.index("--background") + 1]
        css.load_from_data(("window { background: %s; }" % colour).encode())
        Gtk.StyleContext.add_provider_for_screen(
            Gdk.Screen.get_default(), css, Gtk.STYLE_PROVIDER_PRIORITY_APPLICATION)
    window.set_default_size(640, 480)
    window.move(*at)
    window.connect("destroy", Gtk.main_quit)

    outer = Gtk.Box(orientation=Gtk.Orientation.VERTICAL, spacing=4)
    window.add(outer)

    row = Gtk.Box(spacing=4)
    outer.pack_start(row, False, False, 0)
    button = Gtk.Button(label="Press me")
    button.connect("clicked", lambda b: say("clicked", b.get_label()))
    row.pack_start(button, False, False, 0)
    check = Gtk.CheckButton(label="Remember")
    check.connect("toggled", lambda c: say("toggled", c.get_label(), int(c.get_active())))
    row.pack_start(check, False, False, 0)
    label = Gtk.Label(label="Your name:")
    row.pack_start(label, False, False, 0)

    entry = Gtk.Entry()
    entry.set_size_request(300, -1)
    entry.get_accessible().set_name("Name field")
    # Printed once the pending events are handled, not on every keystroke.
    pending_text = []

    def print_text():
        pending_text.clear()
        say("text", json.dumps(entry.get_text()))
        return False

    def on_changed(e):
        if not pending_text:
            pending_text.append(True)
            GLib.idle_add(print_text, priority=GLib.PRIORITY_LOW)
    entry.connect("changed", on_changed)
    entry.connect("focus-in-event", lambda *a: say("focus", "Name field") or False)
    outer.pack_start(entry, False, False, 0)

    pad = Gtk.EventBox()
    pad.set_size_request(300, 150)
    pad.add_events(Gdk.EventMask.BUTTON_PRESS_MASK | Gdk.EventMask.BUTTON_RELEASE_MASK
                   | Gdk.EventMask.BUTTON_MOTION_MASK | Gdk.EventMask.SCROLL_MASK)
    pad.connect("button-press-event",
                lambda w, e: say("press", e.button, int(e.x_root), int(e.y_root))
                if e.type == Gdk.EventType.BUTTON_PRESS else None)
    pad.connect("button-release-event",
                lambda w, e: say("release", e.button, int(e.x_root), int(e.y_root)))
    pad.connect("motion-notify-event", lambda w, e: say("drag", int(e.x_root), int(e.y_root)))

    def on_scroll(w, e):
        names = {Gdk.ScrollDirection.UP: "up", Gdk.ScrollDirection.DOWN: "down",
                 Gdk.ScrollDirection.LEFT: "left", Gdk.ScrollDirection.RIGHT: "right"}
        if e.direction in names:
            say("scroll", names[e.direction])
    pad.connect("scroll-event", on_scroll)
    pad.add(Gtk.Label(label="pad"))
    outer.pack_start(pad, False, False, 0)

    if extra:
        flow = Gtk.FlowBox()
        flow.set_max_children_per_line(40)
        for i in range(extra):
            b = Gtk.Button(label="b%d" % i)
            b.connect("clicked", lambda b: say("clicked", b.get_label()))
            flow.add(b)
        scroller = Gtk.ScrolledWindow()
        scroller.add(flow)
        scroller.set_vexpand(True)
        outer.pack_start(scroller, True, True, 0)

    def on_key(w, e):
        say("key", Gdk.keyval_name(e.keyval), int(e.state) & 0xff)
        return False
    window.connect("key-press-event", on_key)

    def announce():
        # A headless Wayland compositor has no keyboard until a virtual one
        # appears, so the window never becomes active: its focused state counts.
        focused = window.get_window().get_state() & Gdk.WindowState.FOCUSED
        if not window.is_active() and not focused:
            window.get_window().focus(Gdk.CURRENT_TIME)
            return True
        x, y = window.get_window().get_origin()[1:]
        alloc = window.get_allocation()
        px, py = pad.translate_coordinates(window, 0, 0)
        pa = pad.get_allocation()
        entry.grab_focus()
        say("ready", x, y, alloc.width, alloc.height, x + px, y + py, pa.width, pa.height)
        return False

    window.show_all()
    if "--fullscreen" in sys.argv:
        window.fullscreen()
    window.present()
    GLib.timeout_add(50, announce)
    Gtk.main()


if __name__ == "__main__":
    main()
