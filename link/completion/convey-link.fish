# fish completion for convey-link: its commands, options and files.
complete -c convey-link -f
set -l first 'test (count (commandline -opc)) -eq 1'
complete -c convey-link -n $first -a status -d 'Who is there'
complete -c convey-link -n $first -a store -d 'Have requests wait on disk'
complete -c convey-link -n $first -l check -d 'Say what a file does'
complete -c convey-link -n $first -l version -d 'Print the version'
complete -c convey-link -l help -d Explain
complete -c convey-link -n '__fish_seen_subcommand_from status' -l json -d 'Print JSON'
complete -c convey-link -n 'not __fish_seen_subcommand_from status' -a '(__fish_complete_suffix .toml)'
