"""A desktop to try file managers on: a display, a session bus, a service and a mount of their own, and who looks at them."""

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

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(TOP / "tests" / "support" / "python"))
from trial import fail, skip, wait_until  # noqa: E402

NEEDED = ["Xvfb", "openbox", "xdotool", "xclip", "dbus-daemon", "dbus-monitor", "gdbus", "import"]


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
    """with Desktop(BUILD, {name at the store: bytes}, [further programs that are needed]) as desktop: ..."""

    def __init__(self, build, files, needed):
        missing = [name for name in [*NEEDED, *needed] if shutil.which(name) is None]
        if missing:
            skip("programs are missing (scripts/packages desktop): " + ", ".join(missing))
        if os.geteuid() != 0 or not os.path.exists("/dev/fuse"):
            skip("root and /dev/fuse are needed")
        self.bin = build / "bin"
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="kestrune-desktop-"))
        self.programs = []
        self.counter = Counter()
        self.mount = self.directory / "Kestrune"
        self.store = self.directory / "store"
        self.environment = {
            "PATH": f"{self.bin}:{TOP / 'packaging'}:{os.environ['PATH']}",
            "HOME": str(self.directory / "home"),
            "XDG_DATA_HOME": str(self.directory / "data"),
            "XDG_RUNTIME_DIR": str(self.directory / "run"),
            "XDG_CONFIG_HOME": str(self.directory / "configuration"),
            "XDG_CACHE_HOME": str(self.directory / "cache"),
            "XDG_DATA_DIRS": str(self.directory / "share") + ":/usr/local/share:/usr/share",
            "LANG": "C.UTF-8",
            "GSETTINGS_BACKEND": "memory",
            "GTK_A11Y": "none",
            "NO_AT_BRIDGE": "1",
            "GDK_BACKEND": "x11",
            "GSK_RENDERER": "cairo",
            "GIO_USE_VFS": "local",
            "QT_QPA_PLATFORM": "xcb",
        }
        for folder in ("home", "data", "run", "configuration", "cache", "share", "Kestrune", "store", "staging"):
            (self.directory / folder).mkdir()
        (self.directory / "run").chmod(0o700)
        # Without a graphics card a turning wheel keeps the file manager too busy to do anything else.
        for version in ("gtk-3.0", "gtk-4.0"):
            (self.directory / "configuration" / version).mkdir()
            (self.directory / "configuration" / version / "settings.ini").write_text("[Settings]\ngtk-enable-animations=false\n")
        for name, contents in files.items():
            (self.store / name).parent.mkdir(parents=True, exist_ok=True)
            (self.store / name).write_bytes(contents)

    def __enter__(self):
        try:
            self.begin()
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, *_):
        self.end()

    def start(self, *words, log=None, **more):
        """Starts a program; what it says goes to a file, whose path is its `log`."""
        path = self.directory / ((log or pathlib.Path(words[0]).name) + ".log")
        program = subprocess.Popen([str(word) for word in words], env=self.environment, stdout=path.open("wb"), stderr=subprocess.STDOUT,
                                   start_new_session=True, **more)
        program.log = path
        self.programs.append(program)
        return program

    def run(self, *words, **more):
        return subprocess.run([str(word) for word in words], env=self.environment, check=True, capture_output=True, text=True,
                              timeout=60, **more).stdout

    def begin(self):
        self.begin_display()
        bus = self.directory / "run" / "bus"
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={bus}"
        self.start("dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address=unix:path={bus}")
        wait_until("the bus", bus.exists, 30)
        self.calls = self.start("dbus-monitor", "--session", "interface='com.orvanta.Kestrune1.Mount'").log
        self.start("openbox")
        if shutil.which("xcompmgr"):  # for the shadows of the picture alone
            self.start("xcompmgr")
        self.run("xdotool", "mousemove", "1", "1")
        token = self.directory / "token"
        token.write_text("desktop-token")
        token.chmod(0o400)
        log = self.start(self.bin / "kestrune-service", "--root", self.store, "--staging", self.directory / "staging", "--listen",
                         "127.0.0.1:0", "--token-file", token, "--public-url", self.counter.url).log
        line = wait_until("the service", lambda: re.search(r": serving .*:(\d+)\n", log.read_text()), 30)
        self.counter.target = int(line[1])
        self.run(self.bin / "kestrune", "configure", "--url", self.counter.url, "--token-file", token)
        self.start(self.bin / "kestrune", "mount", self.mount)
        wait_until("the mount", lambda: os.path.ismount(self.mount), 30)
        wait_until("the mount on the bus", lambda: "Kestrune1" in self.names(), 30)

    def begin_display(self):
        """The server itself takes a number that is free, so tests may run side by side."""
        ours, its = os.pipe()
        self.start("Xvfb", "-displayfd", its, "-screen", "0", "1000x760x24", "-nolisten", "tcp", pass_fds=[its])
        os.close(its)
        with os.fdopen(ours) as told:
            self.environment["DISPLAY"] = ":" + (told.readline().strip() or fail("there is no display"))

    def names(self):
        return self.run("gdbus", "call", "--session", "--dest", "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus",
                        "--method", "org.freedesktop.DBus.ListNames")

    def mount_call(self, method, *arguments):
        return self.run("gdbus", "call", "--session", "--dest", "com.orvanta.Kestrune1", "--object-path",
                        "/com/orvanta/Kestrune1/mount", "--method", "com.orvanta.Kestrune1.Mount." + method, *arguments)

    def states(self, folder):
        """Of each entry of a folder: its state, and whether it is to be kept."""
        told = self.mount_call("FolderStates", f"b'/{folder}'")
        return {name: (word, kept == "true") for name, word, kept in re.findall(r"\(b['\"](.*?)['\"], '(.*?)', (true|false)\)", told)}

    def clipboard(self):
        return subprocess.run(["xclip", "-selection", "clipboard", "-o"], env=self.environment, capture_output=True, text=True).stdout

    def windows(self, name):
        """What a program shows, its open menus among it."""
        return subprocess.run(["xdotool", "search", "--onlyvisible", "--class", name], env=self.environment, capture_output=True, text=True).stdout.split()

    def key(self, key):
        self.run("xdotool", "key", "--clearmodifiers", key)

    def choose(self, program, keys, effect, opening=("shift+F10",)):
        """Opens PROGRAM's menu for what is selected by the keys OPENING, presses KEYS in it, and waits for EFFECT. A key that comes while the program
        is busy may be lost, so this is tried until it has its effect."""
        end = time.monotonic() + 120
        without = len(self.windows(program))
        while time.monotonic() < end:
            for key in opening:
                self.key(key)
            if not self.within(5, lambda: len(self.windows(program)) > without):
                continue
            for key in keys:
                self.key(key)
                time.sleep(0.2)  # a submenu opens
            if self.within(10, effect):
                wait_until("the menu is closed", lambda: len(self.windows(program)) <= without, 30)
                return
            while len(self.windows(program)) > without and time.monotonic() < end:
                self.key("Escape")
                self.within(2, lambda: len(self.windows(program)) <= without)
        picture = tempfile.mkstemp(prefix="kestrune-desktop-failed.", suffix=".png")[1]
        self.screenshot(picture)
        fail(f"the menu's entry {keys} has no effect; the screen is in {picture}")

    def within(self, seconds, condition):
        end = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > end:
                return False
            time.sleep(0.1)
        return True

    def close(self, program):
        program.terminate()
        program.wait(20)

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
