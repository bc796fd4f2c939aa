#!/bin/sh
# fotasim as a person uses it: simulator_test.sh PROGRAMS KEYS PACKAGE
# shellcheck disable=SC2317 # expect() calls the functions
set -u
export PATH="$1:$PATH" SHELL=/bin/bash
keys=$2 package=$3 scripts=$(realpath "${0%/*}/../../tools/completion")
# shellcheck source-path=SCRIPTDIR source=expect.sh
. "$(dirname "$0")/expect.sh"

play() { # OPTION...
    fotasim "$@" --package "$package" --keys "$keys"
}
in_shell() { # COMMANDS
    printf '%s\n' "$1" | fotasim shell --device device --keys "$keys" --keep "${package%/*}"
}
on_terminal() { # COMMANDS
    printf '%s\n' "$1" | script -qec "fotasim shell --device device" /dev/null
}
completes() { # WORD...: what bash could put in the last one's place
    # shellcheck disable=SC2016 # for the inner shell
    fotasim exec --device device --no-daemon --keep "$scripts" -- bash -c '. "$0"/bash
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _fota_tools "$1"; printf "%s\n" "${COMPREPLY[@]}"' "$scripts" "$@"
}
banner() { # names commands that there are; and what a terminal has
    on_terminal 'complete -p fotactl; script -qec tty /dev/null </dev/null; exit' >banner
    commands=$(sed -n 's/^  fotactl \([a-z-]*\).*/\1/p' banner)
    for command in $commands; do
        fotactl __complete "$command" | grep -q "^$command	" || return 1
    done
    [ -n "$commands" ] && grep -q '_fota_tools fotactl' banner && grep -q /dev/pts/0 banner
}
joined() { # COMMANDS
    mkfifo begin && { fotasim shell <begin & } && exec 4>begin
    until process=$(pgrep -x 'fotasim shell' -P "$(pgrep -P $!)"); do sleep .1; done 2>/dev/null
    status=0
    printf '%s\n' "$1" | fotasim join "$process" || status=$?
    echo 'fotactl update-status me; exit' >&4
    wait && return "$status"
}

expect 7 'Package corrupt in block 17' in_shell "fotactl lock me && cp $package /opt/qast/data/fota/upgrade.zip
fotactl validate me /opt/qast/data/fota/upgrade.zip || exit 2
install && exit 3
fotactl install me --wait 600 && power-cut || exit 4
install && exit 5
fotactl install me && install -2147483635 ' in block 17' || exit 6
fotactl update-status me
reboot-device && exit 7"
expect 0 'records: 1' play play --device device
expect 0 '402 ' fotasim exec --device device -- sh -c 'grep 5.3.0 /opt/qast/etc/vexaos-version && fotactl history'
expect 9 'monitor[[:space:]]*on' on_terminal 'set -o; sh -c "kill -INT 0"
fotactl upgrade-status && exit 9'
expect 2 'is running already' flock device/simulated-device.txt fotasim shell --device device
expect 2 'something else than a simulated device' fotasim shell --device "$keys"
expect 2 'the faults are installer, pri' play fault powercut=lock
expect 2 'its stages are lock, download' play fault no-dsm,power-cut=never
expect 12 '404 "Signature failed"' fotasim play --package "$keys/build_cert.pem" --keys "$keys"
expect 11 'came through .*power-cut=result' play fault 'power-cut=install-wait,failsafe=404:no,power-cut=result'
expect 0 '^run$' completes fotactl sideload r
expect 0 '^me$' completes fotactl update-status ''
expect 0 '^1$' completes fotactl history show ''
expect 0 '^NO_SESSION$' completes fotactl --json explain NO_S
expect 0 '^validate$' completes fotasim fault no-dsm,power-cut = va
expect 0 '^--store$' completes fotapkg package --content c --st
expect 0 '' banner
expect 6 'another agent' joined 'fotactl lock me && reboot-device && fotactl lock other || exit 6'
expect 0 'your folder /tmp is not in sight' sh -c 'cd /tmp && fotasim shell </dev/null'
exit "$failed"
