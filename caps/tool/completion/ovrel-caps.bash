# bash completion for ovrel-caps: commands, their options and values, and what is registered.
_ovrel_caps() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands='init import export sync diff import-desktop add-app remove-app add-product
        remove-product set get remove group list show check'
    local word taken= command= options= values= count=0 names=("${COMP_WORDS[0]}")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [ -n "$taken" ]; then # the value of an option
            [ "$taken" != --database ] || names+=(--database "${word/#\~\//$HOME/}")
            taken=
            continue
        fi
        case $word in
        --database | --rule | --from | --path | --name | --redirect | --set | --payload | --kind | \
            --launch-path | --install-state | --languages | --config-path | --install-folder | \
            --language | --domain | --product | --folder) taken=$word ;;
        -*) ;;
        *)
            if [ "$command" = group ]; then
                command="group $word"
            elif [ -z "$command" ]; then
                command=$word
            else
                count=$((count + 1))
            fi
            ;;
        esac
    done
    COMPREPLY=()
    case $previous in
    --rule) values='keep replace newer' ;;
    --domain) values='0 1 6' ;;
    --database | --path | --launch-path | --config-path)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --from | --folder | --install-folder)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
        ;;
    esac
    if [ -n "$taken" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
        return
    fi
    case $command in
    '') options='--version' ;;
    import) options='--rule --dry-run --strict' ;;
    import-desktop | remove-app | remove-product) options='--strict' ;;
    export) options='--xml' ;;
    sync) options='--from --dry-run' ;;
    diff | list | show | check | 'group list') options='--json' ;;
    add-app) options='--path --name --redirect --shell-tool --set --strict' ;;
    add-product)
        options='--payload --kind --launch-path --install-state --languages --config-path
            --install-folder --language'
        ;;
    set | get) options='--domain' ;;
    remove) options='--domain --product --folder --all --yes --dry-run --strict' ;;
    esac
    case $current in
    -*)
        mapfile -t COMPREPLY < <(compgen -W "$options --database --help" -- "$current")
        return
        ;;
    esac
    case $command/$count in
    /0) values=$commands ;;
    group/0) values='add remove list' ;;
    import/0 | diff/[01])
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    import-desktop/0)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
        ;;
    # The first column of the list, without its heading; a specifier has no blanks.
    add-app/0 | remove-app/0 | set/0 | get/0 | remove/0 | show/0 | 'group add/2' | 'group remove/2')
        values=$("${names[@]}" list 2>/dev/null | sed '1d; s/ .*//')
        ;;
    set/1 | get/1 | remove/1) values='Specifier Path DisplayName RedirectTo IsShellTool' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
}
complete -F _ovrel_caps ovrel-caps
