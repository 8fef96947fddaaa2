#!/usr/bin/python3
"""A StatusNotifierWatcher for tests: no visual host, it only records tray items.

Owns org.kde.StatusNotifierWatcher on the session bus and prints, flushed, "READY" once items
can register and "REGISTERED <unique bus name> <path>" for each item that does.
Needs Debian's python3-dbus and python3-gi: run it with /usr/bin/python3."""
import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

WATCHER = "org.kde.StatusNotifierWatcher"


class Watcher(dbus.service.Object):
    def __init__(self, bus):
        self.items = []
        self.name = dbus.service.BusName(WATCHER, bus, do_not_queue=True)
        super().__init__(self.name, "/StatusNotifierWatcher")

    @dbus.service.method(WATCHER, in_signature="s", out_signature="", sender_keyword="sender")
    def RegisterStatusNotifierItem(self, service, sender=None):
        # Ayatana passes its object path; other items pass a bus name and use the default path.
        bus_name, path = (sender, service) if service.startswith("/") else (service, "/StatusNotifierItem")
        self.items.append(bus_name + path)
        print(f"REGISTERED {bus_name} {path}", flush=True)
        self.StatusNotifierItemRegistered(bus_name + path)

    @dbus.service.method(WATCHER, in_signature="s", out_signature="")
    def RegisterStatusNotifierHost(self, service):
        pass

    @dbus.service.signal(WATCHER, signature="s")
    def StatusNotifierItemRegistered(self, service):
        pass

    @dbus.service.signal(WATCHER, signature="")
    def StatusNotifierHostRegistered(self):
        pass

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        return self.GetAll(interface)[name]

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return {
            "RegisteredStatusNotifierItems": dbus.Array(self.items, signature="s"),
            "IsStatusNotifierHostRegistered": dbus.Boolean(True),
            "ProtocolVersion": dbus.Int32(0),
        }


if __name__ == "__main__":
    DBusGMainLoop(set_as_default=True)
    loop = GLib.MainLoop()
    bus = dbus.SessionBus()
    bus.call_on_disconnection(lambda _: loop.quit())
    watcher = Watcher(bus)  # noqa: F841 (kept alive by the loop)
    print("READY", flush=True)
    loop.run()
