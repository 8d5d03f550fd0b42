#!/usr/bin/env python3
# Opens an application's menu with a click and chooses items of it by their
# titles, as a user would: each item is found through the accessibility bus
# (AT-SPI) by its title, waited for until it is shown and enabled, and clicked
# in its middle with the pointer (xdotool). Each title but the last names an
# item whose submenu holds the next one.
#
#     choose_menu_item.py APPLICATION X Y TITLE [TITLE...]
#
# X and Y are where to click to open the menu (a tray icon, say). Exits 0 once
# the last item was clicked, 1 with a message when an item was not found, or
# not enabled, within the time limit (KV_MENU_WAIT seconds, default 20).
#
# A menu that pops up is a window of its own that toolkits leave out of the
# application's tree of objects, and announce instead: the menus are taken
# from those announcements.
import os
import subprocess
import sys
import time

import pyatspi
from gi.repository import GLib

MENU_ROLES = {"menu", "popup menu"}


def states(accessible):
    try:
        return accessible.getState()
    except Exception:  # the object went away while we looked
        return None


def application_name(accessible):
    try:
        return accessible.getApplication().name
    except Exception:
        return None


class Chooser:
    def __init__(self, name, titles, limit):
        self.name = name
        self.titles = list(titles)
        self.limit = limit
        self.menus = []  # menus seen popping up, newest last
        self.failure = None
        self.deadline = time.monotonic() + limit
        self.reopen = None  # clicks the icon again
        self.opened = time.monotonic()
        self.searched = time.monotonic()

    def on_event(self, event):
        source = event.source
        if source is None or application_name(source) != self.name:
            return
        # The menu itself, or the menu holding an item that took the focus.
        for candidate in (source, getattr(source, "parent", None)):
            try:
                if candidate is not None and candidate.getRoleName() in MENU_ROLES:
                    self.menus.append(candidate)
                    return
            except Exception:
                return

    # Menus of the application shown now, found in its accessible tree: for
    # when a menu opened without announcing itself (a slow build can register
    # with the accessibility bus after its menu first shows).
    def showing_menus(self):
        found = []

        def walk(node, depth):
            for child in node:
                try:
                    if child is None:
                        continue
                    if child.getRoleName() in MENU_ROLES:
                        state = states(child)
                        if state and state.contains(pyatspi.STATE_SHOWING):
                            found.append(child)
                    if depth < 8:
                        walk(child, depth + 1)
                except Exception:
                    continue

        try:
            for application in pyatspi.Registry.getDesktop(0):
                if application is not None and application.name == self.name:
                    walk(application, 0)
        except Exception:
            pass
        return found

    # The shown item of that title in a menu seen so far, newest first.
    def find(self, title):
        for menu in reversed(self.menus):
            try:
                for item in menu:
                    if item is not None and item.name == title:
                        state = states(item)
                        if state and state.contains(pyatspi.STATE_SHOWING):
                            return item, state.contains(pyatspi.STATE_ENABLED)
            except Exception:
                continue
        return None, False

    # Runs from the main loop: chooses the next item once it can.
    def step(self):
        title = self.titles[0]
        item, enabled = self.find(title)
        if not item and time.monotonic() - self.searched > 1:
            # Each look into the tree is many calls over the bus: once a second.
            self.searched = time.monotonic()
            self.menus.extend(menu for menu in self.showing_menus() if menu not in self.menus)
            item, enabled = self.find(title)
        if item and enabled:
            click(item)
            self.titles.pop(0)
            self.deadline = time.monotonic() + self.limit
            if not self.titles:
                pyatspi.Registry.stop()
                return False
        elif not self.menus and self.reopen and time.monotonic() - self.opened > 3:
            # No menu announced itself since the click: the click may have
            # come before the icon took clicks, or before the registry
            # passed events on. A menu already open would have been seen.
            self.opened = time.monotonic()
            self.reopen()
        elif time.monotonic() > self.deadline:
            what = "is not enabled" if item else "was not found in an open menu"
            self.failure = f'choose_menu_item: the item "{title}" of {self.name} {what}; {self.describe()}'
            pyatspi.Registry.stop()
            return False
        return True

    def describe(self):
        seen = []
        for menu in self.menus:
            try:
                seen.append("[" + ", ".join(repr(item.name) for item in menu if item is not None) + "]")
            except Exception:
                pass
        return "menus seen: " + (", ".join(seen) if seen else "none")


def click(item):
    x, y, width, height = item.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    subprocess.run(["xdotool", "mousemove", str(x + width // 2), str(y + height // 2)], check=True)
    time.sleep(0.2)
    subprocess.run(["xdotool", "click", "1"], check=True)


def main():
    if len(sys.argv) < 5:
        sys.exit("usage: choose_menu_item.py APPLICATION X Y TITLE [TITLE...]")
    name, x, y, titles = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    chooser = Chooser(name, titles, float(os.environ.get("KV_MENU_WAIT", "20")))
    pyatspi.Registry.registerEventListener(
        chooser.on_event, "window:create", "object:state-changed:showing", "object:state-changed:focused",
        "focus:")

    def click_icon():
        subprocess.run(["xdotool", "mousemove", x, y, "click", "1"], check=True)

    def open_menu():
        click_icon()
        chooser.opened = time.monotonic()
        chooser.reopen = click_icon
        GLib.timeout_add(100, chooser.step)
        return False

    # Listening first, so the menu's announcement is not missed.
    GLib.timeout_add(300, open_menu)
    pyatspi.Registry.start()
    if chooser.failure:
        sys.exit(chooser.failure)


if __name__ == "__main__":
    main()
