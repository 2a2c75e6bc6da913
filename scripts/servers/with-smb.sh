#!/bin/bash
# with-smb.sh <kind> <command> [args...]
# Runs <command> in a network namespace beside a real NetBIOS server, with
# KEL_SMB_KIND, KEL_SMB_ADDR (the server's address), KEL_SMB_NAME (its NetBIOS
# name) and KEL_SMB_SILENT (an address of its subnet that nobody answers)
# exported; for a file server also KEL_SMB_SHARE (the share's folder on this
# machine) and KEL_SMB_PASS (the share's password). Kinds:
#   nmbd      Debian's nmbd alone (scripts/servers/nmbd.sh), in a namespace of
#             its own, joined to the command's namespace by a veth pair
#   oldsamba  the old core-dialect server of our test machines, found at
#             ${KEL_OLDSAMBA:-../shared/oldsamba beside the repository}
# Exits with the command's status, or 77 (skip) where root or the server is
# missing.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
kind=$1
shift
skip() { echo "with-smb.sh: skipped: $*" >&2; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
export KEL_SMB_KIND=$kind

case $kind in
nmbd)
    command -v nmbd >/dev/null || skip "no nmbd; run scripts/servers/nmbd.sh install"
    ns=kel-smb-$$ wd=$(mktemp -d "${TMPDIR:-/tmp}/kel-nmbd.XXXXXX") pid=
    cleanup() {
        [ -z "$pid" ] || "$here/nmbd.sh" stop "$pid"
        ip netns del $ns-srv 2>/dev/null; ip netns del $ns 2>/dev/null; rm -rf "$wd"
    }
    trap cleanup EXIT
    ip netns add $ns && ip netns add $ns-srv
    ip -n $ns link add veth0 type veth peer name veth1 netns $ns-srv
    ip -n $ns addr add 10.138.0.2/24 dev veth0 && ip -n $ns-srv addr add 10.138.0.1/24 dev veth1
    ip -n $ns link set veth0 up && ip -n $ns-srv link set veth1 up
    ip -n $ns link set lo up && ip -n $ns-srv link set lo up
    ip -n $ns route add 255.255.255.255 dev veth0
    export KEL_SMB_ADDR=10.138.0.1 KEL_SMB_NAME=KELNMB KEL_SMB_SILENT=10.138.0.77
    pid=$("$here/nmbd.sh" start "$wd" $ns-srv $KEL_SMB_ADDR $KEL_SMB_NAME) ;;
oldsamba)
    fixture=${KEL_OLDSAMBA:-$here/../../../shared/oldsamba}
    [ -x "$fixture/restore.sh" ] || skip "no old core-dialect server at $fixture"
    run=/tmp/oldsamba # where its restore.sh unpacks it
    exec 9>"$run.kel-lock" # one run at a time: it has one namespace and one share
    flock 9
    cleanup() { "$run/stop.sh" --remove-netns >/dev/null; }
    trap cleanup EXIT
    out=$("$fixture/restore.sh" 2>&1) || { echo "$out" >&2; exit 1; }
    "$run/start.sh" netns >/dev/null
    ns=oldsamba
    export KEL_SMB_ADDR=10.137.0.1 KEL_SMB_NAME=OLDSAMBA KEL_SMB_SILENT=10.137.0.77
    export KEL_SMB_SHARE=$run/share KEL_SMB_PASS=SECRET
    for _ in $(seq 100); do # its names are registered about 4 s after its start
        ip netns exec $ns nmblookup -B 10.137.0.255 $KEL_SMB_NAME >/dev/null 2>&1 && break
        sleep 0.1
    done ;;
*) echo "usage: with-smb.sh nmbd|oldsamba <command> [args...]" >&2; exit 2 ;;
esac
# Should this script be killed outright (a test's time-out), a watcher that
# is no longer our descendant still stops the server.
watcher=$( (while kill -0 $$ 2>/dev/null; do sleep 1; done; cleanup) </dev/null >/dev/null 2>&1 &
    echo $!)
rc=0
ip netns exec $ns "$@" || rc=$?
kill "$watcher" 2>/dev/null || true
exit $rc
