#!/usr/bin/env python3
"""Compares the options that the programs' --help lists with those that their man pages and the shells' completions have.

Usage: check_man_pages.py FOLDER-OF-PROGRAMS
"""
import pathlib
import re
import subprocess
import sys

here = pathlib.Path(__file__).resolve().parent.parent
programs = pathlib.Path(sys.argv[1])
problems = []


def help_of(*words):
    program, *arguments = words
    return subprocess.run([programs / program, *arguments, "--help"], check=True, capture_output=True, text=True).stdout


def options_in_help(text):
    found = set()
    for line in text.splitlines():
        if match := re.match(r"  (-[-\w,]+)", line):
            found.update(match.group(1).split(","))
    return found


def commands_in_help(text):
    section = text[text.index("Subcommands:"):]
    return re.findall(r"^  ([a-z][-a-z]*) ", section[: section.index("\n\n")], re.MULTILINE)


def options_in_page(text, page):
    if "# OPTIONS\n" not in text:
        problems.append(f"{page}: has no options")
        return set()
    section = re.split(r"^# ", text.split("# OPTIONS\n")[1], flags=re.MULTILINE)[0]
    heads = [line for line in section.splitlines() if line.startswith("*-")]
    return {option for line in heads for option in re.findall(r"\*(--?[a-z][-a-z]*)\*", line)}


def compare(page, words):
    file = here / "man" / f"{page}.scd"
    if not file.exists():
        problems.append(f"{' '.join(words)}: there is no {file.name}")
        return
    text = file.read_text()
    offered, described = options_in_help(help_of(*words)), options_in_page(text, file.name)
    problems.extend(f"{file.name}: does not describe {option}" for option in sorted(offered - described))
    problems.extend(f"{file.name}: describes {option}, which is not offered" for option in sorted(described - offered))
    synopsis = text.split("# SYNOPSIS\n")[1].split("# DESCRIPTION")[0]
    for option in re.findall(r"\*(--?[a-z][-a-z]*)\*", synopsis):
        if option not in offered:
            problems.append(f"{file.name}: its synopsis has {option}, which is not offered")


commands = commands_in_help(help_of("kestrune"))
assert len(commands) > 20, commands
compare("kestrune.1", ["kestrune"])
overview = (here / "man/kestrune.1.scd").read_text()
for command in commands:
    compare(f"kestrune-{command}.1", ["kestrune", command])
    if f"*kestrune-{command}*(1)" not in overview:
        problems.append(f"kestrune.1.scd: does not name {command}")
compare("kestrune-service.1", ["kestrune-service"])
compare("kestrune-fileprovider.8", ["kestrune-fileprovider"])
for file in (here / "man").glob("kestrune-*.1.scd"):
    name = file.name.removeprefix("kestrune-").removesuffix(".1.scd")
    if name not in commands and name not in ("service", "copy-link"):  # programs of their own
        problems.append(f"{file.name}: there is no such command")
for problem in problems:
    print(problem)
sys.exit(1 if problems else 0)
