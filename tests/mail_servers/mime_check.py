"""Reads a fetched message with Python's email package and compares it with
what was sent: mime_check.py MESSAGE SUBJECT TO CC TEXT [NAME FILE]...
Prints each difference; exits 1 if there is any."""
import email
import email.policy
import sys

message, subject, to, cc, text = sys.argv[1:6]
attachments = list(zip(sys.argv[6::2], sys.argv[7::2]))
with open(message, "rb") as f:
    msg = email.message_from_binary_file(f, policy=email.policy.default)
problems = []


def check(what, got, want):
    if got != want:
        problems.append(f"{what}: got {got!r:.80}, want {want!r:.80}")


check("subject", str(msg["subject"]), subject)
check("to", str(msg["to"]), to)
check("cc", str(msg["cc"]), cc)
check("bcc", msg["bcc"], None)
parts = list(msg.iter_parts())
check("parts", len(parts), 1 + len(attachments))
if parts:
    with open(text, "rb") as f:
        check("text", parts[0].get_payload(decode=True), f.read())
for part, (name, path) in zip(parts[1:], attachments):
    check("file name", part.get_filename(), name)
    with open(path, "rb") as f:
        check(name, part.get_payload(decode=True), f.read())
print("\n".join(problems))
sys.exit(1 if problems else 0)
