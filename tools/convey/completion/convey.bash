# bash completion for convey: commands, their options and values, and the specifiers of the registry.
_convey() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands='list resolve ping send launch front wait diagnose doctor monitor report top keys key ports limits'
    local word command= options= values= count=0
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        -*) ;;
        *)
            [ -n "$command" ] || command=$word
            count=$((count + 1))
            ;;
        esac
    done
    COMPREPLY=()
    if [ -z "$command" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --json --quiet --no-legend --help --version" -- "$current")
        return
    fi
    case $previous in
    --until) values='running gone' ;;
    --key) values='STATUS INFO LAUNCHED LAUNCHPARAMS SETUPTIME DIAGNOSTICS' ;;
    --sort) values='name processor memory waiting answer' ;;
    --type) values='Tessaly' ;;
    --match) values='type= from= to= header= body=' ;;
    --html | --capture)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --timeout | --wait | --interval | --count | --header | --body) return ;;
    esac
    if [ -n "$values" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
        return
    fi
    case $command in
    list) options='--running --names' ;;
    ping) options='--key --timeout --count --interval' ;;
    send) options='--type --header --body --wait --launch' ;;
    launch) options='--behind --wait' ;;
    wait) options='--until --timeout' ;;
    diagnose) options='--raw --whole --watch --html --path --timeout' ;;
    doctor) options='--timeout' ;;
    monitor) options='--all --errors --logs --match --headers --bodies --count --timeout --capture' ;;
    report) options='--html' ;;
    top) options='--interval --sort' ;;
    keys) options='--timeout' ;;
    key) options='--watch --interval --timeout' ;;
    ports) options='--clean' ;;
    esac
    case $current in
    -*)
        mapfile -t COMPREPLY < <(compgen -W "$options --json --quiet --no-legend --help" -- "$current")
        return
        ;;
    esac
    case $command in
    report)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        ;;
    key)
        if [ "$count" -ge 2 ]; then
            values='STATUS INFO LAUNCHED LAUNCHPARAMS SETUPTIME DIAGNOSTICS'
        else
            values=$("${COMP_WORDS[0]}" list --names 2>/dev/null)
        fi
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
        ;;
    resolve | ping | send | launch | front | wait | diagnose | doctor | monitor | keys)
        values=$("${COMP_WORDS[0]}" list --names 2>/dev/null)
        [ "$command" = ping ] && values+=' allRunningApps'
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
        ;;
    esac
}
complete -F _convey convey
