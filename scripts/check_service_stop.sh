#!/usr/bin/env bash
# Starts the service binary given as the arguments (a cross build's come with the emulator that
# runs them first), waits until it has registered ICapture/default and catches SIGTERM, sends
# SIGTERM and expects it to exit with status 0.
set -u
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"$@" > "$log" 2>&1 &
pid=$!
ready=0
for _ in $(seq 400); do
    # Under qemu-user the emulator catches every signal itself, so the mask alone is not enough:
    # the service's own "registered" line comes after its handler is in place.
    mask=$(awk '/^SigCgt:/ {print $2}' "/proc/$pid/status" 2>/dev/null)
    if [ -n "$mask" ] && (( (0x$mask >> 14) & 1 )) &&  # bit 14: SIGTERM
        grep -q "ICapture/default registered" "$log"; then
        ready=1
        break
    fi
    sleep 0.05
done
if [ "$ready" -eq 0 ]; then
    echo "the service never registered or never caught SIGTERM"
    cat "$log"
    kill -KILL "$pid" 2>/dev/null
    exit 1
fi
sleep 0.5  # let it get as far as joining the pool
kill -TERM "$pid"
wait "$pid"
status=$?
cat "$log"
[ "$status" -eq 0 ] || { echo "service exited with status $status on SIGTERM"; exit 1; }
