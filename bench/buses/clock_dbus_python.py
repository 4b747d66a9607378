"""clock_dbus_python.py serve | ask TIMES"""
import sys
import time

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

NAME, PATH = "org.example.Clock", "/clock"


class Clock(dbus.service.Object):
    @dbus.service.method(NAME, in_signature="s", out_signature="s")
    def time(self, question):
        return str(int(time.time()))


dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
if sys.argv[1] == "serve":
    name = dbus.service.BusName(NAME, bus)
    clock = Clock(bus, PATH)
    print("running", flush=True)
    GLib.MainLoop().run()
interface = dbus.Interface(bus.get_object(NAME, PATH, introspect=False), NAME)
for _ in range(int(sys.argv[2])):
    interface.time("?")
