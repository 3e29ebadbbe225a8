"""Where each document is typed, what a reader has at the beginning, and what must be true at the end."""

import json
import os
import shutil
import subprocess

from stages import ADDRESS, Home, WholeMachine, free_port
from proxy import behind_nginx
from trial import expect, wait_until


class Guide(Home):
    files = {"Documents/report.txt": "a report\n"}
    fewest = 8

    def before(self):
        self.url = self.serve()

    def replacements(self):
        return {ADDRESS: self.url}

    def after(self):
        stored = (self.store / "Documents" / "report.txt").read_text()
        expect(stored == "a report\none line more\n", f"the store has {stored!r}")
        expect(not os.path.ismount(self.mount), "the folder is still mounted")


class Sources(Home):
    """A reader in a copy of the sources that has been built."""

    folder = "kestrune"

    def before(self):
        self.copy_sources(self.folder)

    def copy_sources(self, folder):
        sources = self.home / folder
        sources.mkdir()
        for name in ("scripts", "docs"):
            shutil.copytree(self.source / name, sources / name)
        (sources / "build").symlink_to(self.binaries.parent)


class Readme(Sources):
    files = {"Documents/report.pdf": "a report\n"}
    needed = ["ed", "git"]
    fewest = 3

    def before(self):
        super().before()
        log = self.start(self.home / self.folder / "scripts" / "run", "--built", self.binaries)
        wait_until("scripts/run shows the folder", lambda: "is now the folder" in log.read_text(), 60)
        self.answers = {"Address of the service": self.serve(), "Token (it is not shown)": self.token.read_text().strip()}

    def after(self):
        file = self.home / self.folder / "demo" / "store" / "Read me first.txt"
        wait_until("what was written is at the store", lambda: file.read_text() == "Hello from the remote store.\nHello back.\n", 30)
        self.copy_sources("again")
        check = subprocess.run(["again/scripts/run", "--once", "--built", self.binaries], env=self.environment, cwd=self.home, capture_output=True, text=True)
        print(f"--- scripts/run --once\n{check.stdout}{check.stderr}")
        expect(check.returncode == 0 and check.stdout.endswith("All is well.\n"), "scripts/run --once finds faults")


class Bus(Home):
    files = {"Documents/report.txt": "a report\n"}
    needed = ["busctl", "gdbus"]

    def before(self):
        subprocess.run([self.binaries / "kestrune", "configure", "--url", self.serve(), "--token-file", self.token], env=self.environment, check=True)
        self.mount.mkdir()
        log = self.start(self.binaries / "kestrune", "mount", self.mount)
        wait_until("the folder is mounted", lambda: "Mounted at" in log.read_text(), 30)
        names = ["busctl", "--user", "list", "--no-legend"]
        wait_until("the mount is on the bus", lambda: "com.orvanta.Kestrune1 " in subprocess.run(names, env=self.environment, capture_output=True, text=True).stdout, 30)

    def after(self):
        said = self.outputs[0]
        expect("a(soay) 1 \"com.orvanta.Kestrune1.m" in said, "the mount is not among the mounts")
        expect("(b'report.txt', 'online-only', false)" in said, "the folder's states are not told")


class Service(Home):
    needed = ["curl", "openssl"]
    fewest = 2

    def before(self):
        self.address = f"127.0.0.1:{free_port()}"

    def replacements(self):
        return {"127.0.0.1:8080": self.address}

    def after(self):
        expect(f": serving {self.home}/store on http://{self.address}\n" in self.outputs[0], "the line is another one")
        expect([entry["name"] for entry in json.loads(self.outputs[1])["entries"]] == ["hello.txt"], "the listing is another one")


class Days(Sources):
    def after(self):
        expect(self.outputs[1].endswith("\nDay 7\n"), "the file has other contents")


class Console(Home):
    files = {"Docs/a.txt": "a text"}
    orderless = True  # calls run side by side

    def before(self):
        os.utime(self.store / "Docs" / "a.txt", (1714564800, 1714564800))
        subprocess.run([self.binaries / "kestrune", "configure", "--url", self.serve(), "--token-file", self.token], env=self.environment, check=True)

    def same(self, line):
        record = json.loads(line)
        del record["seq"]
        return json.dumps(record, sort_keys=True, ensure_ascii=False)


class Administrators(WholeMachine):
    """A reader who sets up a service, and Anna, who uses it; a disk for backups is there."""

    fewest = 5

    def before(self):
        self.machine.run("mkdir /backup && cmake --install kestrune/build --component kestrune --prefix /usr/local >/dev/null")
        self.machine.add_user("anna")

    def give_token(self):
        self.machine.run("install -o anna -m 600 /etc/kestrune/token /home/anna/token")

    def beside(self, block):
        if block.language == "ini":
            self.machine.write("/etc/systemd/system/kestrune-service.service", block.text)
        if block.language == "nginx":
            behind_nginx(self, block.text)

    def run(self, script):
        if "token.new" in script:
            self.give_token()
            wait_until("the service serves", lambda: "serving" in self.machine.run("journalctl -u kestrune-service"), 20)
            self.machine.run("kestrune configure --url http://127.0.0.1:8080 --token-file ~/token && kestrune ls /", "anna")
        if "rsync -a /backup" in script:
            self.machine.run("rm /srv/kestrune/files/letter.txt")
        result = super().run(script)
        if "token.new" in script:
            refused = lambda: "token" in self.machine.try_run("kestrune ls /", "anna").stdout
            wait_until("the old token is refused", refused, 20)
            self.give_token()
        return result

    def after(self):
        expect(self.machine.run("cat /srv/kestrune/files/letter.txt") == "a letter\n", "the backup is not back")
        self.machine.run("kestrune cat /letter.txt", "anna")


class Packaging(WholeMachine):
    def after(self):
        said = self.machine.run("type -p kestrune kestrune-service kestrune-copy-link; kestrune --version")
        expect(said.startswith("/usr/local/bin/kestrune\n/usr/local/bin/kestrune-service\n/usr/local/bin/kestrune-copy-link\nkestrune 0"), said)


DOCUMENTS = {
    "README.md": Readme,
    "docs/administrators.md": Administrators,
    "docs/console.md": Console,
    "docs/dbus.md": Bus,
    "docs/extensions.md": Days,
    "docs/guide.md": Guide,
    "docs/service.md": Service,
    "packaging/README.md": Packaging,
}
