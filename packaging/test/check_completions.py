#!/usr/bin/env python3
"""Runs the completions in the shells that are installed, as who presses the tabulator does, and compares the options that they offer with
those of the programs' --help. Paths of the store come from a stand-in for `kestrune complete-path` that lists a folder.

Usage: check_completions.py FOLDER-OF-PROGRAMS
"""
import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

here = pathlib.Path(__file__).resolve().parent.parent / "completions"
program = pathlib.Path(sys.argv[1]) / "kestrune"
problems = []


def expect(what, found, wanted):
    if found != wanted:
        problems.append(f"{what}: {found!r}, not {wanted!r}")


def help_of(*words):
    return subprocess.run([program, *words, "--help"], check=True, capture_output=True, text=True).stdout


def offered_options(command):
    return {option for heads in re.findall(r"^  (-[-\w,]+)", help_of(command), re.MULTILINE) for option in heads.split(",")}


overview = help_of()
section = overview[overview.index("Subcommands:"):]
commands = re.findall(r"^  ([a-z][-a-z]*) ", section[: section.index("\n\n")], re.MULTILINE)
assert len(commands) > 20, commands

work = pathlib.Path(tempfile.mkdtemp(prefix="kestrune-completions-"))
store = work / "store"
(store / "Docs/sp ace").mkdir(parents=True)
for name in ("Docs/a.txt", "Docs/sp ace/in $it", "Docs/co:lon", "Docs/it's", "over"):
    (store / name).write_text("")
(work / "bin").mkdir()
(work / "local dir").mkdir()
(work / "token file").write_text("")
stand_in = work / "bin/kestrune"
stand_in.write_text(f"""#!/bin/bash
[ "$1" = complete-path ] || exit 1
cd {store}; word=${{2#/}}; slash=; [ "$2" = "$word" ] || slash=/
for each in "$word"*; do
  if [ -d "$each" ]; then echo "$slash$each/"; elif [ -e "$each" ]; then echo "$slash$each"; fi
done
""")
stand_in.chmod(0o755)
environment = {**os.environ, "PATH": f"{work}/bin:{os.environ['PATH']}", "HOME": str(work), "TERM": "xterm", "LC_ALL": "C.UTF-8",
               "XDG_CONFIG_HOME": str(work / "config"), "XDG_DATA_HOME": str(work / "data")}


def run(*words):
    return subprocess.run(words, cwd=work, env=environment, capture_output=True, text=True, timeout=30).stdout


# ---- bash

def bash(line):
    """COMPREPLY for a line with the cursor at its end, split into words as readline does."""
    words = re.findall(r"""(?:\\.|'[^']*'?|"[^"]*"?|[^\s:=])+|[:=]""", line)
    if line[-1].isspace():
        words.append("")
    script = f"""source {here}/kestrune.bash
COMP_LINE=$1; COMP_POINT=${{#1}}; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
_kestrune kestrune "${{COMP_WORDS[COMP_CWORD]}}" "${{COMP_WORDS[COMP_CWORD - 1]}}"
[ ${{#COMPREPLY[@]}} -eq 0 ] || printf '%s\\n' "${{COMPREPLY[@]}}" """
    return run("bash", "-c", script, "bash", line, *words).splitlines()


def check_bash():
    expect("bash: commands", sorted(bash("kestrune ")), sorted(commands))
    expect("bash: a begun command", bash("kestrune stat"), ["status", "state"])
    for command in commands:
        expect(f"bash: options of {command}", set(bash(f"kestrune {command} -")), offered_options(command))
    expect("bash: the root", bash("kestrune ls /"), ["/Docs/", "/over"])
    expect("bash: a folder", bash("kestrune cat /Docs/"), ["/Docs/a.txt", r"/Docs/co:lon", r"/Docs/it\'s", r"/Docs/sp\ ace/"])
    expect("bash: a blank that was typed", bash(r"kestrune cat /Docs/sp\ a"), [r"/Docs/sp\ ace/"])
    expect("bash: within quotation marks", bash('kestrune cat "/Docs/sp a'), ["/Docs/sp ace/"])
    expect("bash: behind a colon", bash("kestrune cat /Docs/co:l"), ["lon"])
    expect("bash: nothing of that name", bash("kestrune cat /nowhere/"), [])
    expect("bash: local paths", bash("kestrune pin tok"), ["token file"])
    expect("bash: folders alone", bash("kestrune mount loc"), ["local dir"])
    expect("bash: the value of an option", bash("kestrune configure --token-file tok"), ["token file"])
    expect("bash: a value that nobody knows", bash("kestrune pending --most 1"), [])
    expect_typed("bash: on a terminal", ["bash", "--norc", "--noprofile", "-i"], f"source {here}/kestrune.bash", "kestrune cat /Docs/sp\t",
                 r"kestrune cat /Docs/sp\ ace/")


# ---- on a terminal

def shown(text):
    """What a terminal shows of `text` behind the last prompt."""
    plain = re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[=>]|[\x07\r]", "", text)
    while "\x08" in plain:
        plain = re.sub("[^\x08]?\x08", "", plain, count=1)
    return plain[plain.rfind("> ") + 2:].strip()


def expect_typed(what, shell, preparation, keys, wanted):
    """Compares what the line reads after `keys`, which are typed at the prompt."""
    process, terminal = pty.fork()
    if process == 0:
        os.chdir(work)
        os.execvpe(shell[0], shell, {**environment, "PS1": "> ", "PROMPT": "> "})
    seen = ""

    def read_until(done):
        nonlocal seen
        end = time.monotonic() + 15
        while not done(seen) and time.monotonic() < end:
            if select.select([terminal], [], [], 0.1)[0]:
                try:
                    seen += os.read(terminal, 4096).decode(errors="replace")
                except OSError:
                    break

    os.write(terminal, (preparation + "; echo rea''dy\n").encode())
    # The prompt behind the answer: before it, what is typed is not the shell's yet.
    read_until(lambda text: "> " in text.partition("ready")[2])
    seen = seen.partition("ready")[2]
    os.write(terminal, keys.encode())
    read_until(lambda text: shown(text) == wanted)
    os.kill(process, 9)
    os.waitpid(process, 0)
    os.close(terminal)
    expect(what, shown(seen), wanted)


# ---- zsh

def check_zsh():
    text = (here / "_kestrune").read_text()
    for command in commands:
        found = re.search(rf"^    {command}\)\n      _arguments (.*?) ;;$", text, re.MULTILINE | re.DOTALL)
        if not found:
            problems.append(f"zsh: does not know {command}")
            continue
        options = set(re.findall(r"(?:'|\{|,|\()(--?[a-z][-a-z]*)", found.group(1)))
        expect(f"zsh: options of {command}", options, offered_options(command))
        expect(f"zsh: {command} among the commands", f"    '{command}:" in text, True)
    if not shutil.which("zsh"):
        return
    prepare = f"fpath=({here} $fpath); autoload -U compinit; compinit -u -D"
    expect_typed("zsh: a path of the store", ["zsh", "-f", "-i"], prepare, "kestrune cat /Docs/sp\t", r"kestrune cat /Docs/sp\ ace/")


# ---- fish

def fish(line):
    answer = run("fish", "--no-config", "-c", f"source {here}/kestrune.fish; complete -C {line!r}")
    return [row.split("\t")[0] for row in answer.splitlines()]


def check_fish():
    text = (here / "kestrune.fish").read_text()
    for command in commands:
        rows = re.findall(rf"^complete -c kestrune -n '__kestrune_uses {command}' (.*)$", text, re.MULTILINE)
        options = {"-h", "--help"}
        for row in rows:
            row = row.split(" -d ")[0]
            options |= {f"--{name}" for name in re.findall(r"-l (\S+)", row)} | {f"-{name}" for name in re.findall(r"-s (\S)", row)}
        expect(f"fish: options of {command}", options, offered_options(command))
    if not shutil.which("fish"):
        return
    expect("fish: commands", sorted(fish("kestrune ")), sorted(commands))
    expect("fish: a path of the store", fish("kestrune cat /Docs/s"), ["/Docs/sp ace/"])
    expect("fish: an option", fish("kestrune sync --wa"), ["--wait"])
    expect("fish: an option of another command", fish("kestrune cat --wa"), [])


try:
    check_bash()
    check_zsh()
    check_fish()
finally:
    shutil.rmtree(work)
for problem in problems:
    print(problem)
sys.exit(1 if problems else 0)
