#!/usr/bin/env python3
"""Tries the extension in GNOME's file manager: a service, a mount, a display and a bus of their own.

Opens a folder of the mount with a file selected, reads the states off the bus, uses the menu, and looks at the clipboard and
at what is on the disk. Then opens a folder of pictures and counts what the service is asked for.

Usage: tests/desktop/nautilus.py BUILD [--screenshot FILE] [--pictures COUNT]
Exits 0 where all is well, 77 where something is missing that this needs (it says what), else 1. Root is needed once, to show the
extension to the file manager where nothing is installed: in a mount namespace of the test's own."""

import argparse
import pathlib
import shutil
import time
import zlib

from desktop import TOP, Desktop
from trial import expect, skip, wait_until

DOCUMENTS = ("Annual report.txt", "Budget.txt", "Notes.txt", "Plan.txt", "Sketch.txt")


def png(number):
    """A small picture, every one with other bytes."""

    def chunk(kind, data):
        return len(data).to_bytes(4, "big") + kind + data + zlib.crc32(kind + data).to_bytes(4, "big")

    shade = bytes([number % 256, number // 256 % 256, 128])
    row = b"\0" + shade * 64
    head = (64).to_bytes(4, "big") * 2 + bytes([8, 2, 0, 0, 0])
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + chunk(b"IDAT", zlib.compress(row * 64)) + chunk(b"IEND", b"")


class Nautilus(Desktop):
    def __init__(self, build, pictures):
        self.module = build / "nautilus" / "libkestrune-nautilus.so"
        if not self.module.exists():
            skip("the extension was not built")
        files = {f"Documents/{name}": name.encode() * 1000 for name in DOCUMENTS}
        files |= {f"Pictures/IMG_{number:04}.png": png(number) for number in range(pictures)}
        super().__init__(build, files, ["nautilus", "unshare", "pkg-config"])
        icons = self.directory / "share" / "icons" / "hicolor"
        shutil.copytree(TOP / "packaging" / "icons" / "hicolor", icons)
        shutil.copy("/usr/share/icons/hicolor/index.theme", icons)

    def nautilus(self, *words, asks):
        """Runs the file manager where it finds the extension, until `close`. ASKS: whether it then asks for the states of a folder."""
        place = self.run("pkg-config", "--variable=extensiondir", "libnautilus-extension-4").strip()
        folder = self.directory / "extensions"
        folder.mkdir(exist_ok=True)
        shutil.copy(self.module, folder)
        asked = self.asked_for_states()
        script = 'mount --bind "$1" "$2" && shift 2 && exec "$@"'
        program = self.start("unshare", "-m", "sh", "-c", script, "sh", folder, place, "nautilus", "--new-window", *words, log="nautilus")
        wait_until("the file manager's window", lambda: self.windows("nautilus"), 60)
        if asks:
            wait_until("the file manager asks for states", lambda: self.asked_for_states() > asked, 60)
        return program

    def asked_for_states(self):
        return self.calls.read_text(errors="replace").count("member=FolderStates")


def try_menu(desktop, screenshot):
    """Emblems are for the eye; the states behind them and what the menu does are checked."""
    name = "Annual report.txt"
    contents = (desktop.store / "Documents" / name).read_bytes()

    def here():
        return desktop.states("Documents")[name]

    def choose(mnemonic, effect):
        desktop.choose("nautilus", [mnemonic], effect)

    desktop.run("kestrune", "pin", desktop.mount / "Documents" / "Budget.txt")
    desktop.run("kestrune", "download", desktop.mount / "Documents" / "Notes.txt")
    (desktop.mount / "Documents" / "Plan (conflict kestrel 2026-11-22 04.15).txt").write_text("another plan")
    program = desktop.nautilus("--select", desktop.mount / "Documents" / name, asks=True)
    expect(here() == ("online-only", False), f"a file that nobody has read is {here()}")
    if screenshot:
        desktop.key("shift+F10")
        wait_until("the menu", lambda: len(desktop.windows("nautilus")) > 1, 30)
        desktop.screenshot(screenshot)
        desktop.key("Escape")
        wait_until("the menu is closed", lambda: len(desktop.windows("nautilus")) == 1, 30)
    choose("l", lambda: desktop.clipboard().endswith("/Documents/Annual%20report.txt"))
    expect(not desktop.replica_holds(contents), "copying a link fetched the file")
    choose("n", lambda: here() == ("kept", True))
    expect(desktop.replica_holds(contents), "a file that is kept here is not here")
    choose("k", lambda: here() == ("here", False))
    choose("y", lambda: here() == ("online-only", False))
    expect(not desktop.replica_holds(contents), "a file that was made online-only is here")
    desktop.close(program)
    print("menu: link copied, kept, no longer kept, made online-only")


def thumbnails(desktop):
    return {kind: len(list((desktop.directory / "cache" / "thumbnails").glob(kind))) for kind in ("*/*.png", "fail/*/*.png")}


def browse(desktop, folder, tried, asks):
    """Looks through a folder, from top to end, until the file manager has TRIED to show its pictures."""
    program = desktop.nautilus(folder, asks=asks)
    wait_until(f"the file manager tries to show pictures of {folder}", tried, 60)
    for _ in range(6):
        desktop.key("Page_Down")
        time.sleep(1)  # as a person looks; what must not happen has no event to wait for
    desktop.close(program)


def try_pictures(desktop, count):
    """Looking through a folder of pictures fetches none; where the pictures are local, thumbnails are made at all."""
    local = desktop.directory / "local"
    shutil.copytree(desktop.store / "Pictures", local)
    browse(desktop, local, lambda: thumbnails(desktop)["*/*.png"] > 0, asks=False)
    made = thumbnails(desktop)
    before = len(desktop.counter.asked)
    browse(desktop, desktop.mount / "Pictures", lambda: thumbnails(desktop)["fail/*/*.png"] > made["fail/*/*.png"], asks=True)
    asked = [line for line in desktop.counter.asked[before:] if "/events" not in line]
    told = desktop.states("Pictures")
    expect(len(told) == count, f"the folder has {len(told)} pictures, not {count}")
    fetched = [name for name, state in told.items() if state != ("online-only", False)]
    expect(not fetched, f"fetched: {fetched[:10]}")
    expect(not desktop.replica_holds((desktop.store / "Pictures" / "IMG_0000.png").read_bytes()), "a picture was fetched")
    print(f"pictures: {count}, of which none was fetched; {made['*/*.png']} thumbnails of local ones, {thumbnails(desktop)['*/*.png'] - made['*/*.png']} of these; "
          f"{len(asked)} requests: {sorted(set(line.split('?')[0] for line in asked))}")
    # That a fetch would have been seen.
    before = len(desktop.counter.asked)
    (desktop.mount / "Pictures" / "IMG_0000.png").read_bytes()
    contents = [line for line in desktop.counter.asked[before:] if "/download" in line or "/storage" in line]
    expect(contents, f"a fetch is not seen: {desktop.counter.asked[before:]}")
    expect(not any("/download" in line or "/storage" in line for line in asked), f"contents were asked for: {asked}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--screenshot")
    parser.add_argument("--pictures", type=int, default=1000)
    options = parser.parse_args()
    with Nautilus(options.build.resolve(), options.pictures) as desktop:
        try_menu(desktop, options.screenshot)
        try_pictures(desktop, options.pictures)


if __name__ == "__main__":
    main()
