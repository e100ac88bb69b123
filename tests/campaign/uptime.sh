#!/bin/sh
# SPDX-License-Identifier: MIT
# usage: uptime.sh CAMPAIGN. Workstations that stay on for a day, with QRN_LONG_TESTS for a month.
days=1 seeds=4
[ -z "${QRN_LONG_TESTS-}" ] || days=31 seeds=6
exec "$1" --uptime-days $days --seeds $seeds --seed-timeout 3600
