# Bash completion of jornctl. Kept by hand; a test compares its words with jornctl's own help.

_jornctl_words() { # the words before the current one that are neither options nor their values
    local i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        --socket | --timeout | --target | --station | --to | --address | --from | --from-address) ((++i)) ;;
        -?*) ;;
        *) printf '%s ' "${COMP_WORDS[i]}" ;;
        esac
    done
}

_jornctl() {
    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local words options='--help --version --socket --timeout'
    words=$(_jornctl_words)
    COMPREPLY=()
    case $before in
    --socket | --target) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --timeout | --station | --to | --address | --from | --from-address) return ;;
    esac
    case $words in
    'show '*) options+=' --json' ;;
    'apply '*) options+=' --check --dry-run --strict' ;;
    'port-services '*) options+=' --target' ;;
    'roam '*) options+=' --station --to --address --from --from-address' ;;
    esac
    if [[ $current == -?* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        return
    fi
    local choices=''
    case $words in
    '') choices='apply show flush port-services log-policy debug roam write raw decode schema categories' ;;
    'show ') choices='priority applications dns port-services utps url utp-web wifi-calling' ;;
    'flush ') choices='utps arc-policies policies web wifi-calling' ;;
    'debug ' | 'log-policy '?*' ') choices='on off' ;;
    'apply ' | 'port-services ' | 'raw '?*' ' | 'decode '?*' ')
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
}

complete -o filenames -F _jornctl jornctl
