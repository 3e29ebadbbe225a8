#!/usr/bin/env python3
"""Tries the extension in GNOME's file manager: a service, a mount, a display and a bus of their own.

Opens a folder of the mount with a file selected, reads the states off the bus, uses the menu, and looks at the clipboard and
at what is on the disk. Then opens a folder of pictures and counts what the service is asked for.

Usage: tests/desktop/nautilus.py BUILD [--screenshot FILE] [--pictures COUNT]
Exits 0 where all is well, 77 where something is missing that this needs (it says what), else 1. Root is needed once, to show the
extension to the file manager where nothing is installed: in a mount namespace of the test's own."""

import argparse
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import zlib

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
NEEDED = ["Xvfb", "openbox", "nautilus", "xdotool", "xclip", "dbus-daemon", "gdbus", "import", "unshare"]


def skip(why):
    print("SKIPPED:", why)
    sys.exit(77)


def wait_until(what, condition, seconds=30):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.1)
    raise AssertionError(f"did not come: {what}")


def png(number):
    """A small picture, every one with other bytes."""

    def chunk(kind, data):
        return len(data).to_bytes(4, "big") + kind + data + zlib.crc32(kind + data).to_bytes(4, "big")

    shade = bytes([number % 256, number // 256 % 256, 128])
    row = b"\0" + shade * 64
    head = (64).to_bytes(4, "big") * 2 + bytes([8, 2, 0, 0, 0])
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + chunk(b"IDAT", zlib.compress(row * 64)) + chunk(b"IEND", b"")


class Counter:
    """Stands between the mount and the service, and notes what is asked for."""

    def __init__(self):
        self.target = 0
        self.asked = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"http://127.0.0.1:{self.listener.getsockname()[1]}"
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            client = self.listener.accept()[0]
            server = socket.create_connection(("127.0.0.1", self.target))
            threading.Thread(target=self.copy, args=(client, server, True), daemon=True).start()
            threading.Thread(target=self.copy, args=(server, client, False), daemon=True).start()

    def copy(self, source, sink, is_asking):
        try:
            while data := source.recv(65536):
                if is_asking:
                    self.asked += [line.decode() for line in re.findall(rb"^((?:GET|PUT|POST|DELETE) \S+) HTTP/1", data, re.M)]
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            source.close()
            sink.close()


class Desktop:
    def __init__(self, build, pictures):
        self.bin = build / "bin"
        self.module = build / "nautilus" / "libkestrune-nautilus.so"
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="kestrune-desktop-"))
        self.programs = []
        self.counter = Counter()
        self.mount = self.directory / "Kestrune"
        self.store = self.directory / "store"
        self.environment = {
            "PATH": os.environ["PATH"],
            "HOME": str(self.directory / "home"),
            "XDG_DATA_HOME": str(self.directory / "data"),
            "XDG_RUNTIME_DIR": str(self.directory / "run"),
            "XDG_CONFIG_HOME": str(self.directory / "configuration"),
            "XDG_CACHE_HOME": str(self.directory / "cache"),
            "XDG_DATA_DIRS": str(self.directory / "share") + ":/usr/local/share:/usr/share",
            "LANG": "C.UTF-8",
            "GSETTINGS_BACKEND": "memory",
            "GTK_A11Y": "none",
            "GDK_BACKEND": "x11",
            "GSK_RENDERER": "cairo",
            "GIO_USE_VFS": "local",
        }
        for folder in ("home", "data", "run", "configuration", "cache", "Kestrune", "store/Documents", "store/Pictures", "staging"):
            (self.directory / folder).mkdir(parents=True)
        (self.directory / "run").chmod(0o700)
        # Without a graphics card a turning wheel keeps the file manager too busy to do anything else.
        (self.directory / "configuration" / "gtk-4.0").mkdir()
        (self.directory / "configuration" / "gtk-4.0" / "settings.ini").write_text("[Settings]\ngtk-enable-animations=false\n")
        icons = self.directory / "share" / "icons" / "hicolor"
        shutil.copytree(TOP / "packaging" / "icons" / "hicolor", icons)
        shutil.copy("/usr/share/icons/hicolor/index.theme", icons)
        for name in ("Annual report.txt", "Budget.txt", "Notes.txt", "Plan.txt", "Sketch.txt"):
            (self.store / "Documents" / name).write_bytes(name.encode() * 1000)
        for number in range(pictures):
            (self.store / "Pictures" / f"IMG_{number:04}.png").write_bytes(png(number))

    def start(self, *words, output=None, **more):
        log = open(self.directory / (pathlib.Path(words[0]).name + ".log"), "wb") if output is None else output
        program = subprocess.Popen([str(word) for word in words], env=self.environment, stdout=log, stderr=subprocess.STDOUT,
                                   start_new_session=True, **more)
        self.programs.append(program)
        return program

    def run(self, *words, **more):
        return subprocess.run([str(word) for word in words], env=self.environment, check=True, capture_output=True, text=True,
                              timeout=60, **more).stdout

    def begin(self):
        display = next(number for number in range(70, 99) if not pathlib.Path(f"/tmp/.X11-unix/X{number}").exists())
        self.environment["DISPLAY"] = f":{display}"
        self.start("Xvfb", f":{display}", "-screen", "0", "1000x760x24", "-nolisten", "tcp")
        wait_until("the display", pathlib.Path(f"/tmp/.X11-unix/X{display}").exists)
        bus = self.directory / "run" / "bus"
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={bus}"
        self.start("dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address=unix:path={bus}")
        wait_until("the bus", bus.exists)
        self.start("openbox")
        if shutil.which("xcompmgr"):  # for the shadows of the picture alone
            self.start("xcompmgr")
        self.run("xdotool", "mousemove", "1", "1")
        token = self.directory / "token"
        token.write_text("desktop-token")
        token.chmod(0o400)
        self.start(self.bin / "kestrune-service", "--root", self.store, "--staging", self.directory / "staging", "--listen",
                   "127.0.0.1:0", "--token-file", token, "--public-url", self.counter.url)
        log = self.directory / "kestrune-service.log"
        line = wait_until("the service", lambda: next((l for l in log.read_text().splitlines() if ": serving " in l), None))
        self.counter.target = int(re.search(r":(\d+)\D*$", line).group(1))
        self.run(self.bin / "kestrune", "configure", "--url", self.counter.url, "--token-file", token)
        self.start(self.bin / "kestrune", "mount", self.mount)
        wait_until("the mount", lambda: os.path.ismount(self.mount))
        wait_until("the mount on the bus", lambda: "Kestrune1" in self.names())

    def names(self):
        return self.run("gdbus", "call", "--session", "--dest", "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus",
                        "--method", "org.freedesktop.DBus.ListNames")

    def mount_call(self, method, *arguments):
        return self.run("gdbus", "call", "--session", "--dest", "com.orvanta.Kestrune1", "--object-path",
                        "/com/orvanta/Kestrune1/mount", "--method", "com.orvanta.Kestrune1.Mount." + method, *arguments)

    def nautilus(self, *words):
        """Runs the file manager where it finds the extension, until `close`."""
        place = self.run("pkg-config", "--variable=extensiondir", "libnautilus-extension-4").strip() or "/usr/lib/x86_64-linux-gnu/nautilus/extensions-4"
        folder = self.directory / "extensions"
        folder.mkdir(exist_ok=True)
        shutil.copy(self.module, folder)
        script = 'mount --bind "$1" "$2" && shift 2 && exec "$@"'
        program = self.start("unshare", "-m", "sh", "-c", script, "sh", folder, place, "nautilus", "--new-window", *words)
        wait_until("its window", lambda: subprocess.run(["xdotool", "search", "--onlyvisible", "--class", "nautilus"],
                                                        env=self.environment, capture_output=True).stdout)
        time.sleep(3)
        return program

    def close(self, program):
        program.terminate()
        program.wait(20)

    def key(self, *keys):
        for key in keys:
            self.run("xdotool", "key", "--clearmodifiers", key)
            time.sleep(0.4)

    def screenshot(self, file):
        self.run("import", "-window", "root", "-dither", "None", "-colors", "128", file)

    def replica_holds(self, contents):
        """Whether these bytes are on the local disk, whatever the host says."""
        return any(file.read_bytes() == contents for file in (self.directory / "data").rglob("*")
                   if file.is_file() and file.stat().st_size == len(contents))

    def end(self):
        for program in reversed(self.programs):
            if program.poll() is None:
                program.terminate()
                try:
                    program.wait(20)
                except subprocess.TimeoutExpired:
                    program.kill()
        if os.path.ismount(self.mount):
            subprocess.run(["fusermount3", "-u", "-z", self.mount])
        shutil.rmtree(self.directory, ignore_errors=True)


def states(desktop, folder):
    told = desktop.mount_call("FolderStates", f"b'/{folder}'")
    return {name: (word, kept == "true") for name, word, kept in re.findall(r"\(b['\"](.*?)['\"], '(.*?)', (true|false)\)", told)}


def choose(desktop, mnemonic):
    desktop.key("shift+F10")
    time.sleep(1)
    desktop.key(mnemonic)


def try_menu(desktop, screenshot):
    """Emblems are for the eye; the states behind them and what the menu does are checked."""
    name = "Annual report.txt"
    here = lambda: states(desktop, "Documents")[name]
    kestrune = desktop.bin / "kestrune"
    desktop.run(kestrune, "pin", desktop.mount / "Documents" / "Budget.txt")
    desktop.run(kestrune, "download", desktop.mount / "Documents" / "Notes.txt")
    (desktop.mount / "Documents" / "Plan (conflict kestrel 2026-11-22 04.15).txt").write_text("another plan")
    program = desktop.nautilus("--select", desktop.mount / "Documents" / name)
    assert here() == ("online-only", False), here()
    desktop.key("shift+F10")
    time.sleep(1)
    if screenshot:
        desktop.screenshot(screenshot)
    desktop.key("l")
    link = lambda: subprocess.run(["xclip", "-selection", "clipboard", "-o"], env=desktop.environment, capture_output=True, text=True).stdout
    wait_until("the link on the clipboard", lambda: link().endswith("/Documents/Annual%20report.txt"))
    assert not desktop.replica_holds((desktop.store / "Documents" / name).read_bytes()), "copying a link fetched the file"
    choose(desktop, "n")
    wait_until("the file kept here", lambda: here() == ("kept", True))
    assert desktop.replica_holds((desktop.store / "Documents" / name).read_bytes())
    choose(desktop, "k")
    wait_until("the file no longer kept", lambda: here() == ("here", False))
    choose(desktop, "y")
    wait_until("the file online-only", lambda: here() == ("online-only", False))
    assert not desktop.replica_holds((desktop.store / "Documents" / name).read_bytes())
    desktop.close(program)
    print("menu: link copied, kept, no longer kept, made online-only")


def thumbnails(desktop):
    return {kind: len(list((desktop.directory / "cache" / "thumbnails").glob(kind))) for kind in ("*/*.png", "fail/*/*.png")}


def browse(desktop, folder):
    program = desktop.nautilus(folder)
    for _ in range(6):
        desktop.key("Page_Down")
        time.sleep(1)
    desktop.close(program)


def try_pictures(desktop, count):
    """Looking through a folder of pictures fetches none; where the pictures are local, thumbnails are made at all."""
    local = desktop.directory / "local"
    shutil.copytree(desktop.store / "Pictures", local)
    browse(desktop, local)
    made = thumbnails(desktop)
    assert made["*/*.png"] > 0, f"this file manager makes no thumbnails: nothing is shown by this {made}"
    before = len(desktop.counter.asked)
    browse(desktop, desktop.mount / "Pictures")
    asked = [line for line in desktop.counter.asked[before:] if "/events" not in line]
    told = states(desktop, "Pictures")
    assert len(told) == count, len(told)
    fetched = [name for name, state in told.items() if state != ("online-only", False)]
    assert not fetched, f"fetched: {fetched[:10]}"
    assert not desktop.replica_holds((desktop.store / "Pictures" / "IMG_0000.png").read_bytes())
    print(f"pictures: {count}, of which none was fetched; {made['*/*.png']} thumbnails of local ones, {thumbnails(desktop)['*/*.png'] - made['*/*.png']} of these; "
          f"{len(asked)} requests: {sorted(set(line.split('?')[0] for line in asked))}")
    # That a fetch would have been seen.
    before = len(desktop.counter.asked)
    (desktop.mount / "Pictures" / "IMG_0000.png").read_bytes()
    contents = [line for line in desktop.counter.asked[before:] if "IMG_0000" in line or "/download" in line or "/content" in line]
    assert contents, desktop.counter.asked[before:]
    assert not any(line.split("?")[0] == contents[-1].split("?")[0] for line in asked)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--screenshot")
    parser.add_argument("--pictures", type=int, default=1000)
    options = parser.parse_args()
    missing = [name for name in NEEDED if shutil.which(name) is None]
    if missing:
        skip("programs are missing (scripts/packages desktop): " + ", ".join(missing))
    if not (options.build / "nautilus" / "libkestrune-nautilus.so").exists():
        skip("the extension was not built")
    if os.geteuid() != 0 or not os.path.exists("/dev/fuse"):
        skip("root and /dev/fuse are needed")
    desktop = Desktop(options.build.resolve(), options.pictures)
    try:
        desktop.begin()
        try_menu(desktop, options.screenshot)
        try_pictures(desktop, options.pictures)
    finally:
        desktop.end()


if __name__ == "__main__":
    main()
