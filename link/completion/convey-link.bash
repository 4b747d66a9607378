# bash completion for convey-link: its commands, options and files.
_convey_link() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    if [ "$COMP_CWORD" -gt 1 ] && [ "${COMP_WORDS[1]}" = status ]; then
        mapfile -t COMPREPLY < <(compgen -W '--json --help' -- "$current")
        return
    fi
    if [ "$COMP_CWORD" -gt 1 ] && [ "$previous" != --check ] && [ "$previous" != store ]; then
        return
    fi
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -X '!*.toml' -- "$current"; compgen -d -- "$current")
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -W 'status store --check --help --version' -- "$current")
    fi
}
complete -F _convey_link convey-link
