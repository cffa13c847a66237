# Fish completion for zelfwfile.
set -l commands make check show diff extract from-trace
set -l command __fish_seen_subcommand_from

complete -c zelfwfile -f
complete -c zelfwfile -n "not $command $commands" -a make -d 'make a firmware file from its description'
complete -c zelfwfile -n "not $command $commands" -a check -d 'tell whether firmware files are whole'
complete -c zelfwfile -n "not $command $commands" -a show -d 'show what a firmware file holds'
complete -c zelfwfile -n "not $command $commands" -a diff -d 'show what differs between two files'
complete -c zelfwfile -n "not $command $commands" -a extract -d 'take a firmware file apart'
complete -c zelfwfile -n "not $command $commands" -a from-trace -d 'rebuild the files that a run sent'
complete -c zelfwfile -s h -l help -d 'a short explanation'
complete -c zelfwfile -l version -d 'the version'

complete -c zelfwfile -n "$command make" -s o -l output -r -F -d 'the firmware file'
complete -c zelfwfile -n "$command extract from-trace" -s o -l output -x \
    -a '(__fish_complete_directories)' -d 'into this directory'
complete -c zelfwfile -n "$command show" -s j -l json -d JSON
complete -c zelfwfile -n "$command from-trace" -l run -x -d 'which run of the trace, -1 is the last'
complete -c zelfwfile -n "$command make" -a '(__fish_complete_suffix .toml)'
complete -c zelfwfile -n "$command check show diff extract" -a '(__fish_complete_suffix .dat)'
complete -c zelfwfile -n "$command from-trace" -F
