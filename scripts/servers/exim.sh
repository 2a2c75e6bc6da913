#!/bin/bash
# Exim's heavy daemon from Debian for the SMTP client tests, run by hand from
# a private config with its own spool and logs: nothing under /etc is read or
# written, and the packaged service is never started.
#
#   exim.sh install
#       (root, Debian) apt-installs exim4-daemon-heavy, with a policy-rc.d in
#       place that forbids the package to start its service. Idempotent.
#   exim.sh with <command> [args...]
#       Run inside `dovecot.sh with`: adds the mailboxes to, cc and bcc to that
#       Dovecot, and starts Exim on 127.0.0.1 with Dovecot's auth socket as its
#       SASL provider, eight ports from ${KEL_SMTP_PORT:-2525} on:
#         +0 AUTH CRAM-MD5 PLAIN LOGIN DIGEST-MD5   +1 CRAM-MD5   +2 PLAIN
#         +3 LOGIN   +4 DIGEST-MD5   +5 no AUTH   +6 greets 550   +7 greets 451
#       It takes the recipients kel, to, cc and bcc @kel.test (others: 550)
#       and delivers into Dovecot's maildirs. Exports KEL_SMTP_HOST and
#       KEL_SMTP_PORT, runs the command, stops Exim and exits with the
#       command's status (77 when Exim is not installed).
set -euo pipefail
say() { echo "exim.sh: $*" >&2; }

install() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' exim4-daemon-heavy 2>/dev/null)" = installed ] && return 0
    [ "$(id -u)" = 0 ] || { say "not root: cannot install exim4-daemon-heavy"; return 1; }
    local policy=/usr/sbin/policy-rc.d made=
    if [ ! -e $policy ]; then printf '#!/bin/sh\nexit 101\n' >$policy; chmod +x $policy; made=1; fi
    apt-get update -q >&2
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends exim4-daemon-heavy >&2
    [ -z "$made" ] || rm -f $policy
}

# The authenticator for mechanism $1, offered on the ports $2...
authenticator() {
    local mech=$1 cond='' p
    shift
    for p in "$@"; do cond+="{eq{\$interface_port}{$((port + p))}}"; done
    printf '%s:\n  driver = dovecot\n  public_name = %s\n  server_socket = %s\n' \
        "${mech//-/_}" "$mech" "$dir/auth-client"
    printf '  server_advertise_condition = ${if or{%s}}\n  server_set_id = $auth1\n' "$cond"
}

config() {
    cat <<EOF
primary_hostname = kel.test
local_interfaces = <; 127.0.0.1
daemon_smtp_ports = $(seq -s ' : ' "$port" $((port + 7)))
# Exim gives up root for a private config when it re-executes itself to
# deliver, so it runs as the owner of the mail from the start.
exim_user = $account
exim_group = $account
spool_directory = $dir/exim
log_file_path = $dir/exim/%slog
keep_environment =
host_lookup =
tls_advertise_hosts =
acl_smtp_connect = connect
acl_smtp_rcpt = rcpt
begin acl
connect:
  deny  condition = \${if eq{\$interface_port}{$((port + 6))}}
  defer condition = \${if eq{\$interface_port}{$((port + 7))}}
  accept
rcpt:
  accept domains = kel.test
         local_parts = kel : to : cc : bcc
  deny   message = recipient refused
begin routers
mailbox:
  driver = accept
  domains = kel.test
  local_parts = kel : to : cc : bcc
  transport = maildir
begin transports
maildir:
  driver = appendfile
  directory = $dir/mail/\${local_part_data}
  maildir_format
  create_directory
  user = $account
begin authenticators
$(authenticator CRAM-MD5 0 1)
$(authenticator PLAIN 0 2)
$(authenticator LOGIN 0 3)
$(authenticator DIGEST-MD5 0 4)
EOF
}

with() {
    [ -n "${KEL_POP3_MAILDIR:-}" ] || { say "run it inside dovecot.sh with"; exit 2; }
    [ -x /usr/sbin/exim4 ] || { say "skipped: exim4 is not installed"; exit 77; }
    account=daemon dir=$(dirname "$(dirname "$KEL_POP3_MAILDIR")") port=${KEL_SMTP_PORT:-2525}
    export KEL_SMTP_HOST=127.0.0.1 KEL_SMTP_PORT=$port
    for box in to cc bcc; do echo "$box:{PLAIN}$KEL_POP3_PASS" >>"$dir/passwd"; done
    mkdir -p "$dir/exim"
    chown $account: "$dir/exim"
    # Exim runs a config only if root owns it and no one else may write it.
    config >"$dir/exim.conf"
    chmod 644 "$dir/exim.conf"
    /usr/sbin/exim4 -C "$dir/exim.conf" -bdf </dev/null >"$dir/exim/daemon.out" 2>&1 &
    pid=$! rc=0
    trap 'kill $pid; wait $pid' EXIT
    for i in $(seq 100); do
        # In braces: a bare exec would keep 2>/dev/null for the command too.
        { exec 3<>"/dev/tcp/127.0.0.1/$((port + 7))"; } 2>/dev/null && break
        kill -0 $pid 2>/dev/null || { say "exim exited: $(cat "$dir/exim/"*log "$dir/exim/daemon.out")"; exit 1; }
        sleep 0.05
    done
    exec 3<&-
    "$@" || rc=$?
    exit $rc
}

case ${1:-} in
    install) install ;;
    with) shift; with "$@" ;;
    *) say "usage: exim.sh install | with <command> [args...]"; exit 2 ;;
esac
