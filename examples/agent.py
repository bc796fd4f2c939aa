#!/usr/bin/env python3
"""An update agent: agent.py URL AGENT. Run it at boot and then from time to time; it goes on from where the device stands.

Ends with 0 when an update was installed or nothing is left to do now, with 1 when an update failed. While the file
/run/AGENT.busy exists an installation is put off.
"""
import os
import select
import sys
import urllib.request

import fota_client as fota

PACKAGE = "/opt/qast/data/fota/upgrade.zip"
VALIDATION_MS = 30 * 60 * 1000


def download(url: str) -> None:
    limit = fota.get_max_pkg_size()
    with urllib.request.urlopen(url, timeout=60) as answer, open(PACKAGE, "wb") as package:
        while block := answer.read(1 << 16):
            if package.tell() + len(block) > limit:
                raise ValueError(f"the package is larger than {limit} bytes")
            package.write(block)
        if answer.length:  # what did not come
            raise ValueError("the download was cut short")


def has_package(agent: str) -> bool:
    try:
        fota.get_current_sess_record(agent)
        return True
    except fota.FotaError as error:
        if error.name != "FOTA_RC_INVALID_PARAM":
            raise
        return False


def main(url: str, agent: str) -> int:
    outcome = fota.get_update_status(agent)  # after the reboot; handed out once
    if outcome.rec_id:
        print(outcome.status, outcome.reason)
        return 0 if outcome.status == 200 else 1
    fota.create_session_lock(agent)
    if not has_package(agent):
        download(url)
        info = fota.PkgInfo(agent_name=agent, pkg_name=os.path.basename(url), update_method="OTA")
        fota.validate_update_pkg(PACKAGE, info, VALIDATION_MS)
    if os.path.exists(f"/run/{agent}.busy"):
        fota.incr_install_defer_count(agent)
        print("put off")
        return 0
    bus = fota.broadcasts_open()
    fota.start_installation(agent)
    while select.select([bus], [], [], 20)[0]:  # not needed, but it shows how to listen
        broadcast = fota.broadcast_next(bus)
        if broadcast and broadcast.key == fota.BroadcastKey.UPGRADE_STATUS:
            break
    print("installation started")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(*sys.argv[1:]))
    except (fota.FotaError, OSError, ValueError) as error:
        sys.exit(f"agent: {error}")
