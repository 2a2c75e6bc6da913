#!/bin/bash
# A real SMTP server for the SMTP client tests: Exim's heavy daemon from
# Debian, run from a private config with its own spool and logs. Nothing
# under /etc is read or written, and the Debian service is never started.
#
#   exim.sh install
#       (root, Debian) apt-installs exim4-daemon-heavy with a policy-rc.d in
#       place that forbids the package to start its service. Idempotent.
#   exim.sh start <workdir> <port> <auth-socket> <mail-root> <owner> <boxes>
#       One daemon on 127.0.0.1, eight ports from <port> on, each with its own
#       AUTH list, all backed by the SASL server listening on <auth-socket>
#       (a Dovecot auth client socket):
#         port+0  CRAM-MD5 PLAIN LOGIN DIGEST-MD5
#         port+1  CRAM-MD5        port+2  PLAIN
#         port+3  LOGIN           port+4  DIGEST-MD5
#         port+5  no AUTH at all
#         port+6  greets with 554, port+7 with 421
#       Accepts the recipients <boxes>@kel.test (a list of local parts
#       separated by blanks), refuses any other with 550, and delivers each
#       into the maildir
#       <mail-root>/<local part>; it runs as the system user <owner>.
#       Waits until every port listens and prints the daemon's PID (the only
#       output on stdout). Logs: <workdir>/log/.
#   exim.sh stop <pid>
#       TERM (then KILL) that daemon and the processes it forked.
set -euo pipefail

say() { echo "exim.sh: $*" >&2; }
die() { say "$*"; exit 1; }

exim=/usr/sbin/exim4

cmd_install() {
    if [ "$(dpkg-query -W -f='${db:Status-Status}' exim4-daemon-heavy 2>/dev/null)" = installed ]; then
        return 0
    fi
    [ "$(id -u)" = 0 ] || die "install must run as root to apt-get install exim4-daemon-heavy"
    command -v apt-get >/dev/null || die "install needs Debian's apt-get"
    # The package would start its system service; a policy-rc.d that
    # answers 101 forbids that. An existing one is left as it is.
    local policy=/usr/sbin/policy-rc.d made=
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod 755 "$policy"
        made=1
    fi
    say "apt-get install exim4-daemon-heavy"
    apt-get update -q >&2
    local rc=0
    DEBIAN_FRONTEND=noninteractive apt-get -q install -y --no-install-recommends \
        exim4-daemon-heavy >&2 || rc=$?
    [ -z "$made" ] || rm -f "$policy"
    [ "$rc" = 0 ] || die "apt-get failed"
}

alive() {
    local line
    { read -r line <"/proc/$1/stat"; } 2>/dev/null || return 1
    line=${line##*) }
    [ "${line%% *}" != Z ]
}

listening() {
    local port
    printf -v port '%04X' "$1"
    awk -v p="$port" '$4 == "0A" && $2 ~ ("^0100007F:" p "$") { f = 1 } END { exit !f }' /proc/net/tcp
}

# The authenticator for mechanism $1, advertised on the ports $2...
authenticator() {
    local mech=$1 cond='' p
    shift
    for p in "$@"; do cond+="{eq{\$interface_port}{$p}}"; done
    cat <<EOF
${mech//-/_}:
  driver = dovecot
  public_name = $mech
  server_socket = $socket
  server_advertise_condition = \${if or{$cond}}
  server_set_id = \$auth1

EOF
}

write_config() {
    local p0=$port p1=$((port + 1)) p2=$((port + 2)) p3=$((port + 3)) p4=$((port + 4))
    cat <<EOF
# Written by exim.sh for one test run.
primary_hostname = kel.test
qualify_domain = kel.test
local_interfaces = <; 127.0.0.1
daemon_smtp_ports = $p0 : $p1 : $p2 : $p3 : $p4 : $((port + 5)) : $((port + 6)) : $((port + 7))
exim_user = $owner
exim_group = $(id -gn "$owner")
never_users = root
spool_directory = $wd/spool
log_file_path = $wd/log/%slog
pid_file_path = $wd/exim.pid
keep_environment =
host_lookup =
rfc1413_hosts =
tls_advertise_hosts =
auth_advertise_hosts = *
message_size_limit = 64M
smtp_accept_max = 50
acl_smtp_connect = connect
acl_smtp_rcpt = rcpt

begin acl
connect:
  deny    condition = \${if eq{\$interface_port}{$((port + 6))}}
  defer   condition = \${if eq{\$interface_port}{$((port + 7))}}
  accept

rcpt:
  accept  domains = kel.test
          local_parts = $boxes
  deny    message = recipient refused

begin routers
mailbox:
  driver = accept
  domains = kel.test
  local_parts = $boxes
  transport = maildir

begin transports
maildir:
  driver = appendfile
  directory = $mailroot/\${local_part_data}
  maildir_format
  create_directory
  user = $owner
  group = $(id -gn "$owner")
  mode = 0600
  directory_mode = 0700

begin authenticators
$(authenticator CRAM-MD5 "$p0" "$p1")
$(authenticator PLAIN "$p0" "$p2")
$(authenticator LOGIN "$p0" "$p3")
$(authenticator DIGEST-MD5 "$p0" "$p4")
EOF
}

cmd_start() {
    [ $# -eq 6 ] || die "usage: exim.sh start <workdir> <port> <auth-socket> <mail-root> <owner> <boxes>"
    wd=$1 port=$2 socket=$3 mailroot=$4 owner=$5 boxes=${6// / : }
    [[ $port =~ ^[0-9]+$ ]] && [ "$port" -ge 1 ] && [ "$port" -le 65530 ] || die "bad port '$port'"
    [ "$(id -u)" = 0 ] || die "the daemon must be started as root"
    [ -x "$exim" ] || die "$exim missing; run: $0 install"
    "$exim" -bV 2>/dev/null | grep -q ' dovecot' || die "$exim has no dovecot authenticator (heavy daemon needed)"
    id "$owner" >/dev/null 2>&1 || die "no system user '$owner'"
    local i
    for ((i = 0; i < 8; i++)); do
        ! listening $((port + i)) || die "port $((port + i)) is already in use"
    done
    mkdir -p "$wd/spool" "$wd/log" "$mailroot"
    wd=$(cd "$wd" && pwd) mailroot=$(cd "$mailroot" && pwd)
    chmod 755 "$wd"
    # Exim gives up root for a private config when it re-executes itself
    # to deliver, so it runs as the owner of the mail from the start.
    chown "$owner:" "$wd/spool" "$wd/log" "$mailroot"
    # Exim runs a config only if root owns it and no one else may write it.
    write_config >"$wd/exim.conf"
    chown root: "$wd/exim.conf"
    chmod 644 "$wd/exim.conf"
    "$exim" -C "$wd/exim.conf" -bV >/dev/null 2>"$wd/log/check.out" ||
        die "config rejected: $(cat "$wd/log/check.out")"

    "$exim" -C "$wd/exim.conf" -bdf </dev/null >>"$wd/log/daemon.out" 2>&1 &
    local pid=$! up
    for ((i = 0; i < 200; i++)); do
        alive "$pid" || break
        up=1
        for ((p = 0; p < 8; p++)); do listening $((port + p)) || up=; done
        if [ -n "$up" ]; then
            echo "$pid"
            return 0
        fi
        sleep 0.05
    done
    say "exim did not come up"
    tail -n 20 "$wd"/log/* >&2 || true
    kill_tree "$pid"
    exit 1
}

descendants() {
    local -A parent=()
    local f line p pp
    for f in /proc/[0-9]*/stat; do
        { read -r line <"$f"; } 2>/dev/null || continue
        p=${line%% *} line=${line##*) } line=${line#* }
        parent[$p]=${line%% *}
    done
    for p in "${!parent[@]}"; do
        pp=${parent[$p]}
        while [ -n "$pp" ] && [ "$pp" != 0 ]; do
            [ "$pp" != "$1" ] || { echo "$p"; break; }
            pp=${parent[$pp]:-}
        done
    done
}

kill_tree() {
    local pid=$1 i p left
    local -a pids=("$pid")
    mapfile -t -O 1 pids < <(descendants "$pid")
    kill -TERM "${pids[@]}" 2>/dev/null || true
    for ((i = 0; i < 40; i++)); do
        left=
        for p in "${pids[@]}"; do alive "$p" && left=1; done
        [ -n "$left" ] || return 0
        sleep 0.05
    done
    kill -KILL "${pids[@]}" 2>/dev/null || true
}

cmd_stop() {
    [ $# -eq 1 ] && [[ $1 =~ ^[0-9]+$ ]] || die "usage: exim.sh stop <pid>"
    alive "$1" || return 0
    tr '\0' ' ' <"/proc/$1/cmdline" | grep -q 'exim4 -C .* -bdf' ||
        die "pid $1 is not a daemon started by exim.sh"
    kill_tree "$1"
}

case ${1:-} in
install) shift; cmd_install "$@" ;;
start) shift; cmd_start "$@" ;;
stop) shift; cmd_stop "$@" ;;
*) die "usage: exim.sh install | start <workdir> <port> <auth-socket> <mail-root> <owner> | stop <pid>" ;;
esac
