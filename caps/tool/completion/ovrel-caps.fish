# fish completion for ovrel-caps: commands, their options and values, and what is registered.
set -l commands init import export sync diff import-desktop add-app remove-app add-product \
    remove-product set get remove group list show check
set -l none "not __fish_seen_subcommand_from $commands"

# The first column of the list, without its heading.
function __ovrel_caps_specifiers
    ovrel-caps list 2>/dev/null | sed '1d; s/ .*//'
end

complete -c ovrel-caps -f
complete -c ovrel-caps -l database -r -F -d 'The database file'
complete -c ovrel-caps -l help -d Explain
complete -c ovrel-caps -n $none -l version -d 'Print the version'
complete -c ovrel-caps -n $none -a init -d 'Make an empty database'
complete -c ovrel-caps -n $none -a import -d 'Read registrations'
complete -c ovrel-caps -n $none -a export -d 'Write the whole database'
complete -c ovrel-caps -n $none -a sync -d 'Take what packages register'
complete -c ovrel-caps -n $none -a diff -d 'Compare two registries'
complete -c ovrel-caps -n $none -a import-desktop -d 'Register .desktop files'
complete -c ovrel-caps -n $none -a add-app -d 'Register an application'
complete -c ovrel-caps -n $none -a remove-app -d 'Remove an application'
complete -c ovrel-caps -n $none -a add-product -d 'Register a product'
complete -c ovrel-caps -n $none -a remove-product -d 'Remove a product'
complete -c ovrel-caps -n $none -a set -d 'Write one value'
complete -c ovrel-caps -n $none -a get -d 'Print one value'
complete -c ovrel-caps -n $none -a remove -d 'Remove registrations or a value'
complete -c ovrel-caps -n $none -a group -d 'Applications that go together'
complete -c ovrel-caps -n $none -a list -d 'Registered applications'
complete -c ovrel-caps -n $none -a show -d 'What is registered of one'
complete -c ovrel-caps -n $none -a check -d 'Find harmful registrations'
set -l group '__fish_seen_subcommand_from group; and not __fish_seen_subcommand_from add remove list'
complete -c ovrel-caps -n $group -a 'add remove list'
set -l one '__fish_seen_subcommand_from add-app remove-app set get remove show'
complete -c ovrel-caps -n $one -a '(__ovrel_caps_specifiers)'
complete -c ovrel-caps -n '__fish_seen_subcommand_from group; and __fish_seen_subcommand_from add' -a '(__ovrel_caps_specifiers)'
complete -c ovrel-caps -n '__fish_seen_subcommand_from import diff' -r -F
complete -c ovrel-caps -n '__fish_seen_subcommand_from import-desktop' -x -a '(__fish_complete_directories)'
complete -c ovrel-caps -n '__fish_seen_subcommand_from import' -l rule -x -a 'keep replace newer' -d 'Which entry wins'
complete -c ovrel-caps -n '__fish_seen_subcommand_from import sync remove' -l dry-run -d 'Only tell'
complete -c ovrel-caps -n '__fish_seen_subcommand_from import import-desktop add-app remove-app remove-product remove' -l strict -d 'Refuse what leaves harm'
complete -c ovrel-caps -n '__fish_seen_subcommand_from export' -l xml -d 'As an XML document'
complete -c ovrel-caps -n '__fish_seen_subcommand_from sync' -l from -x -a '(__fish_complete_directories)' -d 'A folder of files'
complete -c ovrel-caps -n '__fish_seen_subcommand_from diff list show check' -l json -d 'Print JSON'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-app' -l path -r -F -d 'Its path'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-app' -l name -x -d 'Its name for people'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-app' -l redirect -x -a '(__ovrel_caps_specifiers)' -d 'What stands in for it'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-app' -l shell-tool -d 'A tool for the terminal'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-app' -l set -x -d KEY=VALUE
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l payload -x -d 'Its payload'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l kind -x -d 'Kind of the payload'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l launch-path -r -F -d 'The program'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l install-state -x -d Number
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l languages -x -d 'Installed languages'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l config-path -r -F -d 'Configuration file'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l install-folder -x -a '(__fish_complete_directories)' -d 'Where products are'
complete -c ovrel-caps -n '__fish_seen_subcommand_from add-product' -l language -x -d KEY=LANGUAGE
complete -c ovrel-caps -n '__fish_seen_subcommand_from set get remove' -l domain -x -d Number
complete -c ovrel-caps -n '__fish_seen_subcommand_from remove' -l product -x -d 'One product'
complete -c ovrel-caps -n '__fish_seen_subcommand_from remove' -l folder -x -a '(__fish_complete_directories)' -d 'What lies there'
complete -c ovrel-caps -n '__fish_seen_subcommand_from remove' -l all -d 'All applications'
complete -c ovrel-caps -n '__fish_seen_subcommand_from remove' -l yes -d 'Do it'
