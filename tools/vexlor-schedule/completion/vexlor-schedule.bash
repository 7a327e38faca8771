# bash completion for vexlor-schedule. The commands, their options and the options' values
# come from the program itself (its hidden __complete helper), and so do the titles stored in
# the schedule that it would use; nothing here needs changing when a command is added.

# Sets REPLY to $1 as the shell would read it: quotes and backslashes taken out.
_vexlor_schedule_dequote() {
    local text=$1 quote= char
    local -i i
    REPLY=
    for ((i = 0; i < ${#text}; i++)); do
        char=${text:i:1}
        if [[ -n $quote && $char == "$quote" ]]; then
            quote=
        elif [[ $char == \\ && $quote != "'" ]]; then
            ((i++))
            REPLY+=${text:i:1}
        elif [[ -z $quote && ( $char == "'" || $char == '"' ) ]]; then
            quote=$char
        else
            REPLY+=$char
        fi
    done
}

_vexlor_schedule() {
    local -a words=() lines=()
    local -i i
    for ((i = 1; i < COMP_CWORD; i++)); do
        _vexlor_schedule_dequote "${COMP_WORDS[i]}"
        words+=("$REPLY")
    done
    _vexlor_schedule_dequote "${COMP_WORDS[COMP_CWORD]}"
    local current=$REPLY
    # bash splits --notify=none at the =; the helper knows to join them again.
    if [[ $current == = ]]; then
        words+=("=")
        current=
    fi
    _vexlor_schedule_dequote "${COMP_WORDS[0]}"
    mapfile -t lines < <("$REPLY" __complete "${words[@]}" "$current" 2>/dev/null)
    COMPREPLY=()
    case ${lines[0]-} in
        files) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        folders) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
        words)
            for ((i = 1; i < ${#lines[@]}; i++)); do
                [[ ${lines[i]} == "$current"* ]] && COMPREPLY+=("${lines[i]}")
            done
            ;;
    esac
    # Readline quotes what it inserts as it would a file name, so that a title with spaces
    # or quotes stays one word, inside quotes the user opened or with backslashes.
    ((${#COMPREPLY[@]})) && compopt -o filenames 2>/dev/null
    return 0
}

complete -F _vexlor_schedule vexlor-schedule
