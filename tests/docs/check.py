#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the documentation against the tree.

check.py            lists, excerpts and links
check.py console    runs the console blocks of docs/guide.md in the current folder, against what the environment leads to
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
faults = []


def read(path):
    return (ROOT / path).read_text()


def blocks(text, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.M | re.S)


def check_errors():
    """docs/errors.md has the codes of the headers, each with its number, and no other."""
    listed = re.findall(r"^\| `(KRV_\w+)` \| (\d+) \|", read("docs/errors.md"), re.M)
    headers = read("include/libkorva/handle.h") + read("include/libkorva-elf.h")
    declared = re.findall(r"^    (KRV_(?:ELF_)?ERR_\w+) = (\d+)", headers, re.M)
    if sorted(listed) != sorted(declared) or not declared:
        faults.append(f"docs/errors.md differs from the headers: {sorted(set(listed) ^ set(declared))}")


def check_excerpts():
    """What the guide shows as code is in the examples, line for line."""
    sources = [path.read_text() for path in (ROOT / "examples").glob("*.c*")]
    excerpts = blocks(read("docs/guide.md"), "c") + blocks(read("docs/guide.md"), "cpp")
    if not excerpts:
        faults.append("docs/guide.md shows no code")
    for excerpt in excerpts:
        if not any(excerpt in source for source in sources):
            faults.append(f"docs/guide.md shows code that no example has:\n{excerpt}")


def check_modules():
    """The picture of the modules shows every one, and none that is gone."""
    shown = set(re.findall(r"\w+", blocks(read("docs/inside.md"), "text")[0]))
    there = {path.stem for folder in ("common", "loader/elf", "loader/process", "x86") for path in (ROOT / folder).glob("*.cpp")}
    there |= {path.stem for path in (ROOT / "tools/korva").glob("cmd_*.cpp")}
    headers = {path.stem for path in (ROOT / "common").glob("*.h")}
    gone = {name for name in shown if name.startswith(("krv_", "cmd_", "pass_"))} - there - headers
    for name in sorted(there - shown):
        faults.append(f"docs/inside.md does not show {name}")
    for name in sorted(gone):
        faults.append(f"docs/inside.md shows {name}, which does not exist")


def check_names():
    """Functions, files and links that the documents name exist."""
    headers = "".join(path.read_text() for path in (ROOT / "include").rglob("*.h*"))
    for path in [*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md")]:
        text = path.read_text()
        for name in set(re.findall(r"`(korva_\w+|KRV_[A-Z_0-9]+)`", text)):
            wanted = name[:-1] if name.endswith("_") else name
            if wanted not in headers:
                faults.append(f"{path.name} names {name}, which no header has")
        for link in re.findall(r"\]\(([\w./-]+)\)", text):
            if not (path.parent / link).exists():
                faults.append(f"{path.name} links to {link}, which does not exist")
    for name in set(re.findall(r"`((?:common|tests|scripts|docs|tools|include)/[\w./-]+)`", read("CONTRIBUTING.md"))):
        if "NAME" not in name and not (ROOT / name).exists():
            faults.append(f"CONTRIBUTING.md names {name}, which does not exist")


def run_console():
    """Each line after "$ " is run; the lines after it are what it prints, where ... stands for anything."""
    for block in blocks(read("docs/guide.md"), "console"):
        for step in re.split(r"^\$ ", block, flags=re.M)[1:]:
            command, _, expected = step.partition("\n")
            done = subprocess.run(["bash", "-c", command], capture_output=True, text=True, check=False)
            pattern = "".join(".*" if part == "..." else re.escape(part) for part in re.split(r"(\.\.\.)", expected))
            if done.returncode != 0 or not re.fullmatch(pattern, done.stdout, re.S):
                faults.append(f"docs/guide.md: {command}\nexpected:\n{expected}\ngot:\n{done.stdout}{done.stderr}")


if sys.argv[1:] == ["console"]:
    run_console()
else:
    check_errors()
    check_excerpts()
    check_modules()
    check_names()
print("\n".join(faults), file=sys.stderr, end="\n" if faults else "")
sys.exit(1 if faults else 0)
