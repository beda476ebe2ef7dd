"""Compares the instructions of the functions c_NAME and typed_NAME of an object file: compare.py OBJDUMP OBJECT

Registers, jump targets and addresses on the stack may differ, so a lea counts as a mov. Operations and called functions
may not, except in the order of independent ones. Prints the number of instructions of each pair."""
import collections
import re
import subprocess
import sys


def functions(objdump, path):
    text = subprocess.run([objdump, "-dr", "--no-show-raw-insn", "-C", path], check=True, capture_output=True, text=True)
    found = {}
    for part in text.stdout.split("\n\n"):
        head = re.match(r"\w+ <((?:c|typed)_\w+)>:\n", part)
        if not head:
            continue
        code = found[head[1]] = []
        for line in part.splitlines()[1:]:
            called = re.search(r"R_X86_64_PL\w+\s+(\w+)", line)
            operation = re.match(r"\s+[0-9a-f]+:\s+(?:notrack |cs )?(\w+)", line)
            if called:
                code.append("-> " + called[1])
            elif operation and "R_X86_64" not in line and not operation[1].startswith(("nop", "data16", "xchg")):
                code.append(operation[1].replace("lea", "mov"))
    return found


def main():
    found = functions(*sys.argv[1:])
    names = [name[2:] for name in found if name.startswith("c_")]
    if not names or sorted(found) != sorted(f"{side}_{name}" for side in ("c", "typed") for name in names):
        sys.exit(f"{sys.argv[2]}: no pairs, or functions without a pair: {sorted(found)}")
    failed = False
    for name in names:
        hand, typed = found["c_" + name], found["typed_" + name]
        calls = [[entry for entry in code if entry.startswith("->")] for code in (hand, typed)]
        is_same = collections.Counter(hand) == collections.Counter(typed)
        failed |= calls[0] != calls[1] or not is_same
        print(f"{name:<12} {len(hand) - len(calls[0]):>3} {len(typed) - len(calls[1]):>3}"
              + ("" if is_same else f"  c: {' '.join(hand)}\n{'':22}typed: {' '.join(typed)}"))
    return failed


sys.exit(main())
