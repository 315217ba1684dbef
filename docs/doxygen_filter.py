#!/usr/bin/env python3
"""doxygen_filter.py HEADER: prints a header with its comments as Doxygen wants them.

The headers are written for people who read them: plain comments, terms set off by columns. This makes of them
  - the comment that a header begins with: the description of the file;
  - a comment right above a declaration: its description, and also that of the declarations which follow without a blank line;
  - a comment behind an enumerator or a field: its description; a field without one that the type's comment names refers to that;
  - lines of a term and, two blanks or more further on, its meaning: a list.
Whatever has no comment stays without one, so that Doxygen complains of it.

In C++ headers, which are commented in lines of //, it does so for what stands outside of functions.
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
    if comment.startswith("//"):
        return [re.sub(r"^// ?", "", line).rstrip() for line in comment.split("\n")]
    text = re.sub(r"^/\*|\*/$", "", comment.strip())
    return [re.sub(r"^ ?\* ?| $", "", line).rstrip() if number else line.strip() for number, line in enumerate(text.split("\n"))]


def is_code(lines):
    """Whether a paragraph is an example: all of it is indented, and none of it is a term with its meaning."""
    return all(line.startswith("  ") for line in lines) and not any(re.match(r"\s*\S.*?\s{2,}\S", line) for line in lines)


def described(comment):
    """The comment as lines of Doxygen's markup."""
    output = []
    paragraph = []
    for line in [*lines_of(comment), ""]:
        if line:
            paragraph.append(line)
            continue
        output += ["@code", *paragraph, "@endcode"] if paragraph and is_code(paragraph) else paragraph_described(paragraph)
        output.append("")
        paragraph = []
    return output[:-1]


def paragraph_described(lines):
    output = []
    in_list = False
    for line in lines:
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


class CppConverter:
    """For C++: a stack of what the open braces belong to tells declarations from what functions do."""

    MOVING = re.compile(r"\s*(\w+)\(\1 &&\w*\)|.*\boperator=\((\w+) &&\w*\)")

    def __init__(self, text):
        self.lines = text.split("\n")
        self.scopes = []
        self.statement = ""
        self.output = []

    def convert(self):
        comment = []
        shared = None  # the comment of the declaration before, when no blank line comes between
        for line in [*self.lines, ""]:
            if line.strip().startswith("//"):
                comment.append(line.strip())
                continue
            begins = line.strip() and not self.statement.strip() and False not in self.scopes
            is_declaration = begins and not line.lstrip().startswith(("}", "#", "namespace", "public:", "private:", "protected:"))
            if comment and not self.output:
                self.output += block("\n".join(comment), " @file")
            elif comment and is_declaration:
                shared = "\n".join(comment)
                self.output += block(shared)
            elif is_declaration and self.MOVING.match(line):
                self.output += block("// Takes over what the other has, which is empty afterwards.")
            elif is_declaration and shared:
                self.output += block(shared)
            elif False not in self.scopes and not line.strip():
                shared = None
            comment = []
            # What is there for the layer's own derived classes is not for applications.
            self.output.append(self.with_trailing_comment(line.replace("protected:", "private:")))
            self.follow(line)
        return "\n".join(self.output)

    def with_trailing_comment(self, line):
        trailing = re.match(r"(.*[;,])\s*// (.*)$", line)
        if trailing is None or False in self.scopes:
            return line
        return f"{trailing.group(1)} /**< {' '.join(described('// ' + trailing.group(2))).strip()} */"

    def follow(self, line):
        """Keeps account of the braces; True is pushed for one that holds declarations."""
        if line.startswith("#") or re.match(r"\s*(public|private|protected):", line):
            return
        code = re.sub(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|//.*', "", line)
        for character in code + "\n":
            if character == "{":
                self.scopes.append(re.search(r"\b(?:namespace|class|struct|enum|union)\b[^()=]*$", self.statement) is not None)
            elif character == "}" and self.scopes:
                self.scopes.pop()
            self.statement = "" if character in "{};" else self.statement + character


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        converter = CppConverter if sys.argv[1].endswith(".hpp") else Converter
        print(converter(file.read()).convert())


if __name__ == "__main__":
    main()
