"""A machine to throw away: this one's programs and files, seen through a layer that keeps every change inside, with a systemd, users, a
network of 127.0.0.1 alone and process numbers of its own. What is typed there may install, enable and delete as a guide says.

    with Machine([build]) as machine:
        machine.run("systemctl is-system-running")

Root is needed, and a kernel with overlayfs and cgroup v2. Nothing of it is left when it ends, also where the test is killed: then the
kernel ends all of its processes, and only an empty control group and a directory below TMPDIR remain.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support" / "python"))
from trial import fail, skip, wait_until  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
NEEDED = ["unshare", "nsenter", "ip", "systemctl", "loginctl", "runuser", "dbus-daemon"]


def control_group():
    """Where this process may make control groups; None where there is no cgroup v2."""
    mounts = [line.split() for line in pathlib.Path("/proc/self/mounts").read_text().splitlines()]
    place = next((words[1] for words in mounts if words[2] == "cgroup2"), None)
    own = [line for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines() if line.startswith("0::")]
    return pathlib.Path(place + own[0][3:]) if place and own else None


class Machine:
    def __init__(self, trees):
        """TREES: directories outside of the root file system, or below /home, /root, /srv and /tmp, that are to be seen in the machine."""
        if os.geteuid() != 0:
            skip("a machine of its own needs root")
        missing = [name for name in NEEDED if shutil.which(name) is None]
        if missing or not os.path.exists("/lib/systemd/systemd"):
            skip("programs are missing: " + ", ".join(missing or ["systemd"]))
        if "overlay" not in pathlib.Path("/proc/filesystems").read_text() and subprocess.run(["modprobe", "overlay"], capture_output=True).returncode:
            skip("this kernel has no overlayfs")
        if not os.path.exists("/dev/fuse"):
            skip("there is no /dev/fuse")
        group = control_group()
        if group is None:
            skip("there is no cgroup v2")
        self.trees = [str(pathlib.Path(tree).resolve()) for tree in trees]
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="kestrune-machine."))
        self.work.chmod(0o755)
        self.group = group / self.work.name
        self.outer = None
        self.first = None

    def __enter__(self):
        try:
            try:
                self.group.mkdir()
            except OSError as error:
                skip(f"no control group can be made here: {error}")
            self.begin()
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, failure, *_):
        try:
            if failure is not None:
                print(self.try_run("journalctl --no-pager --lines=80", seconds=30).stdout)
        finally:
            self.end()

    def begin(self):
        log = self.work / "log"
        self.outer = subprocess.Popen(
            ["sh", "-c", 'echo $$ >"$0/cgroup.procs" && exec "$@"', self.group, "unshare", "--mount", "--pid", "--fork", "--kill-child", "--uts",
             "--ipc", "--net", "--cgroup", HERE / "begin", self.work, *self.trees],
            stdin=subprocess.DEVNULL, stdout=log.open("w"), stderr=subprocess.STDOUT)

        def systemd():
            if self.outer.poll() is not None:
                skip("no machine can be made here: " + log.read_text().strip())
            children = pathlib.Path(f"/proc/{self.outer.pid}/task/{self.outer.pid}/children").read_text().split()
            return children and pathlib.Path(f"/proc/{children[0]}/comm").read_text() == "systemd\n" and int(children[0])

        self.first = wait_until("the machine's systemd", systemd, 60)
        wait_until("the machine's start", lambda: self.try_run("systemctl is-system-running").stdout in ("running\n", "degraded\n"), 120)

    def end(self):
        if self.outer is not None:
            self.outer.send_signal(signal.SIGKILL)
            self.outer.wait()
        if self.group.exists():
            wait_until("the end of all processes of the machine", lambda: not self.processes(), 60)
            for folder, _, _ in os.walk(self.group, topdown=False):
                os.rmdir(folder)
        shutil.rmtree(self.work, ignore_errors=True)

    def processes(self):
        return "populated 1" in (self.group / "cgroup.events").read_text()

    def command(self, script, user, folder):
        """How SCRIPT is run in the machine as USER, as after a log-in."""
        enter = ["nsenter", "--target", str(self.first), "--mount", "--pid", "--net", "--uts", "--ipc", "--cgroup", "--root",
                 "env", "-i", "--chdir=/", "LANG=C.UTF-8", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"]
        if user == "root":
            return [*enter, "HOME=/root", "bash", "-c", f"cd {folder or '/root'}\n{script}"]
        begin = f"export HOME=/home/{user} XDG_RUNTIME_DIR=/run/user/$(id -u)\ncd {folder or '~'}\n"
        return [*enter, "runuser", "-u", user, "--", "bash", "-c", begin + script]

    def try_run(self, script, user="root", folder=None, seconds=120):
        """Runs SCRIPT by bash in the machine; what it starts in the background goes on there."""
        # A file, not a pipe: what goes on in the background would hold the pipe.
        with tempfile.TemporaryFile("w+", errors="replace", dir=self.work) as written:
            result = subprocess.run(self.command(script, user, folder), stdin=subprocess.DEVNULL, stdout=written, stderr=subprocess.STDOUT, timeout=seconds)
            written.seek(0)
            result.stdout = written.read()
        return result

    def run(self, script, user="root", folder=None, seconds=120):
        """As try_run; fails the test where SCRIPT fails. Returns what it printed."""
        result = self.try_run("set -e\n" + script, user, folder, seconds)
        if result.returncode != 0:
            fail(f"as {user}, exit {result.returncode}:\n{script}\n{result.stdout}")
        return result.stdout

    def write(self, file, text):
        self.run(f"cat >{file} <<'END_OF_FILE'\n{text}END_OF_FILE")

    def add_user(self, name):
        """A user who is logged in: with a session bus and a systemd of the user's own."""
        self.run(f"useradd --create-home {name} && loginctl enable-linger {name}")
        wait_until(f"the session of {name}", lambda: self.try_run("systemctl --user is-system-running", name).stdout in ("running\n", "degraded\n"), 60)
