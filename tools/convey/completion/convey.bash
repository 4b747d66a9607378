# bash completion for convey: commands, their options, and the specifiers of the registry.
_convey() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands='list resolve ping send launch front wait diagnose monitor ports limits'
    local word command= options=
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        -*) ;;
        *)
            command=$word
            break
            ;;
        esac
    done
    COMPREPLY=()
    if [ -z "$command" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --json --help --version" -- "$current")
        return
    fi
    case $previous in
    --until)
        mapfile -t COMPREPLY < <(compgen -W 'running gone' -- "$current")
        return
        ;;
    --html)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --key)
        mapfile -t COMPREPLY < <(compgen -W 'STATUS INFO LAUNCHED LAUNCHPARAMS SETUPTIME' -- "$current")
        return
        ;;
    esac
    case $command in
    list) options='--running --names' ;;
    ping) options='--key --timeout --count --interval' ;;
    send) options='--type --header --body --wait --launch' ;;
    launch) options='--behind --wait' ;;
    wait) options='--until --timeout' ;;
    diagnose) options='--raw --watch --html --timeout' ;;
    monitor) options='--errors --logs' ;;
    ports) options='--clean' ;;
    esac
    case $current in
    -*)
        mapfile -t COMPREPLY < <(compgen -W "$options --json --help" -- "$current")
        return
        ;;
    esac
    case $command in
    resolve | ping | send | launch | front | wait | diagnose | monitor)
        local names
        names=$("${COMP_WORDS[0]}" list --names 2>/dev/null)
        [ "$command" = ping ] && names+=' allRunningApps'
        mapfile -t COMPREPLY < <(compgen -W "$names" -- "$current")
        ;;
    esac
}
complete -F _convey convey
