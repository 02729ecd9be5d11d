#!/usr/bin/env bash
# sandbox.sh CHECKOUT MACHINE COMMAND [ARGUMENT...]
#
# Runs COMMAND in private mount, network and process namespaces (and a user namespace when not
# root), on copies of every place that the library writes: /etc, /tmp, /run, /var/log. The copies
# live in memory and are gone when the command ends, as is every process that it leaves; the folder
# MACHINE, unless it is "-", is /run/machine meanwhile and keeps what the command puts there. The
# checkout, which must not lie below /run, is visible at /run/checkout, also when it lies below
# another place that is covered; COMMAND is a path below it, relative to it. RTC_SANDBOX=1 tells the
# command where it is. /sys shows the links of the private network. Whatever ends this script ends
# all of it.
#
# Commands that the library runs are found in /run/commands first (empty; the command may fill
# it), then among the simulated ones beside this script. /bin/sh is bash, as on the appliance, and
# /bin and /sbin may be written: what is put there is gone with the rest.
set -euo pipefail

checkout=$(realpath "$1")
machine=$2
shift 2

cannot() {
    echo "sandbox: $*" >&2
    exit 77 # what CTest counts as skipped
}

if [ -z "${RTC_SANDBOX_ENTERED:-}" ]; then
    namespaces=(--mount --net --pid --fork --kill-child --mount-proc --propagation private)
    [ "$(id -u)" -eq 0 ] || namespaces+=(--user --map-root-user)
    if ! unshare "${namespaces[@]}" true 2>/dev/null; then
        cannot "no private namespaces here: it needs root or user namespaces, and does not work" \
            "in a plain chroot"
    fi
    # unshare itself lets no signal end it but the one that comes when this shell is gone.
    status=0
    RTC_SANDBOX_ENTERED=1 setpriv --pdeathsig KILL unshare "${namespaces[@]}" \
        "$0" "$checkout" "$machine" "$@" || status=$?
    exit "$status"
fi
[ $$ -eq 1 ] || cannot "RTC_SANDBOX_ENTERED is set outside"
unset RTC_SANDBOX_ENTERED

if [ "$machine" != - ]; then
    mkdir -p "$machine"
    machine=$(realpath "$machine")
fi
mount -t tmpfs tmpfs /run
mkdir /run/checkout /run/machine /run/commands
mount --rbind "$checkout" /run/checkout
[ "$machine" = - ] || mount --bind "$machine" /run/machine
[ /var/run -ef /run ] || mount --bind /run /var/run

for place in /etc /tmp /var/log; do
    copy=/run/copies$place
    mkdir -p "$copy"
    # What a non-root user may not read stays out of the copy.
    [ "$place" != /etc ] || cp -a /etc/. "$copy" 2>/dev/null || true
    mount --bind "$copy" "$place"
done
chmod 1777 /tmp
mount -t sysfs sysfs /sys || cannot "no /sys of its own"
for place in /bin /sbin; do
    copy=/run/copies$place
    mkdir "$copy" "$copy.work"
    mount -t overlay overlay -o "lowerdir=$place,upperdir=$copy,workdir=$copy.work" "$place" ||
        cannot "nothing may lie over $place (an older kernel?)"
done
ln -sf bash /bin/sh
ip link set lo up 2>/dev/null || true

cd /run/checkout
export RTC_SANDBOX=1
export PATH=/run/commands:/run/checkout/simulator/commands:$PATH
command=$1
shift
"./$command" "$@" # not as the first process of its namespace, which signals do not end
