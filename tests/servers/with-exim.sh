#!/bin/bash
# with-exim.sh <command> [args...]
# Run inside `dovecot.sh with`: adds the mailboxes to, cc and bcc (password
# kelpass) to that Dovecot, starts Exim (see exim.sh) on the ports from
# ${KEL_SMTP_PORT:-2525} on with Dovecot as its SASL provider and delivery
# into Dovecot's maildirs, exports KEL_SMTP_HOST and KEL_SMTP_PORT, runs the
# command and stops Exim. Exits with the command's status, 77 if no server.
set -euo pipefail

here=$(dirname "${BASH_SOURCE[0]}")
[ -n "${KEL_POP3_MAILDIR:-}" ] || { echo "with-exim.sh: run it inside dovecot.sh with" >&2; exit 2; }
[ -x /usr/sbin/exim4 ] || { echo "with-exim.sh: skipped: exim4 is not installed" >&2; exit 77; }
dir=$(dirname "$(dirname "$KEL_POP3_MAILDIR")")
for box in to cc bcc; do echo "$box:{PLAIN}$KEL_POP3_PASS" >>"$dir/passwd"; done
export KEL_SMTP_HOST=127.0.0.1 KEL_SMTP_PORT=${KEL_SMTP_PORT:-2525}
pid=$("$here/exim.sh" start "$dir/exim" "$KEL_SMTP_PORT" "$dir/auth-client" "$dir/mail" daemon "kel to cc bcc") || exit 77
trap '"$here/exim.sh" stop "$pid"' EXIT
rc=0
"$@" || rc=$?
exit "$rc"
