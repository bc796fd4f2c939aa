# shellcheck shell=sh
# For tests of programs as people use them: a work folder that goes again, and rows of expect. They end with `exit $failed`.
# shellcheck disable=SC2034 # $failed
failed=0
work=$(mktemp -d) && cd "$work" || exit 1
trap 'rm -rf "$work"' EXIT

expect() { # STATUS TEXT COMMAND...: the command ends with it, and says so
    status=$1 text=$2 outcome=0
    shift 2
    "$@" >output 2>&1 || outcome=$?
    if [ "$outcome" -eq "$status" ] && { [ -z "$text" ] || grep -q -- "$text" output; }; then return; fi
    echo "FAILED: $* ended with $outcome instead of $status, or without '$text':"
    cat output
    failed=1
}
