"""Reads the code blocks of a document.

What stands behind the language in the line that opens a block tells what is done with it, and is not shown to the reader:

  ```c NAME            a program, or a header of programs, that is kept under that name where the commands run
  ```cpp NAME          the same in C++
  ```c                 lines of a program: they compile inside a function, or outside
  ```sh                commands, run as they stand, all in one shell
  ```sh in TERMINAL    the same in another terminal; its last command may stay until the end of the page, as Ctrl-C would end it
  ```sh elsewhere      not run here, because what it does is tested elsewhere or changes the machine; check_snippets.py lists each
  ```text              after commands: what they print; "..." stands for any text
  ```text in TERMINAL  what the commands that stay there print meanwhile
  ```lua NAME          any other language with a name: a file
  anything else        not looked at
"""
import re
from dataclasses import dataclass


@dataclass
class Block:
    document: str
    line: int
    language: str
    words: list
    text: str
    output: str = None  # what the text block right after it shows

    @property
    def place(self):
        return f"{self.document}:{self.line}"


def blocks_of(name, text):
    found = []
    lines = text.split("\n")
    i = 0
    while i < len(lines):
        opening = re.match(r"^```(\S*)\s*(.*)$", lines[i])
        if not opening:
            i += 1
            continue
        end = next(j for j in range(i + 1, len(lines)) if lines[j].startswith("```"))
        body = "".join(line + "\n" for line in lines[i + 1:end])
        language = opening.group(1)
        if language == "text" and not opening.group(2) and found and found[-1].language == "sh" and not "".join(lines[last_end + 1:i]).strip():
            found[-1].output = body
        else:
            found.append(Block(name, i + 1, language, opening.group(2).split(), body))
        last_end = end
        i = end + 1
    return found


def matches(expected, printed):
    """Whether the text was printed, from the beginning of a line to the end of one, with any text where it has '...'. How wide
    columns are does not count, nor blanks at the ends of lines."""
    pattern = ".*?".join(re.escape(part) for part in plain(expected).strip("\n").split("..."))
    return re.search(rf"(?:^|\n){pattern}(?:\n|$)", plain(printed), flags=re.S) is not None


def plain(text):
    return re.sub(r" +", " ", re.sub(r"[ \t\r]+$", "", text, flags=re.M))
