#!/usr/bin/env python3
"""check_reference.py DOXYGEN DOXYFILE WORK HEADER...: the reference of the public headers is made without a complaint, has every name
that they declare, and would not be made if one of them lost its comment."""

import pathlib
import re
import subprocess
import sys


def make(doxygen, doxyfile, work, inputs=()):
    """Runs Doxygen with its output below the folder. Returns its complaints and the text of what it wrote."""
    work.mkdir(parents=True, exist_ok=True)
    settings = doxyfile.read_text(encoding="utf-8") + f"\nOUTPUT_DIRECTORY = {work}\nGENERATE_XML = YES\nGENERATE_HTML = NO\n"
    if inputs:
        settings += f"INPUT = {' '.join(map(str, inputs))}\n"
    done = subprocess.run([doxygen, "-"], input=settings, capture_output=True, text=True, check=False, timeout=120)
    complaints = done.stderr.strip() or (f"{doxygen} ended with code {done.returncode}" if done.returncode else "")
    return complaints, "".join(file.read_text(encoding="utf-8") for file in sorted((work / "xml").glob("*.xml")))


def declared_names(header):
    """The functions, objects and enumerators that a header declares."""
    text = re.sub(r"/\*.*?\*/", "", header.read_text(encoding="utf-8"), flags=re.S)
    text = re.sub(r"^#.*(\\\n.*)*", "", text, flags=re.M)
    names = set()
    for declaration in re.findall(r"\b(?:WB|QUILLON)_API ([^;{]*);", text):
        names.add(re.search(r"(\w+)\s*(?:\[\])?$", declaration.split("(")[0]).group(1))
    for body in re.findall(r"\benum\b[^{;]*\{(.*?)\}", text, flags=re.S):
        names.update(re.findall(r"^\s*([A-Z]\w+)", body, flags=re.M))
    return names


def main():
    doxygen, doxyfile, work, *headers = sys.argv[1:]
    doxyfile, work, headers = pathlib.Path(doxyfile), pathlib.Path(work), [pathlib.Path(header) for header in headers]
    complaints, text = make(doxygen, doxyfile, work / "whole")
    members = re.findall(r"<name>(\w+)</name>(?:(?!<name>).)*?<briefdescription>(.*?)</briefdescription>", text, flags=re.S)
    described = {name for name, brief in members if brief.strip()}
    names = {name for header in headers for name in declared_names(header)}
    missing = sorted(names - described)
    failures = [complaints] if complaints else []
    failures += [f"{name} is not described in the reference" for name in missing]
    for name in ("config", "connection", "capability", "bulk_download", "xml::element"):  # Doxygen complains of what these lack
        if f"<compoundname>quillon::{name}</compoundname>" not in text:
            failures.append(f"the C++ type quillon::{name} is not in the reference")

    # One function whose comment is taken away has to be noticed.
    header = next(header for header in headers if header.name == "dom.h")
    bare = work / header.name
    bare.write_text(re.sub(r"/\* Adds a reference\..*?\*/\n", "", header.read_text(encoding="utf-8"), flags=re.S), encoding="utf-8")
    noticed, _ = make(doxygen, doxyfile, work / "bare", [bare])
    if "wb_dom_context_retain" not in noticed:
        failures.append("a function without a comment was not noticed: " + noticed)
    print("\n".join(failures) or f"{len(names)} names are described")
    return 1 if failures or len(names) < 100 else 0


if __name__ == "__main__":
    sys.exit(main())
