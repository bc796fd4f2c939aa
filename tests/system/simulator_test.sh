#!/bin/sh
# fotasim as a person uses it: simulator_test.sh PROGRAMS KEYS PACKAGE
# shellcheck disable=SC2317 # expect() calls the functions
set -u
export PATH="$1:$PATH" SHELL=/bin/bash
keys=$2 package=$3
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
exit "$failed"
