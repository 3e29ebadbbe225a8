"""The mounts that bench/mount compares. Each has a folder, a cache of its own, and is mounted anew where a cold one is
asked for: then neither it nor the kernel remembers anything."""

import os
import pathlib
import shutil
import subprocess
import time

from mount_servers import PATIENCE, end, wait_until
from mount_table import Unavailable


def is_mounted(folder):
    # Asking the folder itself would wait for the mount.
    return f" {folder} " in pathlib.Path("/proc/self/mounts").read_text()


class Mount:
    """A program that mounts a folder and stays in the foreground until it is unmounted."""

    def __init__(self, name, work, servers):
        self.name, self.servers = name, servers
        self.folder, self.cache = work / "mounts" / name, work / "caches" / name
        self._process = None

    def installed(self):
        raise NotImplementedError

    def command(self):
        raise NotImplementedError

    def environment(self):
        return None

    def fresh(self):
        """Mounts anew with an empty cache."""
        self.stop()
        shutil.rmtree(self.cache, ignore_errors=True)
        self.cache.mkdir(parents=True)
        self.folder.mkdir(parents=True, exist_ok=True)
        self._start()

    def present(self):
        """Mounts if it is not mounted."""
        if not is_mounted(self.folder):
            self.fresh()

    def _start(self):
        self._process = self.servers.start_program(self.name, self.command(), env=self.environment())
        wait_until(lambda: is_mounted(self.folder) or self._process.poll() is not None, self.name)
        if self._process.poll() is not None:
            last = (self.servers.work / f"{self.name}.log").read_text(errors="replace").strip().splitlines()[-1:]
            raise Unavailable(f"failed: {' '.join(last)}")

    def stop(self):
        deadline = time.monotonic() + 3 * PATIENCE
        while is_mounted(self.folder):
            lazily = ["-l"] if time.monotonic() > deadline else []
            subprocess.run(["umount", *lazily, self.folder], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(0.05)
        if self._process:
            try:
                self._process.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                end(self._process)
            self._process = None

    def pid(self):
        return self._process.pid

    def pids(self):
        """The mount's program and what it started."""
        found = [self.pid()]
        for pid in found:
            children = pathlib.Path(f"/proc/{pid}/task/{pid}/children")
            found += [int(child) for child in children.read_text().split()]
        return found

    def processor_seconds(self):
        ticks = 0
        for pid in self.pids():
            fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
            ticks += int(fields[11]) + int(fields[12])
        return ticks / os.sysconf("SC_CLK_TCK")

    def memory_bytes(self):
        kilobytes = 0
        for pid in self.pids():
            lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
            kilobytes += sum(int(line.split()[1]) for line in lines if line.startswith("Pss:"))
        return kilobytes * 1024


class Kestrune(Mount):
    def __init__(self, work, servers):
        super().__init__("kestrune", work, servers)

    def installed(self):
        return True

    def command(self):
        return [self.servers.programs / "kestrune", "mount", "--replica", self.cache / "replica", self.folder]

    def environment(self):
        return self.servers.environment()


class Rclone(Mount):
    """As it is with a full cache, and with every option that makes it faster at this work."""

    TUNED = ("--buffer-size 64M --vfs-read-chunk-size 32M --vfs-read-chunk-size-limit off --vfs-read-ahead 128M "
             "--dir-cache-time 1000h --attr-timeout 10m --vfs-write-back 0 --transfers 8 --checkers 8").split()

    def __init__(self, work, servers, tuned):
        super().__init__("rclone-tuned" if tuned else "rclone", work, servers)
        self._options = self.TUNED if tuned else []

    def installed(self):
        return self.servers.webdav_url is not None

    def command(self):
        return ["rclone", "--config", "/dev/null", "mount", f':webdav,url="{self.servers.webdav_url}":', self.folder,
                "--cache-dir", self.cache, "--vfs-cache-mode", "full", *self._options]


class Sshfs(Mount):
    def __init__(self, work, servers):
        super().__init__("sshfs", work, servers)

    def installed(self):
        return self.servers.ssh_port is not None

    def command(self):
        keys = self.servers.work / "ssh"
        return ["sshfs", "-f", "-p", self.servers.ssh_port, "-o",
                f"IdentityFile={keys}/user,UserKnownHostsFile={self.cache}/known_hosts,StrictHostKeyChecking=no",
                f"root@127.0.0.1:{self.servers.store}", self.folder]


class Davfs2(Mount):
    """Its cache is as large as the work, and it sends at once; both are not its defaults. It goes to the background, so it is
    known by the file in which it leaves its number."""

    def __init__(self, work, servers):
        super().__init__("davfs2", work, servers)

    def installed(self):
        return shutil.which("mount.davfs") is not None and self.servers.webdav_url is not None

    def _start(self):
        configuration = self.servers.work / "davfs2.conf"
        configuration.write_text(f"cache_dir {self.cache}\ncache_size 4000\nask_auth 0\nuse_locks 0\ndelay_upload 0\n")
        shutil.chown(self.cache, group="davfs2")  # it gives up root
        self.cache.chmod(0o775)
        with open(self.servers.work / "davfs2.log", "ab") as log:
            done = subprocess.run(
                ["mount.davfs", self.servers.webdav_url, self.folder, "-o", f"conf={configuration},uid=0"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, timeout=PATIENCE)
        if done.returncode:
            raise Unavailable(f"failed: mount.davfs exits with {done.returncode}")

    def pid(self):
        name = str(self.folder).strip("/").replace("/", "-")
        return int(pathlib.Path(f"/run/mount.davfs/{name}.pid").read_text())
