#!/bin/bash
# Completes command lines as bash does and compares the proposals. The proposals come from the tools' help, so this also
# checks that whatever the help names is completed and in the manual. Arguments: the completion file, the folders of the
# manual pages and of the tools.
set -euo pipefail
pages=$2 tools=$3
PATH=$tools:$PATH
# shellcheck source=/dev/null
source "$1"
failed=0

# propose 'LINE': the proposals for the last word of the line; after a final space, for a new word.
propose() {
  local line=$1 function
  read -ra COMP_WORDS <<<"$line"
  [[ $line == *' ' ]] && COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  function=$(complete -p "${COMP_WORDS[0]}" | sed 's/.*-F \([^ ]*\) .*/\1/')
  "$function" || true
}

# expect 'LINE' PROPOSAL...: just these, in this order.
expect() {
  propose "$1"
  if [[ "${COMPREPLY[*]}" != "${*:2}" ]]; then
    printf "'%s': proposed '%s', expected '%s'\n" "$1" "${COMPREPLY[*]}" "${*:2}"
    failed=1
  fi
}

# expectKnown TOOL [COMMAND] WORD
expectKnown() {
  local word=${*: -1} beginning="${*:1:$#-1}"
  propose "$beginning ${word:0:2}"
  [[ " ${COMPREPLY[*]} " == *" $word "* ]] || { echo "not completed: $*"; failed=1; }
  grep -qFwe "$word" < <(sed 's/\\-/-/g; s/\\f.//g' "$pages/$1.1") || { echo "not in the manual: $*"; failed=1; }
}

compopt() { :; }  # is for a completion that readline asked for

expect 'rfidctl ' state enable disable learning inject watch log-level signals
expect 'rfidctl --root /tmp l' learning log-level
expect 'rfidctl learning ' on off
expect 'rfidctl learning on '
expect 'rfidctl --json log-level t' trace
expect 'rfidctl watch --c' --count
expect 'rfidctl state --c'
expect 'rfidctl watch --only tok' token
expect 'rfidctl watch --count 3 --o' --only
expect 'virtual-nfc --socket /tmp/s un' unplug
expect 'virtual-nfc tap 04A12B5C --tech iso1' iso14443a iso14443b iso15693
expect 'virtual-nfc rule ' add list clear
expect 'virtual-nfc rule add STA' START_POLL
expect 'virtual-nfc rule add START_POLL er' errno=
expect 'virtual-nfc fault d' deaf
expect 'virtual-station ca' card
expect 'virtual-station serve --feedback-answer h' hang
expect 'virtual-station ocpp o' on off
expect 'virtual-station card add '

for tool in rfidctl virtual-nfc virtual-station; do
  mapfile -t commands < <("$tools/$tool" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
  ((${#commands[@]} > 3)) || { echo "$tool --help names no commands"; failed=1; }
  for command in '' "${commands[@]}"; do
    [[ -z $command ]] || expectKnown "$tool" "$command"
    while read -r option; do
      expectKnown "$tool" ${command:+"$command"} "$option"
    done < <("$tools/$tool" ${command:+"$command"} --help | grep -oE '^  (-., ?)?--[a-z-]+' | grep -o -- '--.*')
  done
done
exit "$failed"
