#!/usr/bin/env bash
# agent.sh, inside the sandbox: the example agent on a simulated board, with simulated services and
# one link, while a route appears, the services tell something and the cable is pulled. Ends with
# the agent's status.
set -euo pipefail
build=build/release
board=/tmp/board

show_rules() {
    echo "== rules and routes $1"
    for family in -4 -6; do
        ip "$family" rule | sed "s/^/ip $family rule: /"
    done
    echo "table 100: $(ip route show table 100 2>/dev/null)"
}

"$build/board" create "$board" B1904
export RTC_BOARD_NAME=B1904
RTC_BOARD=$board LD_PRELOAD=$PWD/$build/librtcBoard.so "$build/bypass_cmd" -b 1
ip link add wan0 type veth peer name far0
ip link set wan0 up
ip link set far0 up

coproc services { exec "$build/services"; }
services_pid=$!
exec {told}<&"${services[0]}" {tell}>&"${services[1]}" # the coprocess's own are no child's
read -r line <&"$told" # it listens
echo "$line"
cat <&"$told" &
services_output=$!

echo "== board before"
"$build/board" show "$board"
show_rules before

echo "== agent wan0"
RTC_BOARD=$board LD_PRELOAD=$PWD/$build/librtcBoard.so "$build/agent" wan0 &
agent=$!
for ((try = 0; try < 100; try++)); do # until it runs, or has ended
    if ip rule | grep -q "lookup 100" || ! kill -0 "$agent" 2>/dev/null; then
        break
    fi
    sleep 0.05
done
sleep 0.3
show_rules "while it runs"
echo "== somebody adds a route"
ip route add 203.0.113.0/24 dev wan0
sleep 0.3
echo "== the services tell something"
echo "down lan1" >&"$tell"
echo "reachable 7" >&"$tell"
sleep 0.3
echo "== the cable of wan0 is pulled"
ip link set far0 down
sleep 1.2 # the kernel takes up to a second
echo "== SIGTERM"
kill -TERM "$agent" 2>/dev/null || true
status=0
wait "$agent" || status=$?
sleep 0.3
kill "$services_pid"
wait "$services_output"

show_rules after
echo "== board after"
"$build/board" show "$board"
echo "== log"
cat /tmp/agent.log
echo "== status $status"
exit "$status"
