# shellcheck shell=bash
# Bash completion of jorn, avcore, avwatch and jornctl: made from what their own help lists.

_jorn_interfaces() {
    (cd /sys/class/net && compgen -G "$1*")
}

# What an option's value is, as the help says; nothing where it takes none.
_jorn_value() { # help, option
    awk -v option="$2" '{
        count = split($1, names, ",")
        for (n = 1; n <= count; ++n)
            if (names[n] == option && index($0, $1 " " $2) && match($2, /^[A-Z][A-Z]+(:[{].*[}])?/)) {
                print substr($2, 1, RLENGTH)
                exit
            }
    }' <<<"$1"
}

# What the help lists under a heading, line by line.
_jorn_listed() { # help, heading
    sed -n "/^$2:/,/^\$/s/^  \([A-Za-z].*\)/\1/p" <<<"$1"
}

_jorn_offer() { # what is wanted
    case $1 in
    IFACE | INTERFACE*) mapfile -t COMPREPLY < <(_jorn_interfaces "$current") ;;
    FILE* | PATH | DIR | CONFIG | TEXT) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    *'{'*'}'*)
        local choices=${1#*\{}
        mapfile -t COMPREPLY < <(compgen -W "${choices%%\}*}" -- "$current")
        ;;
    esac
}

_jorn() {
    local IFS=$' \t\n,'
    local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]} path=() given=1 value='' i word
    local said options subcommands
    said=$("$program" --help 2>/dev/null)
    options=$said
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -?* ]]; then
            value=$(_jorn_value "$options" "$word")
            if [[ $value ]] && ((++i < COMP_CWORD)); then
                value=''
            fi
        elif [[ $'\n'$(_jorn_listed "$said" Subcommands) == *$'\n'"$word "* ]]; then
            path+=("$word")
            said=$("$program" "${path[@]}" --help 2>/dev/null)
            # avcore takes the options of the last word alone, the others those of all words before.
            [[ ${program##*/} == avcore ]] && options='' || options+=$'\n'
            options+=$said
        else
            ((++given))
        fi
    done
    COMPREPLY=()
    if [[ $value ]]; then
        _jorn_offer "$value"
    elif [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(awk '/^ +-/ { print $1 }' <<<"$options")" -- "$current")
    else
        subcommands=$(_jorn_listed "$said" Subcommands | awk '{ print $1 }')
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$current")
        [[ ${COMPREPLY[*]} ]] || _jorn_offer "$(_jorn_listed "$said" Positionals | sed -n "${given}p")"
    fi
}

complete -o filenames -F _jorn jorn avcore avwatch jornctl
