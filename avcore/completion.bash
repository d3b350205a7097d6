# Bash completion of avcore. The options are those that its own help lists.

_avcore() {
    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} options
    COMPREPLY=()
    case $before in
    -o | -i | --inline)
        mapfile -t COMPREPLY < <(cd /sys/class/net && compgen -G "$current*")
        return
        ;;
    esac
    if [[ $current == -* || ($current == '' && $before != -?*) ]]; then
        options=$("${COMP_WORDS[0]}" --help 2>/dev/null |
            sed -n 's/^ *\(-[^ ]*\).*/\1/p' | tr ',' '\n')
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" --help 2>/dev/null |
            sed -n '/^Subcommands:/,$s/^  \([a-z][^ ]*\).*/\1/p')" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}

complete -o filenames -F _avcore avcore
