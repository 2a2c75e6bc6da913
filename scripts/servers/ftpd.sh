#!/bin/bash
# Real FTP servers for the FTP client tests.
#
#   ftpd.sh install
#       (root, Debian) installs what is needed, fetches vsftpd, proftpd and
#       pure-ftpd with `apt-get download` and unpacks them side by side into
#       ${KEL_SERVER_DIR:-<repo>/build/servers} (they conflict as packages;
#       unpacked this way none runs as a service). Idempotent.
#   ftpd.sh start <kind> <workdir> <port> <user> <password>
#       kind: vsftpd | proftpd | pureftpd | pyftpdlib | pyftpdlib-nopasv
#       Serves <workdir>/root on 127.0.0.1:<port> with a configuration of its
#       own in <workdir>, waits until it listens and prints its PID, which
#       leads a process group of its own. The pyftpdlib kinds run as the
#       caller; the others need root and the account "daemon" owns the files.
#   ftpd.sh stop <pid>
#       Ends that server's process group: the server and its sessions.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
dir=${KEL_SERVER_DIR:-$here/../../build/servers}
bin=$dir/root
py=/usr/bin/python3
die() { echo "ftpd.sh: $*" >&2; exit 1; }
missing() { for p in "$@"; do dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'ok installed' || echo "$p"; done; }
apt_install() {
  [ $# -eq 0 ] || [ "$(id -u)" = 0 ] || die "needs root to install $*"
  [ $# -eq 0 ] || { apt-get -qq update >&2 && apt-get -qq install -y --no-install-recommends "$@" >&2; }
}

# The servers' own files are unpacked, not installed; their shared libraries
# are installed as packages. vsftpd's virtual users come through PAM.
install() {
  export DEBIAN_FRONTEND=noninteractive
  apt_install $(missing python3-pyftpdlib db-util libpam-modules iproute2 util-linux)
  mkdir -p "$dir/debs"
  if ! ls "$dir"/debs/pure-ftpd_*.deb >/dev/null 2>&1; then
    apt-get -qq update >&2
    (cd "$dir/debs" && apt-get -qq -o APT::Sandbox::User=root download vsftpd proftpd-core pure-ftpd >&2)
  fi
  if [ ! -x "$bin/usr/sbin/pure-ftpd" ]; then
    for deb in "$dir"/debs/*.deb; do dpkg-deb -x "$deb" "$bin"; done
  fi
  apt_install $(missing $(for deb in "$dir"/debs/*.deb; do dpkg-deb -f "$deb" Depends; done |
    tr ',' '\n' | sed 's/|.*//; s/(.*)//; s/:any//; s/ //g' | grep -E '^lib' | sort -u))
  local pam="auth required pam_userdb.so db=kel-vsftpd-users crypt=none
account required pam_userdb.so db=kel-vsftpd-users crypt=none"
  [ "$(cat /etc/pam.d/kel-test-vsftpd 2>/dev/null)" = "$pam" ] || echo "$pam" >/etc/pam.d/kel-test-vsftpd
}

start() {
  local kind=$1 wd=$2 port=$3 user=$4 pass=$5 account=daemon
  mkdir -p "$wd/root"
  local hash
  hash=$("$py" -W ignore -c 'import crypt, sys; print(crypt.crypt(sys.argv[1]))' "$pass")
  local uid gid
  uid=$(id -u $account) gid=$(id -g $account)
  umask 077
  case $kind in
  vsftpd)
    printf '%s\n%s\n' "$user" "$pass" | db_load -T -t hash "$wd/kel-vsftpd-users.db"
    mkdir -p "$wd/empty"
    printf '%s\n' listen=YES listen_address=127.0.0.1 listen_port="$port" background=NO \
      anonymous_enable=NO local_enable=YES guest_enable=YES guest_username=$account \
      virtual_use_local_privs=YES pam_service_name=kel-test-vsftpd write_enable=YES \
      local_umask=022 local_root="$wd/root" chroot_local_user=YES allow_writeable_chroot=YES \
      secure_chroot_dir="$wd/empty" connect_from_port_20=NO delay_failed_login=0 \
      xferlog_enable=YES vsftpd_log_file="$wd/vsftpd.log" >"$wd/vsftpd.conf"
    cmd=("$bin/usr/sbin/vsftpd" "$wd/vsftpd.conf") ;;
  proftpd)
    echo "$user:$hash:$uid:$gid::$wd/root:/bin/false" >"$wd/passwd"
    printf '%s\n' "ServerType standalone" "DefaultAddress 127.0.0.1" "Port $port" "UseIPv6 off" \
      "User $account" "Group $(id -gn $account)" "PidFile $wd/proftpd.pid" \
      "ScoreboardFile $wd/scoreboard" "DelayEngine off" "WtmpLog off" "UseReverseDNS off" \
      "AuthOrder mod_auth_file.c" "AuthUserFile $wd/passwd" "RequireValidShell off" \
      "DefaultRoot ~" "AllowOverwrite on" "AllowStoreRestart on" "Umask 022" "SystemLog $wd/proftpd.log" >"$wd/proftpd.conf"
    cmd=("$bin/usr/sbin/proftpd" -n -q -c "$wd/proftpd.conf") ;;
  pureftpd)
    echo "$user:$hash:$uid:$gid::$wd/root/./::::::::::::" >"$wd/passwd"
    "$bin/usr/bin/pure-pw" mkdb "$wd/pure.pdb" -f "$wd/passwd" >&2
    cmd=("$bin/usr/sbin/pure-ftpd" -S "127.0.0.1,$port" -4 -E -A -H -u 1 -l "puredb:$wd/pure.pdb") ;;
  pyftpdlib | pyftpdlib-nopasv)
    cmd=("$py" "$here/pyftpd.py" "$port" "$user" "$pass" "$wd/root" "${kind#pyftpdlib}") ;;
  *) die "unknown kind '$kind'" ;;
  esac
  chmod 755 "$wd" "$wd/root" "$wd/empty" 2>/dev/null || true
  [[ $kind == pyftpdlib* ]] || chown $account: "$wd/root"
  (cd "$wd" && exec setsid "${cmd[@]}") </dev/null >>"$wd/server.log" 2>&1 &
  local pid=$!
  for _ in $(seq 100); do
    if [ -n "$(ss -Hltn "sport = :$port")" ]; then echo $pid; return; fi
    kill -0 $pid 2>/dev/null || break
    sleep 0.05
  done
  tail -n 20 "$wd"/*.log >&2 || true
  stop $pid
  die "$kind did not start"
}

# TERM, then KILL, to the server's process group until none but zombies
# are left.
stop() {
  kill -TERM -- -"$1" 2>/dev/null || return 0
  for _ in $(seq 40); do pgrep -g "$1" -r D,R,S,T,t >/dev/null || return 0; sleep 0.05; done
  kill -KILL -- -"$1" 2>/dev/null || true
}

case ${1:-} in
install | start | stop) "$@" ;;
*) die "usage: ftpd.sh install | start <kind> <workdir> <port> <user> <password> | stop <pid>" ;;
esac
