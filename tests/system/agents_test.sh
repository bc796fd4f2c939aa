#!/bin/bash
# The example agents as a device runs them, and the Python package: agents_test.sh PROGRAMS KEYS PACKAGE LIBRARIES
# shellcheck disable=SC2317 # expect() calls the functions
set -u
source=$(realpath "${0%/*}/../..")
export PATH="$1:$PATH" SHELL=/bin/bash LD_LIBRARY_PATH=$4 PYTHONPATH=$source/python PYTHONDONTWRITEBYTECODE=1
keys=$2 folder=${3%/*} name=${3##*/}
# shellcheck source-path=SCRIPTDIR source=expect.sh
. "$(dirname "$0")/expect.sh"

exec 4< <(exec python3 -u -m http.server --bind 127.0.0.1 --directory "$folder" 0 2>/dev/null)
trap 'kill $!; rm -rf "$work"' EXIT
read -r -u 4 _ _ _ _ _ port _

update() { # AGENT: put off once, started, which is broadcast at once, and reported; prints what the history has of it
    run="$1 http://127.0.0.1:$port/$name ${1##*[./]}"
    fotasim shell --keys "$keys" --keep "$source" --keep "$LD_LIBRARY_PATH" <<SH
set -e
touch /run/${1##*[./]}.busy
$run | grep 'put off' && rm /run/*.busy && timeout 15 $run && install
$run | grep '^200 '
fotactl --json history | jq -c '[.data.records[] | [.agent, .status, .deferred, .package, .method]]'
SH
}
for agent in "$source/examples/agent.py" "$source/examples/agent.sh" "$1/example_agent"; do
    expect 0 "^\[\[\"${agent##*[./]}\",200,1,\"$name\",\"OTA\"\]\]$" update "$agent"
done

calls() {
    mapfile -t names < <(sed -nE 's/^ fota_(client_)?([a-z0-9_]+)@.*/\2/p' "$source/client/abi/symbols")
    fotasim exec --keep "$source" --keep "$LD_LIBRARY_PATH" -- python3 - "${names[@]}" <<'PY'
import select, sys
import fota_client as fota
assert len(sys.argv) > 40 and not [name for name in sys.argv[1:] if not hasattr(fota, name)]
msg = fota.EventMsg(event=2)
msg.payload.agent_id = name = "not UTF-8: \udcff"
call = fota.send(msg)
answer = select.select([call], [], [], 20)[0] and fota.receive(call)
fota.end(call)
assert answer and answer.result == fota.SUCCESS and call.fd == -1
try:
    fota.create_session_lock("other")
except fota.FotaError as error:
    print(error)
fota.create_session_lock(name)
fota.cfg_save_new_record("d", "v", name)
record = fota.cfg_get_current_record()
assert record.pkg_info.pkg_description == name and record.rec_type == 1, record
record.pkg_info.pkg_name = "name"
fota.modify_record_by_id(record)
assert fota.get_record_by_id(record.rec_id).pkg_info.pkg_name == "name"
PY
}
expect 0 "^the session lock belongs to another agent (FOTA_RC_LOCK_NOT_AVAILABLE)$" calls
exit "$failed"
