#!/usr/bin/env python3
"""Compares the names that a library gives away with those that its public headers declare.

The shared library must export exactly the declared names. The archive must define them all, and beside them only C++ names inside our
own namespaces and types, since anything else could clash with a name of the application that links it.
"""

import argparse
import pathlib
import re
import subprocess
import sys

# Weak symbols (inline functions and templates of the standard library) are merged by the linker and clash with nothing.
STRONG = set("TDBRSGC")
OWN_NAME = re.compile(r"(?:(?:typeinfo|typeinfo name|vtable|guard variable|VTT|construction vtable|non-virtual thunk|TLS init function|"
                      r"TLS wrapper function)\s+(?:for|to)\s+)?(?:\(anonymous namespace\)|qlk|wb|_?quillon_\w+|wb_\w+)::")


def declared_names(folder, macro):
    """The names declared with the macro in the headers of a folder."""
    names = set()
    for header in sorted(pathlib.Path(folder).glob("*.h")):
        text = re.sub(r"/\*.*?\*/", " ", header.read_text(), flags=re.S)
        text = re.sub(r"^\s*#.*$", "", text, flags=re.M)
        for declaration in re.findall(rf"\b{macro}\b([^;{{]*)[;{{]", text):
            found = re.match(r"[^(]*?\b(\w+)\s*(?:\(|$)", declaration.replace("WB_NODISCARD", "").strip())
            if not found:
                sys.exit(f"{header}: no name found in: {declaration}")
            names.add(found.group(1))
    return names


def symbols(nm, *arguments):
    """(type letter, name) of each symbol that nm prints."""
    output = subprocess.run([nm, *arguments], check=True, capture_output=True, text=True).stdout
    return [(line[17], line[19:]) for line in output.splitlines() if re.match(r"^[0-9a-f]{16} \w ", line)]


def exported_names(nm, library):
    """What a shared library exports, without the version that follows a name; versions themselves are absolute symbols."""
    return {name.split("@")[0] for kind, name in symbols(nm, "-D", "--defined-only", library) if kind != "A"}


def check(nm, macro, headers, shared, archive):
    """A list of complaints; empty when all is well."""
    declared = declared_names(headers, macro)
    if not declared:
        return [f"{headers}: no declaration with {macro}"]
    exported = exported_names(nm, shared)
    complaints = [f"{shared}: declared but not exported: {name}" for name in sorted(declared - exported)]
    complaints += [f"{shared}: exported but declared in no public header: {name}" for name in sorted(exported - declared)]

    # A mangled name differs from its demangled form; an exported C name does not.
    defined = zip(symbols(nm, "-g", "--defined-only", archive), symbols(nm, "-g", "-C", "--defined-only", archive))
    found = set()
    for (kind, name), (_, readable) in defined:
        if kind not in STRONG:
            continue
        if name in declared:
            found.add(name)
        elif name == readable or not OWN_NAME.match(readable):
            complaints.append(f"{archive}: may clash with a name of the application: {readable}; move it into our namespace or make it local")
    complaints += [f"{archive}: declared but not defined: {name}" for name in sorted(declared - found)]
    return complaints


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    for option in ("--nm", "--macro", "--headers", "--shared", "--archive"):
        parser.add_argument(option, required=True)
    options = parser.parse_args()
    complaints = check(options.nm, options.macro, options.headers, options.shared, options.archive)
    print("\n".join(complaints) or f"{len(declared_names(options.headers, options.macro))} names, no more and no less")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
