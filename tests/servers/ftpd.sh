#!/bin/bash
# Real FTP servers for the FTP client tests.
#
#   ftpd.sh install
#       (root, Debian) apt-installs what is needed, fetches vsftpd, proftpd and
#       pure-ftpd with `apt-get download` and unpacks them side by side into
#       ${KEL_SERVER_DIR:-<repo>/build/servers} (they conflict as apt packages;
#       unpacked this way none of them runs as a service). Idempotent.
#   ftpd.sh start <kind> <workdir> <port> <user> <password>
#       kind: vsftpd | proftpd | pureftpd | pyftpdlib | pyftpdlib-nopasv
#       Writes a fresh config into <workdir>, serves <workdir>/root on
#       127.0.0.1:<port>, waits until it accepts connections and prints its PID
#       (the only output on stdout). Logs: <workdir>/*.log.
#       The pyftpdlib kinds run as the caller; the others need root and let
#       the system account "daemon" own <workdir>/root and the uploaded files.
#   ftpd.sh stop <pid>
#       TERM (then KILL) that server and the session processes it forked.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)
server_dir=${KEL_SERVER_DIR:-$repo/build/servers}
bin=$server_dir/root
py=/usr/bin/python3
pam_service=kel-test-vsftpd
account=daemon # file owner for vsftpd, proftpd and pure-ftpd users

apt_pkgs=(python3 python3-pyftpdlib db-util libpam-modules libpam-runtime iproute2 util-linux)
server_debs=(vsftpd proftpd-core pure-ftpd)
server_bins=(usr/sbin/vsftpd usr/sbin/proftpd usr/sbin/pure-ftpd usr/bin/pure-pw)

say() { echo "ftpd.sh: $*" >&2; }
die() { say "$*"; exit 1; }

# ---------------------------------------------------------------- install

apt_updated=
apt() {
    if [ -z "$apt_updated" ]; then
        apt-get update -q >&2
        apt_updated=1
    fi
    DEBIAN_FRONTEND=noninteractive apt-get -q "$@" >&2
}

missing_pkgs() {
    local p
    for p in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null)" = installed ] || echo "$p"
    done
}

# Dependencies of the unpacked servers that are safe to install: shared
# libraries and netbase (not inetd, not the conflicting server packages).
deb_deps() {
    local deb
    for deb in "$server_dir"/debs/*.deb; do
        dpkg-deb -f "$deb" Depends Pre-Depends
    done | tr ',' '\n' | sed -e 's/|.*//' -e 's/(.*)//' -e 's/:any//' -e 's/[[:space:]]//g' |
        grep -E '^(lib|netbase$)' | sort -u
}

pam_file() {
    cat <<'EOF'
# Written by tarvikel's tests/servers/ftpd.sh: virtual users of the vsftpd
# instances its tests start. Each instance runs in its own work directory,
# which holds the user database (kel-vsftpd-users.db).
auth    required pam_userdb.so db=kel-vsftpd-users crypt=none
account required pam_userdb.so db=kel-vsftpd-users crypt=none
EOF
}

install_as_root() {
    [ "$(id -u)" = 0 ] || die "install must run as root to $*"
}

cmd_install() {
    command -v apt-get >/dev/null || die "install needs Debian's apt-get"

    local -a need
    mapfile -t need < <(missing_pkgs "${apt_pkgs[@]}")
    if [ ${#need[@]} -gt 0 ]; then
        install_as_root "apt-get install ${need[*]}"
        say "apt-get install ${need[*]}"
        apt install -y --no-install-recommends "${need[@]}"
    fi

    mkdir -p "$server_dir/debs"
    local p have=1
    for p in "${server_debs[@]}"; do
        compgen -G "$server_dir/debs/${p}_*.deb" >/dev/null || have=
    done
    if [ -z "$have" ]; then
        install_as_root "apt-get download ${server_debs[*]}"
        say "apt-get download ${server_debs[*]}"
        rm -f "$server_dir"/debs/*.deb
        (cd "$server_dir/debs" && apt -o APT::Sandbox::User=root download "${server_debs[@]}")
    fi

    local stamp=$server_dir/root/.unpacked
    local debs
    debs=$(cd "$server_dir/debs" && ls -- *.deb)
    if [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$debs" ]; then
        rm -rf "$server_dir/root"
        mkdir -p "$server_dir/root"
        for p in "$server_dir"/debs/*.deb; do
            dpkg-deb -x "$p" "$server_dir/root"
        done
        echo "$debs" >"$stamp"
    fi

    local -a deps
    mapfile -t deps < <(deb_deps)
    mapfile -t need < <(missing_pkgs "${deps[@]}")
    if [ ${#need[@]} -gt 0 ]; then
        install_as_root "apt-get install ${need[*]}"
        say "apt-get install ${need[*]}"
        apt install -y --no-install-recommends "${need[@]}"
    fi
    local b unresolved=
    for b in "${server_bins[@]}"; do
        [ -x "$bin/$b" ] || die "$bin/$b missing after unpacking"
        if ldd "$bin/$b" | grep -q 'not found'; then
            unresolved+="$b: $(ldd "$bin/$b" | grep 'not found' | tr -s ' \t\n' ' ')"$'\n'
        fi
    done
    [ -z "$unresolved" ] || die "unresolved libraries:"$'\n'"$unresolved"

    local pam=/etc/pam.d/$pam_service
    if [ "$(cat "$pam" 2>/dev/null)" != "$(pam_file)" ]; then
        install_as_root "write $pam"
        pam_file >"$pam"
    fi
}

# ---------------------------------------------------------------- start

# /proc/<pid>/stat: "pid (comm) state ppid ..."; comm may contain spaces.
alive() {
    local line
    { read -r line <"/proc/$1/stat"; } 2>/dev/null || return 1
    line=${line##*) }
    [ "${line%% *}" != Z ]
}

# Is a TCP socket listening on port $1 (at an address matching $2, hex as in
# /proc/net/tcp, or at any address)? Looking rather than connecting keeps
# probe sessions out of the servers: after each session ends, proftpd delays
# the next greeting by 200-400 ms.
listening() {
    local port
    printf -v port '%04X' "$1"
    cat /proc/net/tcp /proc/net/tcp6 2>/dev/null |
        awk -v p="$port" -v a="${2:-[0-9A-F]+}" '$4 == "0A" && $2 ~ ("^" a ":" p "$") { f = 1 } END { exit !f }'
}

crypt_sha512() {
    "$py" -W ignore -c 'import crypt, sys; print(crypt.crypt(sys.argv[1], crypt.mksalt(crypt.METHOD_SHA512)))' "$1"
}

need_root_server() {
    [ "$(id -u)" = 0 ] || die "$kind must be started as root"
    [ -x "$bin/${1}" ] || die "$bin/$1 missing; run: $0 install"
}

setup_vsftpd() {
    need_root_server usr/sbin/vsftpd
    [ -f "/etc/pam.d/$pam_service" ] || die "/etc/pam.d/$pam_service missing; run: $0 install"
    rm -f "$wd/kel-vsftpd-users.db"
    printf '%s\n%s\n' "$user" "$pass" | db_load -T -t hash "$wd/kel-vsftpd-users.db"
    mkdir -p "$wd/vsftpd-empty"
    chmod 755 "$wd/vsftpd-empty"
    cat >"$wd/vsftpd.conf" <<EOF
listen=YES
listen_ipv6=NO
listen_address=127.0.0.1
listen_port=$port
background=NO
anonymous_enable=NO
local_enable=YES
guest_enable=YES
guest_username=$account
virtual_use_local_privs=YES
pam_service_name=$pam_service
write_enable=YES
delay_failed_login=0
local_umask=022
local_root=$wd/root
chroot_local_user=YES
allow_writeable_chroot=YES
secure_chroot_dir=$wd/vsftpd-empty
pasv_enable=YES
port_enable=YES
connect_from_port_20=NO
tcp_wrappers=NO
xferlog_enable=YES
xferlog_std_format=NO
log_ftp_protocol=YES
vsftpd_log_file=$wd/vsftpd.log
EOF
    chmod 600 "$wd/vsftpd.conf"
    # pam_userdb's db= is relative: the server runs in $wd.
    cmd=("$bin/usr/sbin/vsftpd" "$wd/vsftpd.conf")
}

setup_proftpd() {
    need_root_server usr/sbin/proftpd
    local uid gid
    uid=$(id -u "$account") gid=$(id -g "$account")
    echo "$user:$(crypt_sha512 "$pass"):$uid:$gid::$wd/root:/bin/false" >"$wd/proftpd.passwd"
    echo "kelftp:x:$gid:$user" >"$wd/proftpd.group"
    chmod 600 "$wd/proftpd.passwd"
    cat >"$wd/proftpd.conf" <<EOF
ServerName "kel test proftpd"
ServerType standalone
DefaultServer on
UseIPv6 off
DefaultAddress 127.0.0.1
SocketBindTight on
Port $port
User $account
Group $(id -gn "$account")
PidFile $wd/proftpd.pid
ScoreboardFile $wd/proftpd.scoreboard
DelayEngine off
SystemLog $wd/proftpd.log
TransferLog $wd/proftpd-xfer.log
WtmpLog off
UseReverseDNS off
AuthOrder mod_auth_file.c
AuthUserFile $wd/proftpd.passwd
AuthGroupFile $wd/proftpd.group
RequireValidShell off
DefaultRoot ~
Umask 022
AllowOverwrite on
AllowStoreRestart on
MaxInstances 50
<IfModule mod_ctrls.c>
  ControlsEngine off
</IfModule>
<IfModule mod_auth_pam.c>
  AuthPAM off
</IfModule>
EOF
    cmd=("$bin/usr/sbin/proftpd" -n -q -c "$wd/proftpd.conf")
}

setup_pureftpd() {
    need_root_server usr/sbin/pure-ftpd
    local uid gid
    uid=$(id -u "$account") gid=$(id -g "$account")
    # A crypt(3) SHA-512 hash: pure-pw's own default (argon2id) costs seconds per login.
    echo "$user:$(crypt_sha512 "$pass"):$uid:$gid::$wd/root/./::::::::::::" >"$wd/pureftpd.passwd"
    chmod 600 "$wd/pureftpd.passwd"
    rm -f "$wd/pureftpd.pdb"
    "$bin/usr/bin/pure-pw" mkdb "$wd/pureftpd.pdb" -f "$wd/pureftpd.passwd" >&2
    cmd=("$bin/usr/sbin/pure-ftpd" -S "127.0.0.1,$port" -4 -E -A -H -u 1
        -l "puredb:$wd/pureftpd.pdb" -O "clf:$wd/pureftpd-xfer.log" -g "$wd/pureftpd.pid")
}

setup_pyftpdlib() {
    [ -x "$py" ] || die "$py missing; run: $0 install"
    cmd=("$py" "$here/pyftpd.py" "$port" "$user" "$pass" "$wd/root" "$wd/pyftpdlib.log")
    [ "$kind" != pyftpdlib-nopasv ] || cmd+=(--nopasv)
}

cmd_start() {
    [ $# -eq 5 ] || die "usage: ftpd.sh start <kind> <workdir> <port> <user> <password>"
    kind=$1 wd=$2 port=$3 user=$4 pass=$5
    [[ $port =~ ^[0-9]+$ ]] && [ "$port" -ge 1 ] && [ "$port" -le 65535 ] || die "bad port '$port'"
    mkdir -p "$wd"
    wd=$(cd "$wd" && pwd)
    chmod 755 "$wd"
    rm -rf "$wd/root"
    mkdir "$wd/root"
    ! listening "$port" || die "port $port is already in use"

    local -a cmd
    case $kind in
    vsftpd) setup_vsftpd ;;
    proftpd) setup_proftpd ;;
    pureftpd) setup_pureftpd ;;
    pyftpdlib | pyftpdlib-nopasv) setup_pyftpdlib ;;
    *) die "unknown kind '$kind' (vsftpd, proftpd, pureftpd, pyftpdlib, pyftpdlib-nopasv)" ;;
    esac
    case $kind in
    pyftpdlib*) ;;
    *)
        chown "$account:" "$wd/root"
        setpriv --reuid="$account" --regid="$account" --clear-groups test -w "$wd/root" -a -x "$wd/root" ||
            die "user $account cannot reach $wd/root: a parent directory is not searchable; use e.g. /tmp"
        ;;
    esac

    local out=$wd/$kind.out
    : >"$out"
    # vsftpd reports start-up errors ("500 OOPS") on fd 0.
    if [ "$kind" = vsftpd ]; then exec 3>>"$out"; else exec 3</dev/null; fi
    (cd "$wd" && exec "${cmd[@]}") <&3 >>"$out" 2>&1 3>&- &
    local pid=$! i
    exec 3>&-
    for ((i = 0; i < 200; i++)); do
        if ! alive "$pid"; then
            break
        elif listening "$port" '(0100007F|7F000001)'; then
            echo "$pid"
            return 0
        fi
        sleep 0.05
    done
    if alive "$pid"; then
        say "$kind (pid $pid) does not accept connections on 127.0.0.1:$port after 10 s"
    else
        say "$kind exited during start"
    fi
    local f
    for f in "$out" "$wd"/*.log; do
        [ -s "$f" ] || continue
        echo "---- $f" >&2
        tail -n 30 "$f" >&2
    done
    kill_tree "$pid"
    exit 1
}

# ---------------------------------------------------------------- stop

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
    local pid=$1 i p
    local -a pids=("$pid")
    mapfile -t -O 1 pids < <(descendants "$pid")
    kill -TERM "${pids[@]}" 2>/dev/null || true
    for ((i = 0; i < 40; i++)); do
        local left=
        for p in "${pids[@]}"; do alive "$p" && left=1; done
        [ -n "$left" ] || return 0
        sleep 0.05
    done
    kill -KILL "${pids[@]}" 2>/dev/null || true
}

cmd_stop() {
    [ $# -eq 1 ] && [[ $1 =~ ^[0-9]+$ ]] || die "usage: ftpd.sh stop <pid>"
    alive "$1" || return 0
    # Only ever stop one of the servers started above.
    tr '\0' ' ' <"/proc/$1/cmdline" | grep -Eq 'vsftpd|proftpd|pure-ftpd|pyftpd\.py' ||
        die "pid $1 is not an FTP server started by ftpd.sh: $(tr '\0' ' ' <"/proc/$1/cmdline")"
    kill_tree "$1"
}

case ${1:-} in
install) shift; cmd_install "$@" ;;
start) shift; cmd_start "$@" ;;
stop) shift; cmd_stop "$@" ;;
*) die "usage: ftpd.sh install | start <kind> <workdir> <port> <user> <password> | stop <pid>" ;;
esac
