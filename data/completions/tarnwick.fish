# fish completion for tarnwick

set -l commands status login groups add remove retention open logout quit restart-backend diagnose

complete -c tarnwick -f
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -l headless -d 'Run the client without any window'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -s h -l help -d 'Show the help'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -s v -l version -d 'Show the version'

complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a status -d 'Sign-in state and synced folders'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a login -d 'Sign in with an e-mail address'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a groups -d 'The sync groups and their folders'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a add -d 'Sync a folder in a group'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a remove -d 'Stop syncing a folder'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a retention -d 'Keep deleted files some days'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a open -d 'Open a synced folder'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a logout -d 'Sign out; the client ends'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a quit -d 'End the client'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a restart-backend -d 'Start the sync engine again'
complete -c tarnwick -n "not __fish_seen_subcommand_from $commands" -a diagnose -d 'Print what a bug report needs'

complete -c tarnwick -n "__fish_seen_subcommand_from status groups" -l json -d 'Print JSON'
complete -c tarnwick -n "__fish_seen_subcommand_from login" -l code -r -d 'The 6-digit code'
complete -c tarnwick -n "__fish_seen_subcommand_from add" -l force -d 'Add an iCloud folder anyway'
complete -c tarnwick -n "__fish_seen_subcommand_from add remove open" -a '(__fish_complete_directories)'
