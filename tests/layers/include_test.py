#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Every #include looks down: floors.txt names the folders from the top to the bottom, a building each block of lines.
A file includes what is on its own folder's side or below it in the building, and nothing beside it or above. Where a
folder's own folders have a building of theirs, what is below it is below them, and who stands above it is above them."""
import os
import re
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
SOURCES = (".h", ".cpp")
# What looks at every side from outside.
OUTSIDE = {"bench", "fuzz", "platform", "tests"}
INCLUDE = re.compile(r'\s*#\s*include\s+"([^"]+)"')


def read_floors(text):
    """Of each folder: the folders that it may include, its own among them."""
    allowed, named = {}, set(text.split())
    for building in text.strip().split("\n\n"):
        floors = [line.split() for line in building.splitlines()]
        for number, folders in enumerate(floors):
            below = inside({folder for floor in floors[number + 1:] for folder in floor}, named)
            for folder in folders:
                for holder in inside({folder}, named) - set(building.split()) | {folder}:
                    allowed.setdefault(holder, {holder}).update(below)
    return allowed


def inside(folders, named):
    """The folders and all that are named inside them."""
    return {name for name in named for folder in folders if name == folder or name.startswith(folder + "/")}


def folder_of(path, folders):
    """The longest of the folders that holds the path, or None."""
    holding = [folder for folder in folders if path.startswith(folder + "/")]
    return max(holding, key=len, default=None)


def without_floor(root, allowed):
    """Folders of sources at the top that stand on no floor."""
    return sorted(top for top in os.listdir(root)
                  if top not in OUTSIDE and not top.startswith((".", "build")) and os.path.isdir(f"{root}/{top}")
                  and top not in {folder.split("/")[0] for folder in allowed}
                  and any(name.endswith(SOURCES) for _, _, names in os.walk(f"{root}/{top}") for name in names))


def climbs(root, allowed):
    """Lines that include what they may not, as FILE:LINE: text."""
    found = []
    roots = sorted({folder.split("/")[0] for folder in allowed})
    for path in sorted(os.path.join(directory, name) for top in roots
                       for directory, _, names in os.walk(os.path.join(root, top)) for name in names):
        if not path.endswith(SOURCES):
            continue
        file = os.path.relpath(path, root)
        folder = folder_of(file, allowed)
        if folder is None:
            found.append(f"{file}: stands on no floor")
            continue
        with open(path) as lines:
            for number, line in enumerate(lines, 1):
                match = INCLUDE.match(line)
                if match and folder_of(match[1], allowed) not in allowed[folder]:
                    found.append(f"{file}:{number}: {line.strip()}")
    return found


class Layers(unittest.TestCase):
    def test_every_include_looks_down(self):
        with open(f"{HERE}/floors.txt") as file:
            allowed = read_floors(file.read())
        self.assertEqual(climbs(ROOT, allowed), [])
        self.assertEqual(without_floor(ROOT, allowed), [])

    def test_the_manual_shows_the_order(self):
        with open(f"{HERE}/floors.txt") as floors, open(f"{ROOT}/docs/architecture.md") as manual:
            shown = "".join("    " + line if line.strip() else line for line in floors)
            self.assertIn(shown, manual.read())

    def test_a_climb_is_told_with_its_line(self):
        allowed = read_floors("top\nleft  right\nbottom\n")
        with tempfile.TemporaryDirectory() as root:
            def put(name, text):
                os.makedirs(os.path.dirname(f"{root}/{name}"), exist_ok=True)
                with open(f"{root}/{name}", "w") as file:
                    file.write(text)

            put("top/a.h", '#include "bottom/d.h"\n#include "left/b.h"\n#include <vector>\n')
            put("left/b.h", '#include "left/c.h"\n\n#include "right/c.h"\n')
            put("bottom/d.h", '  #include "top/a.h"\n#include "elsewhere.h"\n')
            self.assertEqual(climbs(root, allowed),
                             ['bottom/d.h:1: #include "top/a.h"', 'bottom/d.h:2: #include "elsewhere.h"',
                              'left/b.h:3: #include "right/c.h"'])
            put("new/room/e.cpp", "")
            self.assertEqual(without_floor(root, allowed), ["new"])

    def test_a_house_of_several_rooms_has_floors_of_its_own(self):
        allowed = read_floors("top\nhouse  beside\nbottom\n\nhouse\nhouse/left  house/right\nhouse/cellar\n")
        self.assertEqual(allowed["top"], {"top", "house", "house/left", "house/right", "house/cellar", "beside", "bottom"})
        self.assertEqual(allowed["house"], {"house", "house/left", "house/right", "house/cellar", "bottom"})
        self.assertEqual(allowed["house/left"], {"house/left", "house/cellar", "bottom"})
        self.assertEqual(allowed["house/cellar"], {"house/cellar", "bottom"})


if __name__ == "__main__":
    sys.exit(unittest.main())
