# SPDX-License-Identifier: MIT
# bash completion for qrn-server, qrn-ctl, qrn-station and qrn-image: whatever their --help names.
_qrndisk()
{
    local program=$1 word=$2 before=$3 commands command= each
    COMPREPLY=()
    case $before in
    --output) COMPREPLY=($(compgen -W "text json" -- "$word")); return ;;
    --format) COMPREPLY=($(compgen -W "raw area" -- "$word")); return ;;
    --handover) COMPREPLY=($(compgen -W "low-memory transport" -- "$word")); return ;;
    --feeding) COMPREPLY=($(compgen -W "held-back eager" -- "$word")); return ;;
    --driver) COMPREPLY=($(compgen -W "builtin" -- "$word") $(compgen -f -X '!*.sys' -- "$word")); return ;;
    esac
    if [ "${program##*/}" = qrn-image ]; then
        commands=$("$program" --help 2>/dev/null | sed -n 's/^\([a-z]\{1,\}\)\(, [a-z]*\)\{0,1\}$/\1/p')
        for each in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
            [[ " ${commands//$'\n'/ } " != *" $each "* ]] || { command=$each; break; }
        done
        if [ -z "$command" ] && [[ $word != -* ]]; then
            COMPREPLY=($(compgen -W "$commands" -- "$word"))
            return
        fi
    fi
    if [[ $word == -* ]]; then
        COMPREPLY=($(compgen -W "$("$program" $command --help 2>/dev/null | sed -n 's/^ *\(-[a-z],\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p')" -- "$word"))
    else
        COMPREPLY=($(compgen -f -- "$word"))
    fi
}
complete -o filenames -F _qrndisk qrn-server qrn-ctl qrn-station qrn-image
