#!/bin/bash
# with-ftpd.sh <kind> <command> [args...]
# Runs <command> against a fresh FTP server of <kind> (see ftpd.sh) on
# 127.0.0.1:${KEL_FTP_PORT:-21}, user kel / kelpass, with KEL_FTP_HOST,
# KEL_FTP_PORT, KEL_FTP_USER, KEL_FTP_PASS, KEL_FTP_ROOT (the served directory)
# and KEL_FTP_KIND exported. Exits with the command's status.
# Port 21 is meant for a private network namespace:
#   scripts/in-netns scripts/servers/with-ftpd.sh vsftpd ./some_test
set -euo pipefail
ftpd=$(dirname "${BASH_SOURCE[0]}")/ftpd.sh
export KEL_FTP_KIND=$1 KEL_FTP_HOST=127.0.0.1 KEL_FTP_PORT=${KEL_FTP_PORT:-21}
export KEL_FTP_USER=kel KEL_FTP_PASS=kelpass
shift
work=$(mktemp -d "${TMPDIR:-/tmp}/kel-ftpd.XXXXXX")
export KEL_FTP_ROOT=$work/root
trap 'rm -rf "$work"' EXIT
pid=$("$ftpd" start "$KEL_FTP_KIND" "$work" "$KEL_FTP_PORT" "$KEL_FTP_USER" "$KEL_FTP_PASS")
# A watcher outside this script's process group stops the server even when
# the script itself is killed outright.
setsid bash -c 'while kill -0 '$$' 2>/dev/null; do sleep 1; done; "$0" stop '"$pid"'; rm -rf "$1"' \
  "$ftpd" "$work" </dev/null >/dev/null 2>&1 &
trap '"$ftpd" stop "$pid"; rm -rf "$work"' EXIT
"$@"
