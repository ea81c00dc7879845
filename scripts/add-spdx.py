#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Puts the SPDX licence line at the top of every source file that lacks it.

Run from the top of the tree after adding files: scripts/add-spdx.py
"""
import pathlib
import subprocess

TAG = "SPDX-License-Identifier: MIT"
COMMENT = {".cpp": "//", ".h": "//", ".hpp": "//", ".py": "#", ".sh": "#", ".cmake": "#",
           ".js": "//", ".css": None, ".html": None}


def comment_for(path):
    if path.name in ("CMakeLists.txt", "wcan.pc.in"):
        return "#"
    if path.suffix == ".c":
        return None  # C files take a block comment
    return COMMENT.get(path.suffix)


def main():
    files = subprocess.run(["git", "ls-files"], capture_output=True, text=True,
                           check=True).stdout.split()
    for name in files:
        path = pathlib.Path(name)
        if "corpus" in path.parts:
            continue
        text = path.read_text(errors="surrogateescape") if path.is_file() else ""
        if TAG in text[:400]:
            continue
        if path.suffix == ".c":
            line = f"/* {TAG} */\n"
        else:
            mark = comment_for(path)
            if mark is None:
                continue
            line = f"{mark} {TAG}\n"
        if text.startswith("#!"):
            first, _, rest = text.partition("\n")
            text = f"{first}\n{line}{rest}"
        else:
            text = line + text
        path.write_text(text, errors="surrogateescape")


if __name__ == "__main__":
    main()
