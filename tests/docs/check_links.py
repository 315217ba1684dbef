#!/usr/bin/env python3
"""check_links.py SOURCES: every link between the documents leads somewhere, and the guide's table of errors has every status."""

import pathlib
import re
import sys


def anchors_of(text):
    """The names under which the headings of a document are linked to."""
    headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```", "", text, flags=re.S | re.M), flags=re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def main():
    root = pathlib.Path(sys.argv[1])
    complaints = []
    count = 0
    documents = [path for path in (root / "README.md", root / "CONTRIBUTING.md", *sorted((root / "docs").glob("*.md")))]
    for document in documents:
        text = document.read_text(encoding="utf-8")
        for target in re.findall(r"\]\(([^)\s]+)\)", text):
            if "://" in target:
                continue
            count += 1
            name, _, anchor = target.partition("#")
            path = document.parent / name if name else document
            if not path.exists():
                complaints.append(f"{document.relative_to(root)}: {target} is not there")
            elif anchor and anchor not in anchors_of(path.read_text(encoding="utf-8")):
                complaints.append(f"{document.relative_to(root)}: {target}: there is no such heading")

    statuses = re.findall(r"^  (QUILLON_STATUS_\w+) = (\d+)", (root / "include/quillon.h").read_text(encoding="utf-8"), flags=re.M)
    rows = re.findall(r"^\| `(QUILLON_STATUS_\w+)` \| (\d+) \|", (root / "docs/guide.md").read_text(encoding="utf-8"), flags=re.M)
    complaints += [f"docs/guide.md: the table of errors lacks {name} {number}" for name, number in statuses if (name, number) not in rows]
    complaints += [f"docs/guide.md: there is no {name} {number}" for name, number in rows if (name, number) not in statuses]
    print("\n".join(complaints) or f"{count} links, {len(statuses)} statuses")
    return 1 if complaints or count < 10 or len(statuses) < 30 else 0


if __name__ == "__main__":
    sys.exit(main())
