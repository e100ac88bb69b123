#!/bin/sh
# SPDX-License-Identifier: MIT
# A seed is the same run every time, with the linked driver and with qrndisk.sys.
# usage: same_events.sh QRN-CAMPAIGN QRNDISK.SYS
set -eu

events()
{
    "$campaign" --seeds 8 --jobs 1 --seed-log --plain-atomics --driver "$1" | grep '^events: '
}

campaign=$1
first=$(events builtin)
[ "$(printf '%s\n' "$first" | wc -l)" -eq 8 ]
[ "$first" = "$(events builtin)" ] || { echo "a seed ran differently the second time"; exit 1; }
[ "$first" = "$(events "$2")" ] || { echo "a seed ran differently with $2"; exit 1; }
