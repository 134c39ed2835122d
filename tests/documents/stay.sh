#!/bin/bash
# Lets the demo leave a station running, tries every command that the demo prints, in order, and ends the station.
# Arguments: the demo's script, the folder of the programs.
set -euo pipefail
demo=$1 programs=$2
folder=$(mktemp -d "${TMPDIR:-/tmp}/rfid-stay.XXXXXX")
export TMPDIR=$folder
jobs=() # process ids

cleanUp() {
  for id in "${jobs[@]}"; do kill "$id" 2>/dev/null || true; done
  wait
  rm -rf "$folder"
}
trap cleanUp EXIT
trap 'exit 1' INT TERM HUP

fail() {
  printf '%s\n' "$1"
  tail -n 5 "$folder"/*.out || true
  exit 1
}

# within SECONDS COMMAND...: whether the command succeeds in that time.
within() {
  local deadline=$((SECONDS + $1))
  until "${@:2}"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.05
  done
}

# await WHAT COMMAND...: waits until the command succeeds.
await() { within 120 "${@:2}" || fail "there is no $1"; }

run() { bash -c "$1" >"$folder/last.out" 2>&1 || fail "exit status $?: $1"; }

# follow COMMAND NAME: runs it on; its output goes to NAME.out.
follow() {
  bash -c "exec $1" >"$folder/$2.out" 2>&1 &
  jobs+=($!)
  await "output of $1" test -s "$folder/$2.out"
}

isNotified() { grep -qE "$1" "$folder/watch.out"; }
notified() { await "notification '$1' after $command" isNotified "$1"; }

# Both cards, one directly after the other. A daemon that is not scheduled while a card is held does not see it: the
# cards are held again.
bothCardsAreRead() {
  for _ in {1..5}; do
    run "$cards"
    ! within 20 isNotified 'token +04A12B5C ERfidUidInStandAloneList' ||
      ! within 20 isNotified 'token +E007060504030201 ERfidUidNotInList' || return 0
  done
  fail 'the two cards are not read'
}

# The daemon repeats a value that the station did not take in time.
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

"$demo" --stay --programs "$programs" >"$folder/demo.out" 2>&1 &
stayer=$!
jobs+=("$stayer")
await 'end of what the demo prints' grep -q '^Ctrl-C ends' "$folder/demo.out"
mapfile -t offers < <(sed -n '/To try/,$s/^  \([^ ].*\)/\1/p' "$folder/demo.out")
((${#offers[@]} > 15)) || fail 'the demo offers next to nothing'
processes=$(cat "/proc/$stayer/task/"*/children)
cards=
for command in "${offers[@]}"; do
  case $command in
    http:*) answers "$command" || fail "$command does not answer" ;;
    *' watch') follow "$command" watch ;;
    tail*) follow "$command" tail ;;
    *' tap 04A12B5C '* | sleep*) cards+="$command"$'\n' ;;
    *' tap E007060504030201 '*) cards+=$command; bothCardsAreRead ;;
    *' signals') await 'card among the signals' hasCardSignal ;;
    *) run "$command" ;;
  esac
  case $command in
    *' inject 04A1B2C3') notified 'token +04A1B2C3 ERfidUidNotInList' ;;
    *' disable') notified 'state +Disabled' ;;
  esac
done
kill -TERM "$stayer" # background jobs of a script ignore SIGINT
wait "$stayer" || fail "the demo ends with status $?"
for id in $processes; do
  [[ ! -e /proc/$id ]] || fail "process $id goes on"
done
