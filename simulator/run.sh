#!/usr/bin/env bash
# run.sh [ARGUMENT...], inside the sandbox: bypass_cmd on the simulated board of /run/machine, with
# the board before and after and the log between. Ends with the tool's status.
board=/run/machine/board
conf=/run/machine/feeddog.conf # of the runs before
show=build/release/board

[ ! -e "$conf" ] || cp "$conf" /etc/feeddog.conf
"$show" clear-trace "$board"
echo "== board before"
"$show" show "$board"

echo "== bypass_cmd $*"
RTC_BOARD=$board LD_PRELOAD=$PWD/build/release/librtcBoard.so build/release/bypass_cmd "$@"
status=$?

if [ -e /tmp/feeddog.log ]; then
    echo "== log"
    cat /tmp/feeddog.log
fi
if [ -e /etc/feeddog.conf ]; then
    echo "== /etc/feeddog.conf: $(cat /etc/feeddog.conf)"
    cp /etc/feeddog.conf "$conf"
fi
[ ! -e /run/services ] || echo "== services: $(cat /run/services)"
if [ -n "$RTC_TRACE" ]; then
    echo "== port accesses"
    "$show" trace "$board" --accesses
fi
echo "== board after"
"$show" show "$board"
echo "== status $status"
exit "$status"
