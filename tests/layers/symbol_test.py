#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Nothing climbs past the includes either: a function that a header declares below is not defined above. Looks at the
objects of a build: symbol_test.py BUILD_FOLDER NM. Kernel routines, which all may call by their names, are not looked
at; nor is what the linker may find in several objects."""
import os
import re
import subprocess
import sys

from include_test import HERE, folder_of, read_floors

DEFINED, WANTED = "TDBR", "U"


def objects(build):
    """Paths of the build's objects, and of the sources that they come from."""
    for directory, _, names in os.walk(build):
        for name in names:
            if name.endswith(".cpp.o"):
                path = os.path.join(directory, name)
                yield path, re.sub(r"CMakeFiles/[^/]+\.dir/", "", os.path.relpath(path, build))[:-len(".o")]


def symbols(nm, found):
    """Of each source: names that it defines, names that it wants. C++ names only."""
    by_object = dict(found)
    listing = subprocess.run([nm, "-A", *by_object], capture_output=True, text=True, check=True).stdout
    defined, wanted = {}, {}
    for line in listing.splitlines():
        path, rest = line.split(":", 1)
        *_, kind, name = rest.split()
        if name.startswith("_Z") and kind in DEFINED + WANTED:
            (wanted if kind in WANTED else defined).setdefault(name, set()).add(by_object[path])
    return defined, wanted


def climbs(allowed, defined, wanted):
    found = []
    for name, users in wanted.items():
        above = {folder_of(source, allowed) for source in defined.get(name, ())}
        for user in users:
            folder = folder_of(user, allowed)
            if folder and above and None not in above and not above & allowed[folder]:
                found.append(f"{user} wants {name} of {sorted(defined[name])[0]}")
    return sorted(found)


def main(build, nm):
    with open(f"{HERE}/floors.txt") as file:
        allowed = read_floors(file.read())
    found = [pair for pair in objects(build) if folder_of(pair[1], allowed)]
    if len(found) < 100:
        return f"the build has no more than {len(found)} objects to look at"
    defined, wanted = symbols(nm, found)
    return "\n".join(climbs(allowed, defined, wanted)) or None


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
