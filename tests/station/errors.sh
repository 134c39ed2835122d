#!/bin/bash
# Every failure of a tool is one line on standard error that begins with the tool's name. Argument: the tools' folder.
set -uo pipefail
PATH=$1:$PATH
cd "$(mktemp -d "${TMPDIR:-/tmp}/rfid-errors.XXXXXX")" || exit 1
trap 'rm -rf "$PWD"' EXIT
mkdir etc hub hub/settings.json
touch file
long=$(printf 'x%.0s' {1..200})
plex() { printf '{"listen": "unix:r", "peers": {%s}, "configuration": "%s"}' "$1" "$2" >etc/plex.json; }
failed=0

# expect STATUS TEXT COMMAND: the shell runs the command, so that it may redirect.
expect() {
  local error status
  error=$(bash -c "timeout 200 $3" 2>&1 >/dev/null </dev/null)
  status=$?
  if [[ $status != "$1" || $error != "${3%% *}: "*"$2"* || $error == *$'\n'* ]]; then
    printf "'%s' ended with status %s instead of %s and with:\n%s\n" "$3" "$status" "$1" "$error"
    failed=1
  fi
}

plex '"Diagnostics": "unix:file/socket"' hub
expect 2 'no command nonsense' 'virtual-nfc --socket s nonsense'
expect 2 '4, 7 or 8 bytes' 'virtual-station card add 0102030405060708AA'
expect 2 'name is empty' 'virtual-nfc --socket "" status'
expect 1 'No space left' 'virtual-nfc --socket s env >/dev/full'
expect 1 'No space left' 'virtual-nfc --socket s serve >/dev/full'
expect 1 'cannot write' 'rfidctl --help >/dev/full'
expect 2 '107 characters' "rfidctl --address unix:$long state"
expect 1 'Not a directory' 'virtual-station --root . serve'
expect 1 'Is a directory' 'virtual-station --root . ocpp on'
plex "\"Diagnostics\": \"unix:file\"" file
expect 1 'another server listens there, or it is not a socket' 'virtual-station --root . serve'
expect 1 'Not a directory' 'virtual-station --root . ocpp on'
plex '' hub
expect 1 'nothing to serve' 'virtual-station --root . serve'
expect 3 'names no peer Diagnostics' 'rfidctl --root . signals'
exit "$failed"
