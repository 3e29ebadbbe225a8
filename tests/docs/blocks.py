"""The blocks of a document that a reader may type: what they are, and which of them are not run by a test, and why."""

import dataclasses
import re

SHELL = {"sh", "bash", "shell", "zsh", "console"}  # `console`: a session, commands after "$ " and what they print
FENCE = re.compile(r"(?:^<!-- not run: *(?P<why>.*?) *-->\n+)?^```(?P<language>\S*)\n(?P<text>.*?)^```$", re.MULTILINE | re.DOTALL)


@dataclasses.dataclass(frozen=True)
class Block:
    language: str
    text: str
    line: int
    why_not: str | None  # why it is not run; None: it is

    @property
    def is_typed(self):
        return self.language in SHELL and self.why_not is None


def blocks(document):
    return [Block(match["language"], match["text"], document[: match.start("language")].count("\n") + 1, match["why"])
            for match in FENCE.finditer(document)]


def complaints(document):
    """What is wrong with a document's blocks, whoever runs them."""
    wrong = [f"line {block.line}: a shell block is not run, and the comment before it does not say why"
             for block in blocks(document) if block.why_not is not None and len(block.why_not.split()) < 3]
    wrong += [f"line {block.line}: a comment says why this is not run, but it is no shell block"
              for block in blocks(document) if block.why_not is not None and block.language not in SHELL]
    # What has no fence has no language, so nobody could say whether it is to be typed.
    without_fences = FENCE.sub(lambda match: "\n" * match[0].count("\n"), document)
    wrong += [f"line {number}: a block that is only indented; fence it and name its language"
              for number, (before, line) in enumerate(zip([""] + without_fences.splitlines(), without_fences.splitlines()), 1)
              if line.startswith("    ") and not before.strip()]
    wrong += [f"line {number}: `{comment}` stands before no block"
              for number, comment in ((without_fences[: match.start()].count("\n") + 1, match[0])
                                      for match in re.finditer(r"^<!-- not run.*?-->", without_fences, re.MULTILINE))]
    return wrong


def commands(session):
    """Of a console session, each command with the lines that it is said to print."""
    result = []
    lines = iter(session.splitlines())
    for line in lines:
        if not line.startswith("$ "):
            result[-1][1].append(line)
            continue
        command = line[2:]
        here = re.search(r"<<'(\w+)'", command)
        while here and command.splitlines()[-1] != here[1]:
            command += "\n" + next(lines)
        result.append((command, []))
    return result
