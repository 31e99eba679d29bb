#!/usr/bin/env python3
# check_docs.py HALVEX COMMAND_MD OUTPUT_CPP: the options table of the
# command's page against `halvex --help` both ways, and its status table
# against the names that the command prints.  A parser that finds nothing on
# one side fails on the rows of the other.
import re
import subprocess
import sys

halvex, page, output_cpp = sys.argv[1:4]
text = subprocess.run([halvex, "--help"], capture_output=True, text=True, check=True).stdout
given, name = {}, None  # option -> [argument, its whole help text]
for line in text.split("options of solve:\n", 1)[1].split("\n\n", 1)[0].splitlines():
    m = re.match(r"  (--[a-z-]+)(?: (\S+))?\s{2,}(.*)", line)
    if m:
        name = m.group(1)
        given[name] = [m.group(2) or "", m.group(3)]
    else:
        given[name][1] += " " + line.strip()

documented, statuses = {}, set()
for line in open(page, encoding="utf-8"):
    cells = [c.strip() for c in re.split(r"(?<!\\)\|", line.strip())[1:-1]]
    m = re.fullmatch(r"`(--[a-z-]+)(?: ([^`]+))?`", cells[0]) if len(cells) > 1 else None
    if m:
        documented[m.group(1)] = ((m.group(2) or "").replace("\\|", "|"), cells[1])
    elif len(cells) > 1 and re.fullmatch(r"-?\d+", cells[0]) and cells[1].startswith("`"):
        statuses.add((int(cells[0]), cells[1].strip("`")))

errors = [f"{n} is in --help but not in {page}" for n in sorted(set(given) - set(documented))]
errors += [f"{n} is in {page} but not in --help" for n in sorted(set(documented) - set(given))]
for n in sorted(set(given) & set(documented)):
    (arg, block), (doc_arg, default) = given[n], documented[n]
    if arg != doc_arg:
        errors.append(f"{n}: --help has argument '{arg}', {page} '{doc_arg}'")
    # "none..." and "flag..." say that --help states no default to compare.
    if not re.match(r"(none|flag)\b", default) and "(" + default not in block:
        errors.append(f"{n}: default '{default}' is not what --help says: {block}")

source = open(output_cpp, encoding="utf-8").read().split("const char* statusName(", 1)[1]
printed = {(int(c), s) for c, s in re.findall(r'case (-?\d+): return "([^"]+)";',
                                              source.split("\n}\n", 1)[0])}
errors += [f"status {c} '{s}' is printed but not in {page}" for c, s in sorted(printed - statuses)]
errors += [f"status {c} '{s}' is in {page} but not printed" for c, s in sorted(statuses - printed)]
sys.exit("\n".join(errors) if errors else 0)
