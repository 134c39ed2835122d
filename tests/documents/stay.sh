#!/bin/bash
# Has the demo leave a station running, does everything that it then offers to try, in its order, and ends the station.
# Arguments: the demo's script, the folder of the programs.
set -euo pipefail
demo=$1 programs=$2
folder=$(mktemp -d "${TMPDIR:-/tmp}/rfid-stay.XXXXXX")
root=$folder/station
followers=() # process ids of commands that go on for ever

cleanUp() {
  for id in "${followers[@]}"; do kill "$id" 2>/dev/null || true; done
  [[ ! -f $root/pids ]] || "$demo" --stop "$root" >/dev/null || true
  rm -rf "$folder"
}
trap cleanUp EXIT
trap 'exit 1' INT TERM HUP

fail() {
  printf '%s\n' "$1"
  tail -n 5 "$folder"/*.out "$root"/*.err || true
  exit 1
}

# within SECONDS COMMAND...: whether the command comes to succeed.
within() {
  local deadline=$((SECONDS + $1))
  until "${@:2}"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.05
  done
}

# await WHAT COMMAND...: until the command succeeds.
await() { within 120 "${@:2}" || fail "there is no $1"; }

run() { bash -c "$1" >"$folder/last.out" 2>&1 || fail "exit status $?: $1"; }

# follow COMMAND NAME: until it has printed something, and on; its output goes to NAME.out.
follow() {
  bash -c "exec $1" >"$folder/$2.out" 2>&1 &
  followers+=($!)
  await "output of $1" test -s "$folder/$2.out"
}

isNotified() { grep -qE "$1" "$folder/watch.out"; }
notified() { await "notification '$1' after $command" isNotified "$1"; }

# The card is held for a moment only. A daemon that is not scheduled then does not see it: it is held again.
isRead() {
  for _ in {1..5}; do
    ! within 20 isNotified "$1" || return 0
    run "$command"
  done
  notified "$1"
}

# A value that the station was not told in time is told again.
hasCardSignal() { bash -c "$command" >"$folder/last.out" 2>&1 && grep -q '^101 .* = [0-9A-F]' "$folder/last.out"; }

answers() { # http://HOST:PORT/
  local host=${1#http://} line=''
  host=${host%/}
  exec {page}<>"/dev/tcp/${host/://}" || return 1
  printf 'GET / HTTP/1.0\r\nHost: %s\r\n\r\n' "$host" >&"$page"
  read -r -t 120 line <&"$page" || true
  exec {page}>&-
  [[ $line == *' 200 '* ]]
}

hasEnded() { ! grep -qs '^State:.[^ZX]' "/proc/$1/status"; }

"$demo" --stay --programs "$programs" --root "$root" >"$folder/demo.out" 2>&1 || fail 'the demo does not start'
mapfile -t offers < <(sed -n '/To try:/,$s/^  \([^ ].*\)/\1/p' "$folder/demo.out")
((${#offers[@]} > 15)) || fail 'the demo offers next to nothing'
mapfile -t processes < <(cut -d ' ' -f 2 "$root/pids")
for command in "${offers[@]}"; do
  case $command in
    http:*) answers "$command" || fail "$command does not answer" ;;
    *' watch') follow "$command" watch ;;
    tail*) follow "$command" tail ;;
    *' signals') await 'card among the signals' hasCardSignal ;;
    *' --stop '*)
      kill "${followers[@]}"
      wait "${followers[0]}" || fail "watching ends with status $?"
      followers=()
      run "$command"
      ;;
    *) run "$command" ;;
  esac
  case $command in
    *' tap 04A12B5C '*) isRead 'token +04A12B5C ERfidUidInStandAloneList' ;;
    *' tap E007060504030201 '*) isRead 'token +E007060504030201 ERfidUidNotInList' ;;
    *' inject 04A1B2C3') notified 'token +04A1B2C3 ERfidUidNotInList' ;;
    *' disable') notified 'state +Disabled' ;;
  esac
done
[[ ${offers[-1]} == *' --stop '* ]] || fail 'the demo does not say how to end it'
for id in "${processes[@]}"; do hasEnded "$id" || fail "process $id goes on"; done
