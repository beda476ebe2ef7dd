#!/usr/bin/env python3
"""Carries out the steps of a document in the current folder: writes the files that it shows (```c NAME), runs its commands
(```sh), and compares their output with the text that follows them (```text).

  document_steps.py DOCUMENT [OLD=NEW ...]     OLD is replaced in the commands, for an installation in another place
"""
import pathlib
import re
import subprocess
import sys


def run(commands, expected):
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", commands], stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit(f"exit status {done.returncode} of\n{commands}{done.stdout}")
    if expected is not None and done.stdout != expected:
        sys.exit(f"printed\n{done.stdout}instead of\n{expected}by\n{commands}")


def main():
    text = pathlib.Path(sys.argv[1]).read_text()
    blocks = re.findall(r"^```(\w+)(?: (\S+))?\n(.*?)^```$(?:\n\n^```text\n(.*?)^```$)?", text, re.MULTILINE | re.DOTALL)
    n_commands = 0
    for language, name, content, expected in blocks:
        for replacement in sys.argv[2:]:
            content = content.replace(*replacement.split("=", 1))
        if language == "sh" and name == "":
            run(content, expected or None)
            n_commands += 1
        elif language != "sh" and name:
            pathlib.Path(name).write_text(content)
    if n_commands == 0:
        sys.exit(f"{sys.argv[1]}: no commands")


main()
