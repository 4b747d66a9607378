# fish completion for convey: commands, their options, and the specifiers of the registry.
set -l commands list resolve ping send launch front wait diagnose doctor monitor report top keys key ports limits
set -l targets resolve ping send launch front wait diagnose doctor monitor keys key

complete -c convey -f
complete -c convey -l json -d 'Print JSON'
complete -c convey -s q -l quiet -d 'Nothing but problems'
complete -c convey -l no-legend -d 'No headings'
complete -c convey -l help -d 'Explain'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -l version -d 'Print the version'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a list -d 'Registered applications'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a resolve -d 'Complete a specifier'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a ping -d 'Ask whether it runs'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a send -d 'Send one message'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a launch -d 'Launch an application'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a front -d 'Bring it to the front'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a wait -d 'Wait until it runs or has gone'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a diagnose -d 'Show its state'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a doctor -d 'Look at everything'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a monitor -d 'Show its messages'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a report -d 'Draw a captured conversation'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a top -d 'Running applications, live'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a keys -d 'Show its ping keys'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a key -d 'Read, set or follow a key'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a ports -d 'Show the ports'
complete -c convey -n "not __fish_seen_subcommand_from $commands" -a limits -d 'Show every bound'
complete -c convey -n "__fish_seen_subcommand_from $targets" -a '(convey list --names 2>/dev/null)'
complete -c convey -n '__fish_seen_subcommand_from ping' -a allRunningApps
complete -c convey -n '__fish_seen_subcommand_from list' -l running -d 'Only those that run'
complete -c convey -n '__fish_seen_subcommand_from list' -l names -d 'Only specifiers'
complete -c convey -n '__fish_seen_subcommand_from ping' -l key -x -a 'STATUS INFO LAUNCHED LAUNCHPARAMS SETUPTIME DIAGNOSTICS'
complete -c convey -n '__fish_seen_subcommand_from ping wait diagnose doctor monitor keys key' -l timeout -x -d Seconds
complete -c convey -n '__fish_seen_subcommand_from ping monitor' -l count -x -d 'How often'
complete -c convey -n '__fish_seen_subcommand_from ping top key' -l interval -x -d Seconds
complete -c convey -n '__fish_seen_subcommand_from send' -l type -x -d Type
complete -c convey -n '__fish_seen_subcommand_from send' -l header -x -d NAME=VALUE
complete -c convey -n '__fish_seen_subcommand_from send' -l body -x -d Text
complete -c convey -n '__fish_seen_subcommand_from send launch' -l wait -x -d Seconds
complete -c convey -n '__fish_seen_subcommand_from send' -l launch -d 'Launch it'
complete -c convey -n '__fish_seen_subcommand_from launch' -l behind -d 'Not in front'
complete -c convey -n '__fish_seen_subcommand_from wait' -l until -x -a 'running gone'
complete -c convey -n '__fish_seen_subcommand_from diagnose' -l raw -d Rows
complete -c convey -n '__fish_seen_subcommand_from diagnose' -l whole -d 'Long texts, too'
complete -c convey -n '__fish_seen_subcommand_from diagnose' -l watch -d 'Again and again'
complete -c convey -n '__fish_seen_subcommand_from diagnose' -l path -x -d 'Rows below'
complete -c convey -n '__fish_seen_subcommand_from diagnose' -l html -r -F -d Page
complete -c convey -n '__fish_seen_subcommand_from monitor' -l errors -d 'What fails'
complete -c convey -n '__fish_seen_subcommand_from monitor' -l logs -d 'Each step'
complete -c convey -n '__fish_seen_subcommand_from ports' -l clean -d 'Remove what is stale'
complete -c convey -n '__fish_seen_subcommand_from monitor' -l all -d 'All that run'
complete -c convey -n '__fish_seen_subcommand_from monitor' -l match -x -a 'type= from= to= header= body=' -d Patterns
complete -c convey -n '__fish_seen_subcommand_from monitor' -l headers -d 'With headers'
complete -c convey -n '__fish_seen_subcommand_from monitor' -l bodies -d 'Whole bodies'
complete -c convey -n '__fish_seen_subcommand_from monitor' -l capture -r -F -d Record
complete -c convey -n '__fish_seen_subcommand_from report' -r -F
complete -c convey -n '__fish_seen_subcommand_from report' -l html -r -F -d Page
complete -c convey -n '__fish_seen_subcommand_from top' -l sort -x -a 'name processor memory waiting answer'
complete -c convey -n '__fish_seen_subcommand_from key' -l watch -d 'Follow it'
