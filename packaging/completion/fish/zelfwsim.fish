# Fish completion for zelfwsim.
set -l commands check generate show from-trace clone rehearse serve run
set -l command __fish_seen_subcommand_from

complete -c zelfwsim -f
complete -c zelfwsim -n "not $command $commands" -a check -d 'read a bus file, tell what is on it'
complete -c zelfwsim -n "not $command $commands" -a generate -d 'print a bus file with some devices'
complete -c zelfwsim -n "not $command $commands" -a show -d 'list the devices and their levels'
complete -c zelfwsim -n "not $command $commands" -a from-trace -d 'a bus file of the devices of a run'
complete -c zelfwsim -n "not $command $commands" -a clone -d 'a bus file of the attached devices'
complete -c zelfwsim -n "not $command $commands" -a rehearse -d 'tell what an update would do'
complete -c zelfwsim -n "not $command $commands" -a serve -d 'offer the devices to real kernels'
complete -c zelfwsim -n "not $command $commands" -a run -d 'run a command on these devices only'
complete -c zelfwsim -l help -d 'a short explanation'
complete -c zelfwsim -l version -d 'the version'

complete -c zelfwsim -n "$command check show serve run" -a '(__fish_complete_suffix .toml)'
complete -c zelfwsim -n "$command from-trace rehearse" -F
complete -c zelfwsim -n "$command from-trace" -l run -x -d 'which run of the trace, -1 is the last'
complete -c zelfwsim -n "$command from-trace clone" -s o -r -F -d 'the file to write'
complete -c zelfwsim -n "$command clone rehearse" -l updater -r -F -d 'the updater'

complete -c zelfwsim -n "$command rehearse" -s p -x -a '(__fish_complete_directories)' -d 'firmware files'
complete -c zelfwsim -n "$command rehearse" -l json -d JSON
complete -c zelfwsim -n "$command rehearse" -s a -d 'go on after a failure'
complete -c zelfwsim -n "$command rehearse" -s f -d force
complete -c zelfwsim -n "$command rehearse" -s d -x -d 'only this product'
complete -c zelfwsim -n "$command rehearse" -s s -x -d 'only this device'
complete -c zelfwsim -n "$command rehearse" -s o -x -d 'a miscellaneous switch'
for letter in 0 1 2 3 4
    complete -c zelfwsim -n "$command rehearse" -s $letter -x -d 'a time-out in ms'
end

complete -c zelfwsim -n "$command serve" -l attach -d 'attach the devices to this machine'
complete -c zelfwsim -n "$command serve" -l listen -x -d 'where to listen'
complete -c zelfwsim -n "$command serve" -l port -x -d 'the TCP port'

complete -c zelfwsim -n "$command run" -l state -x -a '(__fish_complete_directories)' \
    -d 'what the devices remember'
complete -c zelfwsim -n "$command run" -l record -r -F -d 'append every transfer'
complete -c zelfwsim -n "$command run" -l hubs -d 'answer for hubs'
complete -c zelfwsim -n "$command run" -l library -x -a '(__fish_complete_directories)' \
    -d 'the simulation'
complete -c zelfwsim -n "$command run" -l preload -r -F -d 'a further object'
complete -c zelfwsim -n "$command run" -l virtual -d 'in virtual time'
complete -c zelfwsim -n "$command run" -l seed -x -d 'which order of threads'
complete -c zelfwsim -n "$command run" -l hold-up -x -d 'the longest, in ms'
complete -c zelfwsim -n "$command run" -l from-epoch -x -d 'what the clock shows'
complete -c zelfwsim -n "$command run" -l set-clock -x -d 'set the clock'
complete -c zelfwsim -n "$command run" -l limit -x -d 'the longest run'
complete -c zelfwsim -n "$command run" -l steps -x -d 'the most calls without a wait'
complete -c zelfwsim -n "$command run" -l busy -x -d 'the longest without a call'
