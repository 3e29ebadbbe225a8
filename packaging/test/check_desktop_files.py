#!/usr/bin/env python3
"""Checks the entries for menus with the validators of their formats, and that KDE's menu and Nemo's offer the same.

Usage: check_desktop_files.py PACKAGING_DIRECTORY     exit 77: skipped, the reason is said"""

import configparser
import pathlib
import shutil
import subprocess
import sys

# KDE's menus are entries of the type Service with types of files and actions, which the validator knows for applications alone; it says the same
# of those that KDE's own programs install.
KDE = {
    'key "MimeType" is present in group "Desktop Entry", but the type is "Service" while this key is only valid for type "Application"',
    'key "Actions" is present in group "Desktop Entry", but the type is "Service" while this key is only valid for type "Application"',
}


def complaints(file):
    said = subprocess.run(["desktop-file-validate", file], capture_output=True, text=True)
    return {line.split(": error: ")[-1].removeprefix(f"{file}: ") for line in (said.stdout + said.stderr).splitlines()}


def entries(file):
    parser = configparser.ConfigParser(interpolation=None)
    parser.optionxform = str
    parser.read(file)
    return parser


def main():
    packaging = pathlib.Path(sys.argv[1])
    missing = [name for name in ("desktop-file-validate", "appstreamcli") if shutil.which(name) is None]
    if missing:
        print("skipped: these are missing:", ", ".join(missing))
        sys.exit(77)
    wrong = []
    for file in sorted(packaging.glob("d*/*.desktop")):
        unexpected = complaints(file) ^ (KDE if file.parent.name == "dolphin" else set())
        wrong += [f"{file}: {line}" for line in unexpected]
    for file in packaging.glob("desktop/*.metainfo.xml"):
        said = subprocess.run(["appstreamcli", "validate", "--no-net", file], capture_output=True, text=True)
        wrong += [f"{file}: {said.stdout}"] if said.returncode else []
    kde = entries(packaging / "dolphin" / "kestrune.desktop")
    in_kde = {}
    for action in kde["Desktop Entry"]["Actions"].rstrip(";").split(";"):
        group = kde[f"Desktop Action {action}"]
        in_kde[group["Name"]] = group["Exec"]
    nemo = [entries(file)["Nemo Action"] for file in sorted(packaging.glob("nemo/*.nemo_action"))]
    in_nemo = {action["Name"].replace("_", ""): action["Exec"] for action in nemo}
    if list(in_kde.items()) != list(in_nemo.items()):
        wrong.append(f"KDE's menu and Nemo's differ: {in_kde} and {in_nemo}")
    print("\n".join(wrong) or f"{len(in_kde)} entries, all is well")
    sys.exit(1 if wrong else 0)


main()
