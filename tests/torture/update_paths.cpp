#include "torture/update_paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "fota/fota_client.h"
#include "support/device_files.h"
#include "tools/play/device.h"
#include "tools/play/sandbox.h"

namespace fs = std::filesystem;

namespace {

constexpr int TIMEOUT_MS = 10000;
constexpr char PACKAGES[] = "/run/sim/packages";  // outlives a simulated reboot

client_notes* client;  // of the process that runs one

int be_refused(update_session& session) {
    return agent_validate(session) == FOTA_RC_SUCCESS ? FOTA_RC_FAILURE : FOTA_RC_SUCCESS;
}

int give_up(update_session&) {
    const int answer = fota_client_abort_current_session("dm", 402, "corrupt", TIMEOUT_MS);
    if (answer == FOTA_RC_SUCCESS) client->told.status = 402;
    return answer;
}

// The outcome of an update, or of a fall-back.
template <agent_request ask>
int collect(update_session& session) {
    client->told.processed = true;
    const int answer = ask(session);
    if (answer == FOTA_RC_SUCCESS && session.outcome.rec_id != 0) {
        session.rec_id = session.outcome.rec_id;
        client->told.status = session.outcome.status;
        client->told.handed_out = true;
    }
    return answer;
}

constexpr agent_request BY_SCRIPT[] = {agent_script_start};
constexpr agent_request BE_REFUSED[] = {agent_lock, agent_download, be_refused};
constexpr agent_request GIVE_UP[] = {agent_lock,     agent_download, agent_validate,
                                     agent_validate, agent_defer,    give_up};
constexpr agent_request COLLECT[] = {collect<agent_update_status>};
constexpr agent_request COLLECT_REVERT[] = {collect<agent_revert_status>};

void place(const char* package, const char* path) {
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(PACKAGES + std::string("/") + package, path);
}

const installer_outcome INSTALLED = {};
const installer_outcome FAILED = {.code = -2147483635};
const installer_outcome FELL_BACK = {.revert_code = 410, .reason = "does not boot\n"};

using enum package_content;
const package_file CONTENT[] = {{"a", "one\n"}, {"b", "two\n"}, {"d/c", "three\n"}};
// clang-format off
const update_path PATHS[] = {
    //                         agent  content       files    records fresh twice
    {"ota",        "good",    {"dm", GOOD,          CONTENT, 1, false, false}, {{nullptr, OVER_THE_AIR}, {&INSTALLED, COLLECT}}},
    {"ota-failed", nullptr,   {"dm", GOOD,          CONTENT, 1, true,  false}, {{nullptr, OVER_THE_AIR}, {&FAILED, COLLECT}}},
    {"sideload",   "bundle",  {"dm", GOOD,          CONTENT, 1, false, false}, {{nullptr, SIDE_LOAD}, {&INSTALLED, COLLECT}}},
    {"script",     nullptr,   {"SUA", NOT_VALIDATED, CONTENT, 1, false, true}, {{nullptr, BY_SCRIPT}, {&INSTALLED, COLLECT}}},
    {"full-image", "full",    {"dm", GOOD,          CONTENT, 1, false, false}, {{nullptr, OVER_THE_AIR}, {&INSTALLED, COLLECT}}},
    {"revert",     nullptr,   {"dm", GOOD,          CONTENT, 1, false, false},  {{&FELL_BACK, COLLECT_REVERT}}},
    {"refused",    "spoiled", {"dm", REFUSED,       CONTENT, 1, false, false}, {{nullptr, BE_REFUSED}}},
    {"abort",      nullptr,   {"dm", GOOD,          CONTENT, 2, true,  false}, {{nullptr, GIVE_UP}}},
};
// clang-format on

}  // namespace

std::span<const update_path> update_paths() {
    return PATHS;
}

void make_packages() {
    setenv("K", FOTA_TEST_KEYS, 1);
    setenv("PATH", (sandbox_program_folder() + ":" + std::getenv("PATH")).c_str(), 1);
    const char* const command =
        R"(set -e; mkdir -p /run/sim/packages/c; cd /run/sim/packages; echo one >c/a; echo two >c/b; mkdir c/d; echo three >c/d/c
        printf '#!/bin/sh\nexit 0\n' >full.sh
        make() {
            fotapkg package --content c --keys $K --source MDM2.1.07-4.14.98-5.2.1 --target 2.0 \
                --description Text --estimate 60 "$@" >>out
        }
        make -o good; make --full-image full.sh -o full; fotapkg bundle good --keys $K -o bundle >>out
        # As the builder does it, but with a file that does not match its checksum.
        cd c; echo 2.0 >target_ver; echo 1.0 >src_ver; md5sum a b >dlpkg_cksum; echo 3 >b; zip -q ../inner.zip *; cd ..
        openssl smime -sign -binary -nodetach -signer $K/build_cert.pem -inkey $K/build_key.pem -in inner.zip -out signed
        openssl smime -encrypt -binary -aes256 -in signed -out pkg_details.zip.enc $K/device_cert.pem
        zip -q spoiled.zip pkg_details.zip.enc; mv spoiled.zip spoiled)";
    if (std::system(command) != 0) throw std::runtime_error("cannot make the packages");
}

void set_up(const update_path& path) {
    device_seed(FOTA_TEST_KEYS);
    if (!path.facts.fresh) put_old_state();
    const bool uploaded = path.boots[0].requests.data() == SIDE_LOAD;
    if (path.package != nullptr) place(path.package, uploaded ? FOTA_WEBUI_UPLOAD : FOTA_UPGRADE_PKG);
}

void leave_normal_operation(const installer_outcome& outcome) {
    const bool installs =
        exists(FOTA_STAGING_UPDATE_PRE_INSTALL) || exists(FOTA_STAGING_UPDATE_PRE_FULL_FOTA_INSTALL);
    if (installs || outcome.revert_code) leave_result(outcome);
    if (exists(FOTA_STAGING_SUA_COOKIE)) put_file(FOTA_STAGING_SUA_PKG_NAME, "by script");
    device_reboot();
}

bool has_result() {
    return exists(FOTA_STAGING_UPDATE_SUCCESS) || exists(FOTA_STAGING_UPDATE_FAILURE) ||
           exists(FOTA_REVERT_MARKER);
}

void run_client(const update_path& path, const boot& one, client_notes& notes) {
    client = &notes;
    update_session session = {.agent = path.facts.agent,
                              .boot_preference = FOTA_BOOT_LPM,
                              .wait_secs = 1,
                              .timeout_ms = TIMEOUT_MS,
                              .package_timeout_ms = TIMEOUT_MS};
    // A fresh device has no folder for a package yet.
    if (path.facts.fresh) session.package_fd = open(GOOD_PACKAGE, O_RDONLY | O_CLOEXEC);
    std::strcpy(session.device.os_version, "5.2.1");
    session.rec_id = client->told.validated_id;
    int32_t ignored = 0;
    while (fota_client_get_upgrade_status(&ignored, TIMEOUT_MS) < 0) usleep(1000);
    for (const agent_request request : one.requests) {
        client->told.ready = false;  // it may be replaced, or given up
        client->last_answer = request(session);
        client->told.validated_id = session.rec_id;
        client->told.ready =
            client->last_answer == FOTA_RC_SUCCESS && exists(FOTA_STAGING_UPDATE_DLPKG_VERIFIED);
        if (client->last_answer != FOTA_RC_SUCCESS) return;
    }
    // Until the device has been asked to leave for the installation, or the session has ended.
    for (int look = 0; look < 400 && !client->told.processed && exists(FOTA_SESSION_LOCK); ++look) {
        if (!asked_to_install(false).empty() || !asked_to_install(true).empty()) return;
        usleep(5000);
    }
}
