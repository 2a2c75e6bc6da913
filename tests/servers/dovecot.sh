#!/bin/bash
# Dovecot from Debian's packages for the mail client tests, run by hand from a
# config of our own (no systemd, no init script).
#
#   dovecot.sh install
#       (root, Debian) apt-installs dovecot-core and dovecot-pop3d. Idempotent.
#   dovecot.sh start <workdir> <pop3-port>
#       Writes <workdir>/dovecot.conf and serves POP3 on 127.0.0.1:<pop3-port>,
#       waits until it greets, prints its PID (the only output on stdout).
#       User kel, password kelpass (plaintext in <workdir>/passwd, so APOP
#       works and the greeting carries a time stamp). Mail: the maildir
#       <workdir>/mail/<user>/ (new/, cur/, tmp/), owned by the system account
#       "daemon", which the mail processes run as; a mail server may deliver
#       into it. Authentication penalty off. Logs: <workdir>/dovecot.log.
#       Auth client listener for a mail server's authenticators: the unix
#       socket <workdir>/auth-client, mechanisms plain login cram-md5
#       digest-md5 (and apop for POP3).
#   dovecot.sh stop <pid>
#       TERM (then KILL) that server and its children.
#   dovecot.sh with <command> [args...]
#       Runs command against a fresh server on port ${KEL_POP3_PORT:-110}
#       (meant for a private network namespace, see scripts/in-netns) with
#       KEL_POP3_HOST, KEL_POP3_PORT, KEL_POP3_USER, KEL_POP3_PASS and
#       KEL_POP3_MAILDIR exported; exits with its status, 77 if no server.
set -euo pipefail

account=daemon
say() { echo "dovecot.sh: $*" >&2; }

install() {
    local missing=() p
    for p in dovecot-core dovecot-pop3d; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null)" = installed ] || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    [ "$(id -u)" = 0 ] || { say "not root: cannot install ${missing[*]}"; return 1; }
    apt-get update -q >&2
    # policy-rc.d-less machines would start the packaged service: forbid it.
    local policy=/usr/sbin/policy-rc.d made=
    if [ ! -e $policy ]; then printf '#!/bin/sh\nexit 101\n' >$policy; chmod +x $policy; made=1; fi
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" >&2
    [ -z "$made" ] || rm -f $policy
}

start() {
    local dir=$1 port=$2 uid gid
    uid=$(id -u $account) gid=$(id -g $account)
    mkdir -p "$dir/run" "$dir/mail/kel"/{new,cur,tmp}
    chown -R $account: "$dir/mail"
    echo "kel:{PLAIN}kelpass" >"$dir/passwd"
    cat >"$dir/dovecot.conf" <<EOF
base_dir = $dir/run
state_dir = $dir/run
log_path = $dir/dovecot.log
protocols = pop3
listen = 127.0.0.1
ssl = no
disable_plaintext_auth = no
auth_mechanisms = plain login cram-md5 digest-md5 apop
auth_failure_delay = 0
first_valid_uid = $uid
mail_location = maildir:$dir/mail/%n
pop3_uidl_format = %f
passdb {
  driver = passwd-file
  args = scheme=PLAIN username_format=%n $dir/passwd
}
userdb {
  driver = static
  args = uid=$uid gid=$gid home=$dir/mail/%n
}
service pop3-login {
  inet_listener pop3 {
    address = 127.0.0.1
    port = $port
  }
}
service auth {
  unix_listener $dir/auth-client {
    mode = 0666
  }
}
EOF
    dovecot -c "$dir/dovecot.conf" || { say "dovecot failed to start: $(tail -5 "$dir/dovecot.log" 2>/dev/null)"; return 1; }
    local i
    for i in $(seq 100); do
        if [ -s "$dir/run/master.pid" ] && exec 3<>"/dev/tcp/127.0.0.1/$port" 2>/dev/null; then
            exec 3<&-
            cat "$dir/run/master.pid"
            return 0
        fi
        sleep 0.05
    done
    say "dovecot did not answer on port $port"
    return 1
}

stop() {
    local pid=$1 i
    kill -TERM "$pid" 2>/dev/null || return 0
    for i in $(seq 50); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
}

with() {
    command -v dovecot >/dev/null || { say "skipped: dovecot is not installed"; exit 77; }
    export KEL_POP3_HOST=127.0.0.1 KEL_POP3_PORT=${KEL_POP3_PORT:-110}
    export KEL_POP3_USER=kel KEL_POP3_PASS=kelpass
    local dir pid rc=0
    dir=$(mktemp -d "${TMPDIR:-/tmp}/kel-dovecot.XXXXXX")
    chmod 755 "$dir"
    export KEL_POP3_MAILDIR=$dir/mail/kel
    trap 'stop "${pid:-}"; rm -rf "$dir"' EXIT
    pid=$(start "$dir" "$KEL_POP3_PORT") || exit 77
    "$@" || rc=$?
    exit $rc
}

case ${1:-} in
    install) install ;;
    start) start "$2" "$3" ;;
    stop) stop "$2" ;;
    with) shift; with "$@" ;;
    *) say "usage: dovecot.sh install | start <workdir> <pop3-port> | stop <pid> | with <command>"; exit 2 ;;
esac
