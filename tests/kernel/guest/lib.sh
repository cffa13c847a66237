# shellcheck shell=sh
# What the runs share. Every check prints a line; a failed one begins with "FAILED" and the run
# goes on, so that one boot shows all there is to see.

failures=0
checks=0
firmware=/firmware

failed() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# check <what> <command ...>: the command must succeed.
check() {
    what=$1
    shift
    checks=$((checks + 1))
    if "$@"; then
        echo "ok: $what"
    else
        failed "$what"
    fi
}

# updater <name> <exit code> <argument ...>: runs the program; console and log go to /results.
updater() {
    name=$1 expected=$2
    shift 2
    echo "\$ zelfwupdate $*"
    zelfwupdate -l "/results/$name.log" "$@" >"/results/$name.console" 2>&1
    code=$?
    cat "/results/$name.console"
    check "$name: exit code $code, expected $expected" [ "$code" = "$expected" ]
    check "$name: no interface is left claimed" none_claimed
}

# says <name> <text>: a line of the console holds the text.
says() {
    check "$1 says: $2" grep -qF -e "$2" "/results/$1.console"
}

says_not() {
    check "$1 does not say: $2" lacks "$2" "/results/$1.console"
}

# logs <name> <text>: a line of the log holds the text.
logs() {
    check "the log of $1 says: $2" grep -qF -e "$2" "/results/$1.log"
}

lacks() {
    ! grep -qF -e "$1" "$2"
}

# lines <name> <text>: how many lines of the console hold the text.
lines() {
    grep -cF -e "$2" "/results/$1.console"
}

# In what follows nothing is started that the shell has itself: emulated processes are slow.

# driven <interface> <driver>: an interface as sysfs names it, as in 1-2:1.0.
driven() {
    [ -e "/sys/bus/usb/drivers/$2/$1" ]
}

# device_of <serial>: sets `device` to the device's name in sysfs.
device_of() {
    for device in /sys/bus/usb/devices/*; do
        serial=
        [ ! -e "$device/serial" ] || read -r serial <"$device/serial"
        device=${device##*/}
        [ "$serial" != "$1" ] || return 0
    done
    return 1
}

none_claimed() {
    for interface in /sys/bus/usb/drivers/usbfs/*:*; do
        [ ! -e "$interface" ] || return 1
    done
}

# all_driven <serial ...>: usbhid holds every interface of these devices.
all_driven() {
    for wanted in "$@"; do
        device_of "$wanted" || return 1
        for interface in "/sys/bus/usb/devices/$device/$device":*; do
            driven "${interface##*/}" usbhid || return 1
        done
    done
}

# all_there <serial ...>
all_there() {
    for wanted in "$@"; do
        device_of "$wanted" || return 1
    done
}

is_gone() {
    ! device_of "$1"
}

# wait_for <seconds> <command ...>: until it succeeds.
wait_for() {
    tries=$(($1 * 5))
    shift
    while ! "$@"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.2
    done
}

# serve <bus file> [option ...]: starts the server of the simulated bus on /state.
serve() {
    bus=$1
    shift
    ZELFWSIM_RECORD=/results/record.tsv zelfwsim serve "$@" "$bus" /state >>/results/server.out 2>&1 &
    server=$!
}

stop_server() {
    kill "$server"
    wait "$server"
}

# record_bus: writes down what goes over every bus from now on, each transfer with its usbmon header.
record_bus() {
    cat /dev/usbmon0 >/results/usbmon.bin &
    bus_record=$!
}

stop_bus_record() {
    kill "$bus_record"
    wait "$bus_record"
    cp /tmp/zelfwtrace.log /results/trace.bin
}

# holds_image <device> <component> <firmware file>: what the device keeps is the file's body.
holds_image() {
    tail -c +9 "$firmware/$3" | cmp -s - "/state/devices/$1/image-$2.bin"
}

# updated <device> <component> <firmware file>
updated() {
    check "$1 holds $3" holds_image "$1" "$2" "$3"
}

# state_of <device> <key>: a value of the device's state.
state_of() {
    sed -n "s/^$2 = \"\{0,1\}\([^\"]*\)\"\{0,1\}$/\1/p" "/state/devices/$1/state.toml" | head -n 1
}

finish() {
    echo "$checks checks, $failures failed"
    [ "$failures" != 0 ] || echo "ALL PASSED"
}
