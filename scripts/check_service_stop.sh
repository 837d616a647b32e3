#!/usr/bin/env bash
# Starts the service binary given as $1, waits until it catches SIGTERM, sends SIGTERM and
# expects it to exit with status 0.
set -u
"$1" &
pid=$!
caught=0
for _ in $(seq 400); do
    mask=$(awk '/^SigCgt:/ {print $2}' "/proc/$pid/status" 2>/dev/null)
    [ -n "$mask" ] && (( (0x$mask >> 14) & 1 )) && { caught=1; break; }  # bit 14: SIGTERM
    sleep 0.05
done
if [ "$caught" -eq 0 ]; then
    echo "the service never caught SIGTERM"
    kill -KILL "$pid" 2>/dev/null
    exit 1
fi
sleep 0.5  # let it get as far as joining the pool
kill -TERM "$pid"
wait "$pid"
status=$?
[ "$status" -eq 0 ] || { echo "service exited with status $status on SIGTERM"; exit 1; }
