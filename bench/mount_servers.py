"""What is mounted by bench/mount: one folder on the local disk, behind our service, a WebDAV server and an SSH server."""

import dataclasses
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import time
import urllib.request

PATIENCE = 20  # seconds for anything to begin or end


@dataclasses.dataclass
class Sizes:
    """How much work there is: all of it, or a part for a quick look."""
    divisor: int

    @property
    def large(self):
        return (1 << 30) // self.divisor

    @property
    def upload(self):
        return (512 << 20) // self.divisor

    @property
    def entries(self):
        return 10_000 // self.divisor

    @property
    def cached_folders(self):  # of 1,000 entries each
        return 100 // self.divisor

    @property
    def small_files(self):
        return 500 // self.divisor

    @property
    def minute(self):
        return 61 // self.divisor


def wait_until(condition, what, patience=PATIENCE):
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError(f"{what}: not within {patience} s")
        time.sleep(0.02)


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def end(process):
    """Ends a program that was started here."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Servers:
    def __init__(self, work, programs, sizes):
        self.work, self.programs, self.sizes = work, programs, sizes
        self.store = work / "store"
        self.source = work / "source"  # what is copied in
        self.out = work / "out"        # where copies go
        self.token = work / "token"
        self.webdav_url = self.ssh_port = None
        self._processes = []

    def start(self):
        for folder in (self.store / "entries", self.store / "tree", self.store / "in", self.source / "small", self.out):
            folder.mkdir(parents=True)
        self._make_contents()
        self._start_service()
        if shutil.which("rclone"):
            self._start_webdav()
        if shutil.which("sshfs") and pathlib.Path("/usr/sbin/sshd").exists():
            self._start_ssh()

    def stop(self):
        for process in reversed(self._processes):
            end(process)

    def environment(self):
        """For our own programs; the shared directory is one for all, as there is one service."""
        return {**os.environ, "XDG_DATA_HOME": str(self.work / "data")}

    def signed(self, path):
        """An address from which our service gives a file's contents."""
        request = urllib.request.Request(
            self.url + "/files/presign-download", json.dumps({"path": path}).encode(),
            {"Authorization": "Bearer " + self.token.read_text(), "Content-Type": "application/json"})
        with urllib.request.urlopen(request) as reply:
            return json.load(reply)["url"]

    def start_program(self, name, command, **options):
        log = open(self.work / f"{name}.log", "ab")
        process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                   **options)
        log.close()
        self._processes.append(process)
        return process

    def _make_contents(self):
        for file, size in ((self.store / "large.bin", self.sizes.large), (self.source / "upload.bin", self.sizes.upload)):
            with open("/dev/urandom", "rb") as random, open(file, "wb") as made:
                for _ in range(size >> 20):
                    made.write(random.read(1 << 20))
        fill(self.store / "entries", self.sizes.entries)
        for number in range(self.sizes.cached_folders):
            folder = self.store / "tree" / f"folder {number:03}"
            folder.mkdir()
            fill(folder, 1000)
        for number in range(self.sizes.small_files):
            (self.source / "small" / f"file {number:04}").write_bytes(os.urandom(4096))

    def _start_service(self):
        self.token.touch(0o600)
        self.token.write_text(os.urandom(24).hex())
        process = self.start_program("service", [
            self.programs / "kestrune-service", "--root", self.store, "--listen", "127.0.0.1:0", "--token-file", self.token,
            "--staging", self.work / "staging", "--url-lifetime", "86400"])
        log = self.work / "service.log"
        wait_until(lambda: b"serving" in log.read_bytes() or process.poll() is not None, "kestrune-service")
        self.url = re.search(r"serving .* on (http\S+)", log.read_text())[1]
        subprocess.run([self.programs / "kestrune", "configure", "--url", self.url, "--token-file", self.token],
                       check=True, stdout=subprocess.DEVNULL, env=self.environment())

    def _start_webdav(self):
        port = free_port()
        self.start_program("webdav", ["rclone", "--config", "/dev/null", "serve", "webdav", self.store,
                                      "--addr", f"127.0.0.1:{port}"])
        wait_until(lambda: answers(port), "rclone serve webdav")
        self.webdav_url = f"http://127.0.0.1:{port}"

    def _start_ssh(self):
        keys, port = self.work / "ssh", free_port()
        keys.mkdir(mode=0o700)
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", keys / key], check=True)
        (keys / "config").write_text(
            f"ListenAddress 127.0.0.1:{port}\nHostKey {keys}/host\nAuthorizedKeysFile {keys}/user.pub\nStrictModes no\n"
            "PermitRootLogin prohibit-password\nPasswordAuthentication no\nKbdInteractiveAuthentication no\nUsePAM no\n"
            "PidFile none\nSubsystem sftp internal-sftp\n")
        pathlib.Path("/run/sshd").mkdir(exist_ok=True)  # where sshd shuts itself in
        self.start_program("sshd", ["/usr/sbin/sshd", "-D", "-e", "-f", keys / "config"])
        wait_until(lambda: answers(port), "sshd")
        self.ssh_port = port


def fill(folder, count):
    """Makes so many empty files."""
    for number in range(count):
        os.close(os.open(folder / f"file {number:05}.txt", os.O_WRONLY | os.O_CREAT))
