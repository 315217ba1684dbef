#!/usr/bin/env python3
"""check_architecture.py SOURCES: docs/architecture.md names every module of both libraries, none that is gone, and every folder."""

import pathlib
import re
import sys

MODULE_FOLDERS = {"libqlk": "src", "Warbler": "warbler/src"}


def main():
    root = pathlib.Path(sys.argv[1])
    text = (root / "docs/architecture.md").read_text()
    complaints = []
    for library, folder in MODULE_FOLDERS.items():
        section = re.search(rf"^### {library}:.*?(?=^##)", text, flags=re.S | re.M)
        if not section:
            sys.exit(f"docs/architecture.md: no section '### {library}: ...'")
        rows = re.findall(r"^\| (`.*?) \|", section.group(0), flags=re.M)
        named = {name for row in rows for name in re.findall(r"`(\w+)`", row)}
        modules = {path.stem for path in (root / folder).iterdir() if path.suffix in (".cpp", ".h")}
        if not modules:
            complaints.append(f"{folder}: no module found")
        complaints += [f"docs/architecture.md: {folder}/{name} has no line under {library}: tell what is in it" for name in sorted(modules - named)]
        complaints += [f"docs/architecture.md: {folder}/{name} is described under {library} but is not there" for name in sorted(named - modules)]
    around = text[text.index("### Around them"):]
    for folder in sorted(path.name for path in root.iterdir() if path.is_dir()):
        if folder in ("build", "docs", "include", "src", "warbler") or (folder.startswith(".") and folder != ".ci"):
            continue
        if f"`{folder}/" not in around:
            complaints.append(f"docs/architecture.md: the folder {folder}/ is not described")
    print("\n".join(complaints) or "every module and folder has its place")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
