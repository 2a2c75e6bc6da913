#!/bin/bash
# Debian's nmbd, the NetBIOS name server, for the SMB client's name service tests.
#   nmbd.sh install
#       (root, Debian) installs samba, which brings nmbd and nmblookup, without
#       letting the package start its services. Idempotent.
#   nmbd.sh start <workdir> <netns> <address> <name>
#       Writes <workdir>/nmbd.conf (NetBIOS name <name>, bound to <address>/24
#       only, every folder inside <workdir>), starts nmbd in the network
#       namespace <netns>, waits until its names are registered (it answers a
#       broadcast query for <name>) and prints its PID. Log: <workdir>/nmbd.log.
#   nmbd.sh stop <pid>
set -euo pipefail
say() { echo "nmbd.sh: $*" >&2; }
daemons() { ps -eo pid=,comm= | awk '$2 ~ /^(nmbd|smbd|samba|winbindd)$/ { print $1 }'; }
is_nmbd() { [ "$(cat "/proc/$1/comm" 2>/dev/null)" = nmbd ]; }

case ${1:-} in
install)
    dpkg-query -W -f='${Status}' samba 2>/dev/null | grep -q 'ok installed' && exit 0
    [ "$(id -u)" = 0 ] || { say "samba is missing; run as root to install it"; exit 1; }
    before=$(daemons) policy=/usr/sbin/policy-rc.d # forbids the package's service starts
    if [ ! -e $policy ]; then
        printf '#!/bin/sh\nexit 101\n' >$policy && chmod 755 $policy && trap 'rm -f $policy' EXIT
    fi
    say "apt-get install samba"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends samba >/dev/null
    for pid in $(daemons); do
        grep -qx "$pid" <<<"$before" || { say "stopping pid $pid, started by the install"; kill "$pid"; }
    done ;;
start)
    wd=$2 ns=$3 addr=$4 name=$5
    mkdir -p "$wd/nmbd"
    cat >"$wd/nmbd.conf" <<EOF
[global]
netbios name = $name
interfaces = $addr/24
bind interfaces only = yes
local master = no
lock directory = $wd/nmbd
state directory = $wd/nmbd
cache directory = $wd/nmbd
private dir = $wd/nmbd
pid directory = $wd/nmbd
log file = $wd/nmbd.log
EOF
    ip netns exec "$ns" nmbd -F --no-process-group -s "$wd/nmbd.conf" </dev/null >>"$wd/nmbd.log" 2>&1 &
    pid=$!
    for _ in $(seq 100); do # its names are registered about 4 s after its start
        kill -0 $pid 2>/dev/null || break
        if ip netns exec "$ns" nmblookup -s "$wd/nmbd.conf" -B "${addr%.*}.255" "$name" >/dev/null 2>&1; then
            echo $pid
            exit 0
        fi
        sleep 0.1
    done
    say "nmbd did not register $name:"
    tail -n 20 "$wd/nmbd.log" >&2
    "$0" stop $pid
    exit 1 ;;
stop)
    is_nmbd "$2" || exit 0
    kill "$2"
    for _ in $(seq 50); do is_nmbd "$2" || exit 0; sleep 0.1; done
    kill -KILL "$2" ;;
*) say "usage: nmbd.sh install | start <workdir> <netns> <address> <name> | stop <pid>"; exit 2 ;;
esac
