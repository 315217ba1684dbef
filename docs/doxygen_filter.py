#!/usr/bin/env python3
"""doxygen_filter.py HEADER: prints a header with its comments as Doxygen wants them.

The headers are written for people who read them: plain comments, terms set off by columns. This makes of them
  - the comment that a header begins with: the description of the file;
  - a comment right above a declaration: its description, and also that of the declarations which follow without a blank line;
  - a comment behind an enumerator or a field: its description; a field without one that the type's comment names refers to that;
  - lines of a term and, two blanks or more further on, its meaning: a list.
Whatever has no comment stays without one, so that Doxygen complains of it.
"""

import re
import sys

LABELS = "Arguments|Results|Statuses|Threads?|Exceptions|Logging|Blocks|Owner|Returns"
STATUS = r"[A-Z]+_[A-Z_]+"
SPECIAL = re.compile(r"[\\@<>&#%$]|::")
NAME = re.compile(r"(?<![\w.\"/])((?:quillon|wb|QUILLON|WB)_\w*[A-Za-z0-9])(?![\w.\"/(])")


def escaped(text):
    """The text without a meaning for Doxygen, but for the names of the libraries, which become links: those must lead somewhere."""
    return NAME.sub(r"#\1", SPECIAL.sub(lambda found: "\\" + found.group(0), text))


def lines_of(comment):
    """The text of a comment, line by line, without its frame but with what it is indented beyond that."""
    text = re.sub(r"^/\*|\*/$", "", comment.strip())
    return [re.sub(r"^ ?\* ?| $", "", line).rstrip() if number else line.strip() for number, line in enumerate(text.split("\n"))]


def described(comment):
    """The comment as lines of Doxygen's markup."""
    output = []
    in_list = False
    for line in lines_of(comment):
        text = line.strip()
        label = re.match(rf"({LABELS}):?(?:\s{{2,}}|(?<=:)\s+)(.*)", line)
        if label:
            output += ["", f"@par {label.group(1)}"]
            line, in_list = "  " + label.group(2), False
            text = label.group(2)
        term = re.match(rf"(\s*)(\S.*?)\s{{2,}}(\S.*)$", line) or (re.match(rf"(\s+)((?:{STATUS})(?:, {STATUS})*)()$", line))
        if term and (term.group(1) or in_list):
            meaning = f": {escaped(term.group(3))}" if term.group(3) else ""
            output.append(f" - {escaped(term.group(2))}{meaning}")
            in_list = True
        elif in_list and line.startswith("  "):
            output.append(f"   {escaped(text)}")
        else:
            if in_list and text:
                output.append("")
            in_list = False
            output.append(escaped(text))
    return output


def block(comment, command=""):
    return ["/**" + command, *(" * " + line for line in described(comment)), " */"]


class Converter:
    def __init__(self, text):
        self.lines = text.split("\n")
        self.position = 0
        self.output = []
        self.shared = None   # the comment that the next declaration inherits when no blank line comes between
        self.type_comment = None

    def take_comment(self):
        """The comment that begins on this line, all of it; moves behind it."""
        taken = [self.lines[self.position]]
        while "*/" not in taken[-1]:
            self.position += 1
            taken.append(self.lines[self.position])
        self.position += 1
        return "\n".join(taken)

    def next_line(self):
        return self.lines[self.position] if self.position < len(self.lines) else ""

    def convert(self):
        if self.next_line().startswith("/*"):
            self.output += block(self.take_comment(), " @file")
        while self.position < len(self.lines):
            self.convert_part()
        return "\n".join(self.output)

    def convert_part(self):
        line = self.next_line()
        if line.startswith("/*"):
            comment = self.take_comment()
            follower = self.next_line()
            if follower.strip() and not follower.startswith(("/*", "#if", "#endif", "#include")):
                self.shared = comment
            else:
                self.shared = None
        elif not line.strip() or line.startswith("#") or line.startswith(('extern "C"', "}", "namespace")):
            if line.startswith("#define") and self.shared:
                self.output += block(self.shared)
            if not line.strip():
                self.shared = None
            self.output.append(line)
            self.position += 1
        else:
            self.convert_declaration()

    def convert_declaration(self):
        if self.shared:
            self.output += block(self.shared)
        depth = 0
        body = None
        while self.position < len(self.lines):
            line = self.lines[self.position]
            if depth and line.strip().startswith("/*"):
                self.output += block(self.take_comment())
                body = "documented"
                continue
            code = re.sub(r"/\*.*?\*/", "", line)
            self.output.append(self.member(line, code, depth, body))
            body = None if code.rstrip().endswith((";", ",")) else body
            depth += code.count("{") - code.count("}")
            self.position += 1
            if depth == 0 and code.rstrip().endswith((";", "}")):
                break

    def member(self, line, code, depth, body):
        trailing = re.match(r"(.*\S)\s*/\* (.*?) \*/$", line)
        if trailing:
            return f"{trailing.group(1)} /**< {' '.join(described('/* ' + trailing.group(2) + ' */')).strip()} */"
        constant = re.match(r"(enum \{ \w+ = \w+) (\};)$", line)
        if constant and self.shared:  # the one constant of an enumeration without a name
            return f"{constant.group(1)} /**< {' '.join(described(self.shared)).strip()} */ {constant.group(2)}"
        name = re.search(r"(\w+)(?:\)\(.*\))?;$", code.strip()) or re.search(r"\(\*(\w+)\)", code)
        if depth and body is None and name and self.shared and re.search(rf"\b{name.group(1)}\b", self.shared):
            return f"{line} /**< Told in the description of the type. */"
        return line


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        print(Converter(file.read()).convert())


if __name__ == "__main__":
    main()
