#!/usr/bin/env python3
"""Compares what each folder includes with what its CMake target links, and finds sources that no target lists.

A folder of src/ is one library; it may include its own headers and those of the libraries that it links, directly or
through them. Prints each violation; exits 1 if there is any."""

import pathlib
import re
import sys

root = pathlib.Path(__file__).resolve().parent.parent
src = root / "src"
call = re.compile(r"kestrune_(library|program|test)\((\S+)(.*?)\)", re.S)
more = re.compile(r"target_sources\((\S+)\s+PRIVATE(.*?)\)", re.S)
bare = re.compile(r"add_executable\((\S+)\s+(?:MACOSX_BUNDLE)?(.*?)\)", re.S)
extra = re.compile(r"target_link_libraries\((\S+)\s+(?:PUBLIC|PRIVATE|INTERFACE)(.*?)\)", re.S)

links = {}  # target -> directly linked names
folder_of = {}  # library target -> folder below src
targets_of = {}  # source file -> targets that list it


def words(text, after):
    match = re.search(after + r"\s+(.*?)(?=\s+(?:SOURCES|LINKS|LABEL|TIMEOUT)\s|\Z)", text, re.S)
    return match.group(1).split() if match else []


lists = list(src.rglob("CMakeLists.txt")) + list((root / "tests").rglob("CMakeLists.txt")) + list((root / "bench").rglob("CMakeLists.txt"))
for path in lists:
    text = re.sub(r"#.*", "", path.read_text())
    for kind, target, body in call.findall(text):
        links.setdefault(target, set()).update(words(body, "LINKS"))
        if kind == "library":
            folder_of[target] = path.parent
        for source in words(body, "SOURCES"):
            targets_of.setdefault((path.parent / source).resolve(), set()).add(target)
    for target, body in more.findall(text) + bare.findall(text):
        for source in body.split():
            targets_of.setdefault((path.parent / source).resolve(), set()).add(target)
    for target, body in extra.findall(text):
        links.setdefault(target, set()).update(body.split())


def reachable(target, seen=None):
    seen = set() if seen is None else seen
    for name in links.get(target, ()):
        if name in folder_of and name not in seen:
            seen.add(name)
            reachable(name, seen)
    return seen


problems = []
for source in sorted(file for top in (src, root / "tests", root / "bench") for ending in ("*.cpp", "*.mm") for file in top.rglob(ending)):
    if source.resolve() not in targets_of:
        problems.append(f"{source.relative_to(root)}: no target lists it")

targets_in = {}  # folder -> its libraries (a folder may have one more for its tests)
for target, folder in folder_of.items():
    targets_in.setdefault(folder, set()).add(target)


def home(file):
    """The nearest folder above it that is a library; none where there is none."""
    return next((parent for parent in file.parents if parent in targets_in), None)


for folder, targets in targets_in.items():
    if src not in folder.parents:
        continue
    allowed = {folder} | {folder_of[name] for target in targets for name in reachable(target)}
    for file in sorted(file for ending in ("*.cpp", "*.mm", "*.h") for file in folder.rglob(ending)):
        if "test" in file.relative_to(folder).parts or home(file) != folder:
            continue
        for included in re.findall(r'#include "([^"]+)"', file.read_text()):
            header = src / included.removesuffix(".h") if included.endswith(".capnp.h") else src / included  # made from a schema
            if not header.exists():
                problems.append(f"{file.relative_to(root)}: includes \"{included}\", which is not below src/")
            elif home(header) not in allowed:
                problems.append(f"{file.relative_to(root)}: includes \"{included}\", which {' and '.join(sorted(targets))} does not link")

print("\n".join(problems) if problems else f"layers: {len(folder_of)} libraries, {len(targets_of)} sources, clean")
sys.exit(1 if problems else 0)
