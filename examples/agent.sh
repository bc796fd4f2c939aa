#!/bin/sh
# An update agent: agent.sh URL AGENT. Run it at boot and then from time to time; it goes on from where the device stands.
# Ends with 0 when an update was installed or nothing is left to do now, with 1 when an update failed. While the file
# /run/AGENT.busy exists an installation is put off. Needs curl and jq.
set -eu
url=$1
agent=$2
package=/opt/qast/data/fota/upgrade.zip

ask() { # FILTER COMMAND...: what the filter takes from the answer; why there is none fotactl says itself
    filter=$1
    shift
    answer=$(fotactl --json "$@") || return
    printf '%s\n' "$answer" | jq -r "$filter"
}
download() {
    limit=$(ask .data.max_bytes max-size)
    curl -sSf --max-filesize "$limit" -o "$package" "$url"
    [ "$(wc -c <"$package")" -le "$limit" ] # a server need not tell the size beforehand
}
has_package() {
    answer=$(fotactl --json current "$agent" 2>/dev/null) && return
    [ "$(printf '%s\n' "$answer" | jq -r .name)" = FOTA_RC_INVALID_PARAM ] || exit 1
    return 1
}

# After the reboot; handed out once.
outcome=$(ask '.data.record // empty | "\(.status) \(.reason)"' update-status "$agent")
if [ -n "$outcome" ]; then
    echo "$outcome"
    [ "${outcome%% *}" -eq 200 ]
    exit
fi
ask empty lock "$agent"
if ! has_package; then
    download
    ask empty --timeout 1800 validate "$agent" "$package" --name "${url##*/}" --method OTA
fi
if [ -e "/run/$agent.busy" ]; then
    ask empty defer "$agent"
    echo "put off"
else
    ask empty install "$agent"
    echo "installation started"
fi
