"""Where the blocks of a document are typed: a home of its own, or a machine of its own. A document is a stage with what it needs (documents.py)."""

import os
import pathlib
import pty
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "machine"))
from machine import Machine  # noqa: E402
from trial import expect, fail, skip, wait_until  # noqa: E402

ADDRESS = "https://files.example.org"  # as the documents have it


class Stage:
    """What documents may say of themselves."""

    files = {}  # at the store, when a reader begins
    answers = {}  # what the programs ask for at the terminal, and what a reader types
    fewest = 1  # blocks that must have been typed
    orderless = False  # whether what a session prints may come in another order

    def __init__(self, binaries, source):
        self.binaries = pathlib.Path(binaries).resolve()
        self.source = pathlib.Path(source).resolve()
        self.outputs = []

    def replacements(self):
        """What a document has for an example, and what stands for it here."""
        return {}

    def before(self):
        """What has happened before a reader begins."""

    def after(self):
        """What must be true when the last block has been typed."""

    def beside(self, block):
        """What a reader does with a block that is not typed, a file's contents for instance."""

    def same(self, line):
        """A line that a session prints, without what may differ from the document."""
        line = re.sub(r"\b[A-Z][a-z]{2} [ \d]\d (\d\d:\d\d| \d{4})", "DATE", line)
        return " ".join(re.sub(r"^([-d][-rwx]{9} +\d+) \S+ +\S+", r"\1 OWNER", line).split())


class Home(Stage):
    """A home of its own with a service, a token for it, and a session bus; the programs of the build come first in the path."""

    folder = ""  # below the home: where a reader is
    needed = []

    def __enter__(self):
        missing = [name for name in ["fusermount3", "dbus-daemon", *self.needed] if shutil.which(name) is None]
        if missing or not os.path.exists("/dev/fuse"):
            skip("these are missing: " + ", ".join(missing or ["/dev/fuse"]))
        self.home = pathlib.Path(tempfile.mkdtemp(prefix="kestrune-home."))
        self.mount = self.home / "Kestrune"
        self.store = self.home / "store"
        self.token = self.home / "token"
        self.started = []
        self.terminals = []
        self.environment = {"HOME": str(self.home), "TMPDIR": str(self.home), "LANG": "C.UTF-8", "XDG_RUNTIME_DIR": str(self.home / "run"),
                            "PATH": f"{self.binaries}:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
                            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.home}/run/bus"}
        try:
            (self.home / "run").mkdir(mode=0o700)
            for name, contents in self.files.items():
                (self.store / name).parent.mkdir(parents=True, exist_ok=True)
                (self.store / name).write_text(contents)
            self.start("dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + self.environment["DBUS_SESSION_BUS_ADDRESS"])
            wait_until("the bus", (self.home / "run" / "bus").exists, 10)
            self.before()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for mounted in [line.split()[1] for line in pathlib.Path("/proc/mounts").read_text().splitlines() if line.split()[1].startswith(f"{self.home}/")]:
            subprocess.run(["fusermount3", "-u", "-z", mounted], check=False)
        for program in reversed(self.started):
            try:
                os.killpg(program.pid, signal.SIGTERM)
            except ProcessLookupError:
                continue
            program.wait(20)
        for terminal in self.terminals:
            os.close(terminal)
        shutil.rmtree(self.home)

    def start(self, *words, log=None):
        log = self.home / ((log or pathlib.Path(words[0]).name) + ".log")
        program = subprocess.Popen([str(word) for word in words], env=self.environment, cwd=self.home, stdin=subprocess.DEVNULL, stdout=log.open("w"),
                                   stderr=subprocess.STDOUT, start_new_session=True)
        self.started.append(program)
        return log

    def serve(self):
        """Starts the service over the store; its address."""
        self.token.write_text("a-token-of-the-documents\n")
        self.token.chmod(0o600)
        log = self.start(self.binaries / "kestrune-service", "--root", self.store, "--listen", "127.0.0.1:0", "--token-file", self.token)
        return wait_until("the service", lambda: re.search(r"serving .* on (http\S+)", log.read_text()), 20)[1]

    def run(self, script):
        """Types SCRIPT; its exit code and what it printed. What it starts in the background outlives it and is waited for until it is of use."""
        # Files of a block's own: what goes on in the background goes on writing.
        place = self.home / f"block-{len(self.started)}"
        place.mkdir()
        written, code = place / "written", place / "code"
        ours, terminal = pty.openpty()
        self.terminals.append(ours)
        # The shell of the session stays until the end, as a person's does: what is left in the background does not end with its terminal.
        script_in_session = f"( set -e\n{script}\n)\necho $? >{code}.new; mv {code}.new {code}; exec sleep infinity"
        with written.open("w") as output:
            self.started.append(subprocess.Popen(["setsid", "--ctty", "bash", "-c", script_in_session], env=self.environment, cwd=self.home / self.folder,
                                                 stdin=terminal, stdout=output, stderr=subprocess.STDOUT))
        os.close(terminal)
        self.answer(ours, code, written)
        if code.read_text() == "0\n":
            self.wait_for_background(script, written)
        return int(code.read_text()), written.read_text(errors="replace")

    def answer(self, terminal, code, written):
        """Types the answers, each after its question, until a block has ended."""
        os.set_blocking(terminal, False)
        open_questions, seen, end = dict(self.answers), "", time.monotonic() + 120
        while not code.exists():
            if time.monotonic() > end:
                fail(f"this block does not end:\n{seen}{written.read_text(errors='replace')}")
            try:
                seen += os.read(terminal, 4096).decode(errors="replace")
            except BlockingIOError:
                time.sleep(0.02)
            for question in [question for question in open_questions if question in seen]:
                os.write(terminal, (open_questions.pop(question) + "\n").encode())

    def wait_for_background(self, script, written):
        for mounted in re.findall(r"mount\S* ~/(\S+).* &\s*(?:#.*)?$", script, re.MULTILINE):
            wait_until(f"{mounted} is mounted", lambda: os.path.ismount(self.home / mounted), 30)
        if re.search(r"^kestrune-service .* &$", script, re.MULTILINE):
            wait_until("the service serves", lambda: ": serving " in written.read_text(), 20)


class WholeMachine(Stage):
    """A machine of its own, in which a reader is root, in a copy of the sources that has been built."""

    def __enter__(self):
        self.machine = Machine([self.source, self.binaries.parent])
        self.machine.__enter__()
        try:
            self.machine.run(f"cp -r --no-target-directory {self.source} kestrune 2>/dev/null; rm -rf kestrune/build; ln -s {self.binaries.parent} kestrune/build")
            self.before()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *failure):
        self.machine.__exit__(*(failure or (None,)))

    def run(self, script):
        result = self.machine.try_run("set -e\n" + script, folder="/root/kestrune")
        return result.returncode, result.stdout


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]
