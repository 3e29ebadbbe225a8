"""The rows of bench/mount. Each brings the limit and every mount through the same work, by turns, round by round."""

import errno
import filecmp
import http.client
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import time
import urllib.parse

from mount_servers import fill
from mount_table import Cells, Unavailable

LONGEST = 180  # seconds for one measurement
TOP = pathlib.Path(__file__).resolve().parent.parent


def seconds_of(command, lines=None):
    """Of a program that succeeds, and prints so many lines where that is given."""
    with tempfile.TemporaryFile() as output:
        begun = time.perf_counter()
        try:
            done = subprocess.run([str(word) for word in command], stdout=output, stderr=subprocess.PIPE, timeout=LONGEST)
        except subprocess.TimeoutExpired:
            raise Unavailable(f"> {LONGEST} s") from None
        seconds = time.perf_counter() - begun
        output.seek(0)
        printed = output.read().count(b"\n")
    if done.returncode:
        last = done.stderr.decode(errors="replace").strip().splitlines()[-1:] or [f"exit {done.returncode}"]
        raise Unavailable("failed: " + last[0])
    if lines is not None and printed != lines:
        raise Unavailable(f"{printed:,} lines instead of {lines:,}")
    return seconds


class Row:
    def __init__(self, servers, mounts, given):
        self.servers, self.mounts, self.given = servers, mounts, given
        self.sizes = servers.sizes

    def run(self, table):
        cells = Cells()
        self.prepare()
        for number in range(self.given.rounds):
            os.sync()
            cells.measure("limit", lambda: self.limit(number))
            for mount in self.mounts:
                if not cells.missing(mount.name):
                    os.sync()
                    cells.measure(mount.name, lambda: self.of(mount, number))
        table.row(self.title(), cells.values)

    def title(self):
        raise NotImplementedError

    def prepare(self):
        """Once, before the first round."""

    def limit(self, number):
        raise NotImplementedError

    def of(self, mount, number):
        raise NotImplementedError


def copied_out(servers, file):
    """The seconds of a copy to the local disk, by reading and writing: within one file system `cp` has the kernel copy, which does not
    happen from one to another, and moves each byte once instead of twice."""
    target = servers.out / "copy"
    try:
        return seconds_of(["cp", "--reflink=never", file, target])
    finally:
        target.unlink(missing_ok=True)


class ColdCopy(Row):
    def title(self):
        return f"cp of {self.sizes.large >> 20} MiB, cold; curl -o"

    def prepare(self):
        """A round that does not count: memory that a virtual machine gave back costs seconds a GiB to touch again, and whoever came
        first would pay for all."""
        self.limit(0)
        for mount in self.mounts:
            try:
                self.of(mount, 0)
            except Unavailable:
                pass  # said where it is measured

    def limit(self, _):
        target = self.servers.out / "curl"
        try:
            return seconds_of(["curl", "-sf", "-o", target, self.servers.signed("/large.bin")])
        finally:
            target.unlink(missing_ok=True)

    def of(self, mount, _):
        mount.fresh()
        return copied_out(self.servers, mount.folder / "large.bin")


class WarmCopy(Row):
    def title(self):
        return f"cp of {self.sizes.large >> 20} MiB, again; the local file"

    def prepare(self):
        for mount in self.mounts:
            mount.fresh()
            copied_out(self.servers, mount.folder / "large.bin")

    def limit(self, _):
        return copied_out(self.servers, self.servers.store / "large.bin")

    def of(self, mount, _):
        return copied_out(self.servers, mount.folder / "large.bin")


class RandomReads(Row):
    READS, BYTES = 200, 64 << 10

    def title(self):
        return f"{self.READS} reads of 64 KiB at random, cold; by ranges"

    def offsets(self, number):
        generator = random.Random(number)
        return [generator.randrange(self.sizes.large - self.BYTES) for _ in range(self.READS)]

    def limit(self, number):
        address = urllib.parse.urlsplit(self.servers.signed("/large.bin"))
        begun = time.perf_counter()
        connection = http.client.HTTPConnection(address.netloc)
        for offset in self.offsets(number):
            connection.request("GET", f"{address.path}?{address.query}",
                               headers={"Range": f"bytes={offset}-{offset + self.BYTES - 1}"})
            reply = connection.getresponse()
            if reply.status != 206 or len(reply.read()) != self.BYTES:
                raise Unavailable("no range")
        connection.close()
        return time.perf_counter() - begun

    def of(self, mount, number):
        mount.fresh()
        begun = time.perf_counter()
        with open(mount.folder / "large.bin", "rb", buffering=0) as file:
            for offset in self.offsets(number):
                if len(os.pread(file.fileno(), self.BYTES, offset)) != self.BYTES:
                    raise Unavailable("short read")
        return time.perf_counter() - begun


class Listing(Row):
    """Three rows at once: cold, again, and when a minute has passed for all mounts together."""

    def run(self, table):
        cold, warm, later = Cells(), Cells(), Cells()
        for _ in range(self.given.rounds):
            for cells in (cold, warm):
                cells.measure("limit", lambda: self.listed(self.servers.store))
            for mount in self.mounts:
                if cold.missing(mount.name):
                    continue
                mount.fresh()
                cold.measure(mount.name, lambda: self.listed(mount.folder))
                if not cold.missing(mount.name):
                    warm.measure(mount.name, lambda: self.listed(mount.folder))
            # An idle machine forgets too: whoever is first finds cold caches.
            time.sleep(self.sizes.minute)
            subprocess.run(["ls", "-l", "/etc"], stdout=subprocess.DEVNULL, check=True)
            later.measure("limit", lambda: self.listed(self.servers.store))
            for mount in self.mounts:
                if not cold.missing(mount.name):
                    later.measure(mount.name, lambda: self.listed(mount.folder))
        title = f"ls -l of {self.sizes.entries:,} entries"
        table.row(f"{title}, cold; the local folder", cold.values)
        table.row(f"{title}, again", warm.values)
        table.row(f"{title}, {self.sizes.minute} s later", later.values)

    def listed(self, top):
        return seconds_of(["ls", "-l", top / "entries"], lines=self.sizes.entries + 1)


class Find(Row):
    def title(self):
        return f"find over {self.sizes.cached_folders * 1000:,} cached entries; local"

    def prepare(self):
        self._cached = set()

    def limit(self, _):
        return self.found(self.servers.store)

    def of(self, mount, _):
        if mount.name not in self._cached:
            mount.fresh()
            self.found(mount.folder)
            self._cached.add(mount.name)
        return self.found(mount.folder)

    def found(self, top):
        return seconds_of(["find", top / "tree"], lines=1 + self.sizes.cached_folders * 1001)


class CopyIn(Row):
    """From the beginning of the copy until everything is in the folder behind the server, whole."""

    def of(self, mount, number):
        mount.fresh()
        name = f"{type(self).__name__} {mount.name} {number}"  # a server may remember a name that was there before
        behind = self.servers.store / "in" / name
        begun = time.perf_counter()
        try:
            (mount.folder / "in" / name).mkdir()
        except OSError as error:
            raise Unavailable("not available" if error.errno == errno.EROFS else str(error)) from None
        try:
            seconds_of(["cp", "-r", *self.sources(), mount.folder / "in" / name])
            return self.there_since(behind, begun) - begun
        finally:
            mount.stop()
            shutil.rmtree(behind, ignore_errors=True)

    def sources(self):
        raise NotImplementedError

    def there_since(self, behind, begun):
        """When the look began that found everything. Sizes are compared first; they do not suffice, because a server may set
        a file's size before its contents are there."""
        sizes = {file.name: file.stat().st_size for file in self.sources()}
        while time.perf_counter() - begun < LONGEST:
            now = time.perf_counter()
            filecmp.clear_cache()
            try:
                there = {entry.name: entry.stat().st_size for entry in os.scandir(behind)}
                if there == sizes and all(filecmp.cmp(file, behind / file.name, shallow=False) for file in self.sources()):
                    return now
            except FileNotFoundError:
                pass  # it comes, or a file of it went meanwhile
            time.sleep(0.01)
        raise Unavailable(f"> {LONGEST} s")


class SmallFilesIn(CopyIn):
    def title(self):
        return f"{self.sizes.small_files} files of 4 KiB in, until there; libcurl, 8 loops"

    def sources(self):
        return sorted((self.servers.source / "small").iterdir())

    def limit(self, number):
        behind = self.servers.store / "in" / f"limit {number}"
        behind.mkdir()
        try:
            line = subprocess.check_output(
                [self.servers.programs / "kestrune-curl-loop", self.servers.url, self.servers.token, f"/in/{behind.name}",
                 self.sources()[0], str(self.sizes.small_files), "8"], text=True)
        finally:
            shutil.rmtree(behind)
        return float(line.split("seconds=")[1].split()[0])


class LargeFileIn(CopyIn):
    def title(self):
        return f"{self.sizes.upload >> 20} MiB in, until there; curl -T in parts"

    def sources(self):
        return [self.servers.source / "upload.bin"]

    def limit(self, _):
        parts = self.servers.work / "parts"
        parts.mkdir()
        try:
            line = subprocess.check_output([TOP / "bench/multipart-peer", self.servers.url, self.servers.token,
                                            "/in/limit.bin", self.sources()[0], parts], text=True)
        finally:
            shutil.rmtree(parts)
            (self.servers.store / "in/limit.bin").unlink(missing_ok=True)
        return float(line.split("seconds=")[1].split()[0])


class Idle(Row):
    """What the mounts use of the processor while nobody uses them: all of them at the same time."""

    SECONDS, SETTLING = 10, 5

    def run(self, table):
        for mount in self.mounts:
            mount.fresh()
            subprocess.run(["ls", "-l", mount.folder], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(self.SETTLING)
        cells = Cells()
        for _ in range(self.given.rounds):
            before = {mount.name: mount.processor_seconds() for mount in self.mounts}
            time.sleep(self.SECONDS)
            for mount in self.mounts:
                cells.measure(mount.name, lambda: mount.processor_seconds() - before[mount.name])
        table.row(f"processor time while idle for {self.SECONDS} s (ms)", cells.values, unit=1000, digits=0)


class Memory(Row):
    """Of our host alone, with a million items known: minutes."""

    FOLDERS = 1000

    def run(self, table):
        ours = [mount for mount in self.mounts if mount.name == "kestrune"]
        cells = Cells()
        for mount in ours:
            folders = self.FOLDERS // self.sizes.divisor
            for number in range(folders):
                folder = self.servers.store / "million" / f"folder {number:04}"
                folder.mkdir(parents=True)
                fill(folder, 1000)
            mount.fresh()
            empty = mount.memory_bytes()
            subprocess.run(["find", mount.folder / "million"], stdout=subprocess.DEVNULL, check=True)
            cells.measure(mount.name, lambda: float(mount.memory_bytes()))
            table.row(f"memory with {folders * 1000:,} items known (MiB); empty {empty >> 20}", cells.values,
                      unit=1 / (1 << 20), digits=0)
            mount.stop()
            shutil.rmtree(self.servers.store / "million")


ROWS = {
    "cold": ColdCopy,
    "warm": WarmCopy,
    "random": RandomReads,
    "ls": Listing,
    "small-in": SmallFilesIn,
    "large-in": LargeFileIn,
    "find": Find,
    "idle": Idle,
    "memory": Memory,
}
