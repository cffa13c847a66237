# Fish completion for zelfwupdate. Names that devices and directories give are never expanded: they
# are not to be trusted.

# What the attached devices of the three vendors have in this file of sysfs.
function __zelfwupdate_attached --argument-names attribute
    test (id -u) = 0; or return
    set -l sysfs /sys/bus/usb/devices
    set -q ZELFWUPDATE_COMPLETION_SYSFS; and set sysfs $ZELFWUPDATE_COMPLETION_SYSFS
    for device in $sysfs/*/
        test -r $device/idVendor -a -r $device/$attribute; or continue
        read -l vendor <$device/idVendor
        read -l value <$device/$attribute
        string match -qr '^7a0[123]$' -- $vendor; and printf '%s\n' $value
    end | sort -u
end

# Whether this command can stand on the line: no other one does. Letters may be joined to one.
function __zelfwupdate_takes --argument-names letter
    set -l words (commandline -opc)
    test "$words[-1]" = -$letter; and return
    test $letter = F; and contains -- -F $words; and return
    not string match -qr -- '^-[a-z0-9]*[A-Z]' $words
end

# The firmware files of the directory that -p names, or of any.
function __zelfwupdate_files
    set -l words (commandline -opc)
    set -l at (contains -i -- -p $words); or set at 0
    if test $at -gt 0 -a $at -lt (count $words)
        set -l directory (string trim -r -c / -- $words[(math $at + 1)])
        for file in $directory/*.dat
            string replace -- $directory/ '' $file
        end
    else
        __fish_complete_suffix .dat
    end
end

complete -c zelfwupdate -f
complete -c zelfwupdate -n '__zelfwupdate_takes L' -s L -d 'list attached devices'
complete -c zelfwupdate -n '__zelfwupdate_takes U' -s U -d 'update devices'
complete -c zelfwupdate -n '__zelfwupdate_takes R' -s R -d 'reset devices'
complete -c zelfwupdate -n '__zelfwupdate_takes C' -s C -r -F -d 'update with the files of a list'
complete -c zelfwupdate -n '__zelfwupdate_takes G' -s G -x -a '(seq 0 14)' -d 'read a component'
complete -c zelfwupdate -n '__zelfwupdate_takes S' -s S -d 'show firmware files'
complete -c zelfwupdate -n '__zelfwupdate_takes D' -s D -x -a '(__fish_complete_suffix .dat)' \
    -d 'display a firmware file'
complete -c zelfwupdate -n '__zelfwupdate_takes V' -s V -d 'the version'
complete -c zelfwupdate -n '__zelfwupdate_takes E' -s E -x -a '(seq 0 13)' -d 'explain an exit code'
complete -c zelfwupdate -n '__zelfwupdate_takes F' -s F -x \
    -a '(__zelfwupdate_files)' -d 'update with this file'
complete -c zelfwupdate -s c -x -a '(seq 1 14)' -d 'send to this component'
complete -c zelfwupdate -s d -x -a '(__zelfwupdate_attached idProduct)' -d 'only this product'
complete -c zelfwupdate -s s -x -a '(__zelfwupdate_attached serial)' -d 'only this device'
complete -c zelfwupdate -s f -d 'install a level that is not higher, too'
complete -c zelfwupdate -s a -d 'go on after a failure'
complete -c zelfwupdate -s m -d 'a progress window (Windows)'
complete -c zelfwupdate -s r -r -F -d 'result file'
complete -c zelfwupdate -s p -x -a '(__fish_complete_directories)' -d 'the firmware files'
complete -c zelfwupdate -s l -r -F -d 'log, 0 for none'
complete -c zelfwupdate -s t -r -F -d 'trace, 0 for none'
complete -c zelfwupdate -s n -x -a '(seq 0 3)' -d 'how much is printed'
complete -c zelfwupdate -s o -x -a '(seq 0 5) help' -d 'a miscellaneous switch'
complete -c zelfwupdate -s w -r -F -d 'output file of -G'
complete -c zelfwupdate -s '?' -d help
complete -c zelfwupdate -s 0 -x -d 'time-out of queries in ms'
complete -c zelfwupdate -s 1 -x -d 'time-out of the erase in ms'
complete -c zelfwupdate -s 2 -x -d 'time-out of a record in ms'
complete -c zelfwupdate -s 3 -x -d 'time-out of the checksum in ms'
complete -c zelfwupdate -s 4 -x -d 'pause behind a main component in ms'
