#!/usr/bin/python3
"""Reads a tray item and its menu over D-Bus, or clicks a menu entry, as a tray host would.

usage: dbusmenu.py show  BUS_NAME ITEM_PATH
       dbusmenu.py click BUS_NAME ITEM_PATH LABEL
Labels are printed and matched as shown, with dbusmenu's mnemonic underscores decoded.
`show` prints tab-separated lines "property <name> <value>" and, for each visible menu entry in
order, "entry <type> <enabled> <label>". Needs Debian's python3-dbus: run it with /usr/bin/python3."""
import sys

import dbus

ITEM = "org.kde.StatusNotifierItem"
MENU = "com.canonical.dbusmenu"


def plain(label):
    """The label as shown: "__" is a literal underscore, a single "_" marks the mnemonic."""
    out, i = [], 0
    while i < len(label):
        if label[i] == "_":
            i += 1
        if i < len(label):
            out.append(label[i])
        i += 1
    return "".join(out)


def entries(node):
    for child in node[2]:
        yield int(child[0]), child[1]
        yield from entries(child)


def main(argv):
    if len(argv) < 4 or argv[1] not in ("show", "click") or (argv[1] == "click" and len(argv) < 5):
        sys.exit(__doc__)
    command, bus_name, path = argv[1:4]
    bus = dbus.SessionBus()
    props = bus.get_object(bus_name, path).GetAll(ITEM, dbus_interface=dbus.PROPERTIES_IFACE)
    menu = bus.get_object(bus_name, props["Menu"])
    _, layout = menu.GetLayout(0, -1, dbus.Array([], signature="s"), dbus_interface=MENU)
    if command == "show":
        for name in ("Id", "Title", "Status", "IconName", "IconThemePath"):
            print(f"property\t{name}\t{props.get(name, '')}")
        for _, p in entries(layout):
            if not bool(p.get("visible", True)):
                continue
            print(f"entry\t{p.get('type', 'standard')}\t{bool(p.get('enabled', True))}\t{plain(str(p.get('label', '')))}")
        return 0
    for entry_id, p in entries(layout):
        if plain(str(p.get("label", ""))) == argv[4]:
            try:
                menu.Event(dbus.Int32(entry_id), "clicked", dbus.Int32(0, variant_level=1), dbus.UInt32(0),
                           dbus_interface=MENU)
            except dbus.exceptions.DBusException as error:
                # A click on "Quit" may end the program before its reply is sent.
                if error.get_dbus_name() != "org.freedesktop.DBus.Error.NoReply":
                    raise
            return 0
    print(f"no entry labelled {argv[4]!r}")
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
