#!/bin/bash
# Simulated transition script: keeps a copy of the files it was run for, one
# numbered folder per run, and exits with the code the harness asked for
# (or hangs while /dorvsim/ctl/fast_bss_transition.sh.hang exists).
# Shell built-ins wherever they do (two programs a run: mkdir and cp), as
# the daemon waits for it, and a deployment runs it thousands of times.
runs=/dorvsim/runs/fast_bss_transition.sh
[ -d "$runs" ] || mkdir -p "$runs"
n=0
read -r n 2>/dev/null < "$runs.count"
while :; do
    n=$((n + 1))
    printf -v run '%s/%05d' "$runs" "$n"
    mkdir "$run" 2>/dev/null && break
done
echo "$n" > "$runs.count"
files=()
for f in /tmp/ap2_macaddr.txt /tmp/ft_key_changed.txt /var/roam_key_holders; do
    [ -e "$f" ] && files+=("$f")
done
[ ${#files[@]} -eq 0 ] || cp "${files[@]}" "$run/"
echo "$*" > "$run/args"
echo "${EPOCHREALTIME/,/.}" > "$run/time"
while [ -e /dorvsim/ctl/fast_bss_transition.sh.hang ]; do sleep 0.05; done
rc=0
read -r rc 2>/dev/null < /dorvsim/ctl/fast_bss_transition.sh.rc
exit "${rc:-0}"
