#!/bin/sh
# Simulated transition script: keeps a copy of the files it was run for, one
# numbered folder per run, and exits with the code the harness asked for.
runs=/dorvsim/runs/fast_bss_transition.sh
mkdir -p "$runs"
n=$(ls "$runs" | wc -l)
while :; do
    n=$((n + 1))
    run="$runs/$(printf %05d "$n")"
    mkdir "$run" 2>/dev/null && break
done
for f in /tmp/ap2_macaddr.txt /tmp/ft_key_changed.txt /var/roam_key_holders; do
    [ -e "$f" ] && cp "$f" "$run/"
done
echo "$*" > "$run/args"
date +%s.%N > "$run/time"
exit "$(cat /dorvsim/ctl/fast_bss_transition.sh.rc 2>/dev/null || echo 0)"
