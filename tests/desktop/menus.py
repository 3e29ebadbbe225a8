#!/usr/bin/env python3
"""Tries the menus of Cinnamon's and KDE's file managers, which call `kestrune`: a service, a mount, a display and a bus of their own.

Opens a folder of the mount with its one file selected, uses the menu, and looks at the clipboard and at what is on the disk.

Usage: tests/desktop/menus.py BUILD nemo|dolphin [--screenshot FILE]
Exits 0 where all is well, 77 where something is missing that this needs (it says what), else 1."""

import argparse
import pathlib
import shutil

from desktop import TOP, Desktop
from trial import expect, wait_until

NAME = "Annual report.txt"
CONTENTS = NAME.encode() * 1000


def show_in_nemo(desktop):
    shutil.copytree(TOP / "packaging" / "nemo", desktop.directory / "share" / "nemo" / "actions")
    desktop.start("nemo", "--no-desktop", desktop.mount / "Documents")
    wait_until("the file manager's window", lambda: desktop.windows("nemo"), 60)


def show_in_dolphin(desktop):
    menus = desktop.directory / "share" / "kio" / "servicemenus"
    menus.mkdir(parents=True)
    shutil.copy(TOP / "packaging" / "dolphin" / "kestrune.desktop", menus)
    desktop.start("dolphin", "--select", desktop.mount / "Documents" / NAME)
    wait_until("the file manager's window", lambda: desktop.windows("dolphin"), 60)


# How each shows the file, selects it and opens its menu, and which keys the entries have there.
MANAGERS = {
    "nemo": (show_in_nemo, ("ctrl+a", "shift+F10"), {"link": ["l"], "pin": ["n"], "unpin": ["k"], "evict": ["y"]}),
    "dolphin": (show_in_dolphin, ("ctrl+a", "Menu"), {"link": ["k", "c"], "pin": ["k", "d"], "unpin": ["k", "s"], "evict": ["k", "m"]}),
}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("manager", choices=MANAGERS)
    parser.add_argument("--screenshot")
    options = parser.parse_args()
    show, opening, keys = MANAGERS[options.manager]
    with Desktop(options.build.resolve(), {f"Documents/{NAME}": CONTENTS}, [options.manager]) as desktop:

        def state():
            return desktop.states("Documents")[NAME]

        def choose(entry, effect):
            desktop.choose(options.manager, keys[entry], effect, opening)

        show(desktop)
        choose("link", lambda: desktop.clipboard().endswith("/Documents/Annual%20report.txt"))
        expect(state() == ("online-only", False), f"looking and copying a link made the file {state()}")
        expect(not desktop.replica_holds(CONTENTS), "looking and copying a link fetched the file")
        choose("pin", lambda: state() == ("kept", True))
        expect(desktop.replica_holds(CONTENTS), "a file that is kept here is not here")
        choose("unpin", lambda: state() == ("here", False))
        choose("evict", lambda: state() == ("online-only", False))
        expect(not desktop.replica_holds(CONTENTS), "a file that was made online-only is here")
        if options.screenshot:
            for key in opening:
                desktop.key(key)
            wait_until("the menu", lambda: len(desktop.windows(options.manager)) > 1, 30)
            desktop.screenshot(options.screenshot)
    print("menu: link copied, kept, no longer kept, made online-only")


main()
