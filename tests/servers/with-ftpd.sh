#!/bin/bash
# with-ftpd.sh <kind> <command> [args...]
# Runs <command> against a fresh FTP server of <kind> (see ftpd.sh) on
# 127.0.0.1:${KEL_FTP_PORT:-21}, user kel / kelpass, with KEL_FTP_HOST,
# KEL_FTP_PORT, KEL_FTP_USER, KEL_FTP_PASS, KEL_FTP_ROOT (the served directory)
# and KEL_FTP_KIND exported. Exits with the command's status.
# Port 21 is meant for a private network namespace:
#   scripts/in-netns tests/servers/with-ftpd.sh vsftpd ./some_test
set -euo pipefail

[ $# -ge 2 ] || { echo "usage: with-ftpd.sh <kind> <command> [args...]" >&2; exit 2; }
ftpd=$(dirname "${BASH_SOURCE[0]}")/ftpd.sh
kind=$1
shift

export KEL_FTP_KIND=$kind KEL_FTP_HOST=127.0.0.1 KEL_FTP_PORT=${KEL_FTP_PORT:-21}
export KEL_FTP_USER=kel KEL_FTP_PASS=kelpass
workdir=$(mktemp -d "${TMPDIR:-/tmp}/kel-ftpd.XXXXXX")
export KEL_FTP_ROOT=$workdir/root
pid='' watcher=''

cleanup() {
    [ -z "$watcher" ] || kill "$watcher" 2>/dev/null || true
    [ -z "$pid" ] || "$ftpd" stop "$pid" || true
    rm -rf "$workdir"
}
trap cleanup EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

pid=$("$ftpd" start "$kind" "$workdir" "$KEL_FTP_PORT" "$KEL_FTP_USER" "$KEL_FTP_PASS")
# Should this script be killed outright (SIGKILL on a test timeout), a detached
# watcher (not our descendant, so not killed with us) still stops the server.
watcher=$( (while kill -0 $$ 2>/dev/null; do sleep 1; done
    "$ftpd" stop "$pid"; rm -rf "$workdir") </dev/null >/dev/null 2>&1 & echo $!)
rc=0
"$@" || rc=$?
exit "$rc"
