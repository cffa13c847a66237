# Fish completion for zelfwtrace.
set -l commands show summary pcap explain redact report
set -l command __fish_seen_subcommand_from

complete -c zelfwtrace -n "not $command $commands" -a show -d 'a line for each record'
complete -c zelfwtrace -n "not $command $commands" -a summary -d 'messages and answer times'
complete -c zelfwtrace -n "not $command $commands" -a pcap -d 'a capture for Wireshark'
complete -c zelfwtrace -n "not $command $commands" -a explain -d 'what failed, the cause, what to do'
complete -c zelfwtrace -n "not $command $commands" -a redact -d 'a copy that can be handed on'
complete -c zelfwtrace -n "not $command $commands" -a report -d 'a page for a browser'
complete -c zelfwtrace -s h -l help -d 'a short explanation'
complete -c zelfwtrace -l version -d 'the version'
complete -c zelfwtrace -s u -l utc -d 'times are UTC'

complete -c zelfwtrace -n "not $command pcap redact report" -s j -l json -d JSON
complete -c zelfwtrace -n "not $command summary pcap explain redact report" -s x -l hex -d 'also bytes'
complete -c zelfwtrace -n "not $command summary pcap explain redact report" -l follow -d 'go on as it grows'
complete -c zelfwtrace -n "$command pcap redact report" -s o -l output -r -F -d 'the file to write'
complete -c zelfwtrace -n "not $command explain report" -s d -l device -x -d 'only this product ID'
complete -c zelfwtrace -n "not $command explain report" -s k -l kind -x -d 'only this kind of record' \
    -a '(__fish_append , version text sent status data)'
complete -c zelfwtrace -n "$command report" -l tills -r -F -d 'the tills of a fleet'
complete -c zelfwtrace -l run -x -d 'only this run, -1 is the last'
complete -c zelfwtrace -n "not $command explain report" -l from -x -d 'only from this time on'
complete -c zelfwtrace -n "not $command explain report" -l to -x -d 'only up to this time'
