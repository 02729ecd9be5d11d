# shellcheck shell=bash
# What bash completes of bypass_cmd's arguments.
_bypass_cmd() {
    local words="-b -m -h"
    [[ ${COMP_WORDS[COMP_CWORD - 1]} != -[bm] ]] || words="0 1"
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _bypass_cmd bypass_cmd
