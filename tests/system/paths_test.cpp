// The other paths of an update, end to end with the real daemon: side-load, script-driven, full image.
#include <signal.h>
#include <sys/resource.h>

#include <cstring>
#include <filesystem>

#include "support/daemon_fixture.h"
#include "tools/play/sandbox.h"

namespace fs = std::filesystem;

namespace {

constexpr char WAKE_LOCK[] = "/run/vexa/powersave/fota";
constexpr char AGENT[] = "web-ui";

int simple(int32_t event, std::string_view text = "") {
    fota_event_msg msg = make_request(event, text);
    return fota_client_request(&msg, TIMEOUT_MS);
}

int start_sideload(const char* path = FOTA_UPGRADE_PKG) {
    update_session session = {.agent = AGENT, .package = path};
    return agent_sideload_start(session);
}

int start_script_driven() {
    fota_event_msg msg = make_request(FOTA_MSG_SUA_UPATE_START, "MDM2.1.07 x");
    strcpy(msg.payload.device_info.os_version, "5.2.1");
    strcpy(msg.payload.device_info.imei, "004999010640000");
    memset(msg.payload.device_info.model, 'M', sizeof msg.payload.device_info.model);
    return fota_client_request(&msg, TIMEOUT_MS);
}

struct Paths : DaemonTest {
    std::string device_version;

    void SetUp() override {
        DaemonTest::SetUp();
        sh("sed -i 's#>VX<#>\\n VX <#' " + std::string(FOTA_CONFIG_FILE));
        start();
        char kernel[FOTA_TEXT_SIZE] = "";
        ASSERT_EQ(fota_client_get_kernel_version(kernel, TIMEOUT_MS), SUCCESS);
        device_version = std::string("MDM2.1.07-") + kernel + "-5.2.1";
        sh("mkdir -p /opt/bench/content /opt/qast/data/webui/uploads; cd /opt/bench; echo one >content/a");
    }

    static void package(const std::string& source, const std::string& options = "") {
        sh("cd /opt/bench; fotapkg package --content content --keys $K --source 0.9 --source " + source +
           " --target 2.0 --description Text --estimate 600 " + options + " -o upgrade.zip");
    }

    static void download() { sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_UPGRADE_PKG); }

    // Uploads a bundle of three pieces; `spoil` changes its folder first.
    static void upload(const std::string& spoil = ":") {
        sh("rm -rf /opt/bench/b; mkdir /opt/bench/b; cd /opt/bench/b; split -n 3 -d ../upgrade.zip piece; "
           "for p in piece*; do openssl dgst -sha256 -sign $K/build_key.pem -out $p.sign $p; "
           "printf '%s \\r\\n\\n' $p.sign >>pkg_list; done; " +
           spoil + "; rm -f ../b.zip; zip -q $Y ../b.zip *; cp ../b.zip " + FOTA_WEBUI_UPLOAD);
    }

    // Nothing of a session, and every request served.
    void expect_idle(const std::string& files) {
        EXPECT_EQ(list_folder(FOTA_DATA_DIR), files);
        EXPECT_FALSE(exists(FOTA_SIDELOAD_TMP_DIR));
        EXPECT_EQ(fota_client_create_session_lock("next", TIMEOUT_MS), SUCCESS);
        EXPECT_EQ(fota_client_clear_session_lock("next", TIMEOUT_MS), SUCCESS);
    }
};

TEST_F(Paths, SideloadBundles) {
    package(device_version);
    const std::string pieces = "piece00 piece00.sign piece01 piece01.sign piece02 piece02.sign";
    const std::string everything = pieces + " pkg_list";
    const struct {
        const char *name, *spoil;
        int result;
        const char *log, *joined;  // the pieces in upgrade.zip afterwards
        std::string left;          // in the side-load folder
    } rows[] = {
        {"good", ":", SUCCESS, "Package preparation successful", "piece00 piece01 piece02", ""},
        {"bad second signature", "cp piece00.sign piece01.sign", FOTA_RC_PKG_INVALID,
         "fota_verify_digest_signature() failed for file:/dev/sideload_tmp/piece01\n", "piece00",
         "piece00.sign piece01 piece01.sign piece02 piece02.sign pkg_list"},
        {"missing piece", "rm piece02", FOTA_RC_PKG_INVALID,
         "File:/dev/sideload_tmp/piece02 not found in pkg\n", "piece00 piece01",
         "piece00.sign piece01.sign piece02.sign pkg_list"},
        {"missing signature", "rm piece00.sign", FOTA_RC_PKG_INVALID,
         "File:piece00.sign not found but exists in pkg list\n", "",
         "piece00 piece01 piece01.sign piece02 piece02.sign pkg_list"},
        {"empty list", "echo >pkg_list", FOTA_RC_PKG_INVALID,
         "sideload_decrypt_files_in_list() failed, rc=656369\n", "", everything},
        {"a list behind a link", "mv pkg_list ..; ln -s /opt/bench/pkg_list; Y=-y", FOTA_RC_PKG_INVALID,
         "Sideload pkg list not found!!\n", "old", everything},
        {"a piece behind a link", "mv piece00 ..; ln -s /opt/bench/piece00; Y=-y", FOTA_RC_PKG_INVALID,
         "File:/dev/sideload_tmp/piece00 not found in pkg\n", "", everything},
        {"no list", "rm pkg_list", FOTA_RC_PKG_INVALID, "Sideload pkg list not found!!\n", "old", pieces},
        {"a name that leads out of the folder", "echo ../../opt/bench/b/piece00.sign >pkg_list",
         FOTA_RC_PKG_INVALID, "File:../../opt/bench/b/piece00.sign not found but exists in pkg list\n", "",
         everything},
        {"a name that is only a suffix", "mv piece02 abcde; echo abcde >pkg_list", FOTA_RC_PKG_INVALID,
         "File:abcde not found but exists in pkg list\n", "",
         "abcde piece00 piece00.sign piece01 piece01.sign piece02.sign pkg_list"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        put_file(FOTA_UPGRADE_PKG, "old");
        put_file(WAKE_LOCK, "");
        sh(": >/var/log/debug_log; rm -rf /dev/sideload_tmp; mkdir -p /opt/planted; ln -s /opt/planted "
           "/dev/sideload_tmp");
        upload(row.spoil);
        EXPECT_EQ(fotapkg_json("verify --bundle --keys $K " + std::string(FOTA_WEBUI_UPLOAD))["answer"],
                  row.result);
        EXPECT_EQ(simple(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, FOTA_WEBUI_UPLOAD), row.result);
        EXPECT_TRUE(log_has(row.log)) << get_file(DEBUG_LOG);
        EXPECT_FALSE(exists(FOTA_WEBUI_UPLOAD));
        EXPECT_EQ(list_folder("/opt/planted"), "") << "a planted link is not followed";
        if (row.joined[0] != '\0') {
            sh("cd /opt/bench; split -n 3 -d upgrade.zip piece; printf old >old; cat " +
               std::string(row.joined) + " | cmp - " + FOTA_UPGRADE_PKG);
        } else {
            EXPECT_FALSE(exists(FOTA_UPGRADE_PKG));
        }
        EXPECT_EQ(list_folder(FOTA_SIDELOAD_TMP_DIR), row.left);
        EXPECT_FALSE(exists(WAKE_LOCK));
    }
    EXPECT_GE(std::stoi(get_file("/run/vexa/watchdog/fota")), 4) << "kept alive piece by piece";
    put_file(FOTA_WEBUI_UPLOAD, "no zip");
    EXPECT_EQ(simple(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, FOTA_WEBUI_UPLOAD),
              static_cast<int>(FOTA_RC_FAILURE));
    EXPECT_TRUE(exists(FOTA_WEBUI_UPLOAD)) << "not deleted before it is unpacked";
}

TEST_F(Paths, SideloadsThatDoNotStart) {
    const struct {
        const char *name, *path;
        int result;
        uint32_t status;  // of the record made, 0: none
        const char* reason;
    } rows[] = {
        {"no package", "/opt/none", FOTA_RC_PKG_NOT_FOUND, 0, ""},
        {"a path that no command may see", "/opt/bench/a b", FOTA_RC_FAILURE, 0, ""},
        {"too big", "/opt/bench/big", FOTA_RC_PKG_TOO_BIG, 0, ""},
        {"invalid", "/opt/bench/content/a", FOTA_RC_PKG_VALIDATION_FAILED, 404, "Signature failed"},
        {"for another version", FOTA_WEBUI_UPLOAD, FOTA_RC_SRC_VERSION_MISMATCH, 403,
         "Version mismatch during scout"},
    };
    sh("cd /opt/bench; echo x >'a b'; truncate -s 100M big");
    uint32_t records = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        package(row.status == 403 ? "1.0" : device_version);
        sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_WEBUI_UPLOAD);
        EXPECT_EQ(start_sideload(row.path), row.result);
        if (row.status != 0) ++records;
        const fota_history_rec record = stored_record(records);
        EXPECT_EQ(stored_record(records + 1).rec_id, 0u);
        if (row.status != 0) {
            EXPECT_EQ(record.status, row.status);
            EXPECT_STREQ(record.reason, row.reason);
            EXPECT_STREQ(record.pkg_info.update_method, "Sideload");
        }
        expect_idle(records == 0 ? "" : "history.bin update_check");
    }
    const std::string announced = get_file("/run/vexa/msgbus/fota.update_status");
    EXPECT_EQ(announced.size(), sizeof(fota_history_rec));
}

TEST_F(Paths, ScriptDrivenStartAndFactoryReset) {
    ASSERT_EQ(fota_client_create_session_lock("other", TIMEOUT_MS), SUCCESS);
    put_file(FOTA_STAGING_LPM, "of before");
    ASSERT_EQ(start_script_driven(), SUCCESS);
    EXPECT_EQ(get_file(FOTA_SESSION_LOCK), "SUA");
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "device_info/ update_dlpkg_verified");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_SWV), "VX-MDM2.1.07-5.2.1");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_IMEI), "004999010640000");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_MDN), "");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_MODEL), std::string(254, 'M'));
    EXPECT_EQ(simple(FOTA_MSG_FACTORY_RESET), SUCCESS);
    EXPECT_TRUE(eventually([] { return log_has("sua_preinstall_wait: Exit"); }));
    EXPECT_TRUE(log_has("sua_preinstall_wait: Start of the installation given up\n"));
    EXPECT_FALSE(exists(WAKE_LOCK));
    EXPECT_EQ(asked_to_install(false), "");
    expect_idle("");
}

TEST_F(Paths, FullImagesThatAreNotInstalled) {
    const struct {
        const char* name;
        const char* script;  // null: the package lacks it
        uint32_t status;     // of the record once it is over
        const char* commands;
    } rows[] = {
        {"fails", "#!/bin/sh\necho 502 >/opt/qast/data/fota/staging/result_failure\nexit 3\n", 502,
         "telinit 6\n"},
        {"has no script", nullptr, 409, "(none)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TearDown();
        SetUp();
        if (row.script != nullptr) fs::remove_all(DEVICE_DSM_FOLDER);
        put_file("/opt/bench/full", row.script != nullptr ? row.script : "#!/bin/sh\n");
        package("1.0", "--full-image full");
        download();
        update_session session = {.agent = AGENT};
        ASSERT_EQ(agent_lock(session), SUCCESS);
        ASSERT_EQ(agent_validate(session), SUCCESS);
        if (row.script == nullptr) fs::remove(FOTA_STAGING_FULL_FOTA_SCRIPT);
        ASSERT_EQ(agent_start(session), SUCCESS);
        EXPECT_TRUE(eventually([&] {
            return exists(FOTA_RESULT_PROCESSED) && !exists(FOTA_STAGING_DIR) &&
                   get_file(SANDBOX_COMMAND_LOG) == row.commands;
        }));
        EXPECT_EQ(asked_to_install(true).empty(), row.script == nullptr) << "the device stays up";
        ASSERT_EQ(agent_update_status(session), SUCCESS);
        EXPECT_EQ(session.outcome.status, row.status);
        EXPECT_EQ(session.outcome.reason, "cannot map error - (" + std::to_string(row.status) + ")");
        expect_idle("history.bin update_check");
    }
}

TEST_F(Paths, AThreadThatCannotBeMadeEndsASideload) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer takes more address space than any limit that this could set";
#endif
    package(device_version);
    download();
    // Room for all but a thread's stack.
    const std::string mapped = get_file("/proc/" + std::to_string(daemon) + "/statm");
    const rlimit limit = {std::stoul(mapped) * 4096 + (6 << 20), RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon, RLIMIT_AS, &limit, nullptr), 0);
    EXPECT_EQ(start_sideload(), static_cast<int>(FOTA_RC_INSTALL_START_FAILED));
    EXPECT_TRUE(log_has("errno:11\n")) << "EAGAIN";
    EXPECT_EQ(stored_record(1).status, 409u);
    expect_idle("history.bin update_check");
}

TEST_F(Paths, StopsDuringTheWaits) {
    package(device_version);
    download();
    // Another spelling of its own place.
    update_session session = {.agent = AGENT, .package = "/opt/qast/data/fota//./upgrade.zip"};
    ASSERT_EQ(agent_sideload_start(session), SUCCESS);
    EXPECT_EQ(session.estimate_secs, 600u);
    EXPECT_EQ(stored_record(1).pkg_info.pkg_size, fs::file_size("/opt/bench/upgrade.zip"));
    reboot();
    EXPECT_EQ(asked_to_install(false), "");
    ASSERT_EQ(start_script_driven(), SUCCESS);
    reboot();
    expect_idle("history.bin update_check");
}

// What docs/state-files.md tells a client to do when the files hold each other up.
TEST_F(Paths, WaysOutOfATightSpot) {
    put_file("/opt/bench/full",
             "#!/bin/sh\necho to flash\nwhile [ ! -e /opt/go ]; do sleep 0.01; done\necho flashed >&2\n");
    package(device_version, "--full-image full");
    // A full image is interrupted: its flag stays until there is a result.
    download();
    ASSERT_EQ(start_sideload(), SUCCESS);
    EXPECT_TRUE(eventually([] { return log_has("\nto flash\n"); }));
    end(SIGKILL, 128 + SIGKILL);
    start();
    EXPECT_TRUE(fs::remove(FOTA_SIDELOAD_COOKIE));
    EXPECT_EQ(simple(FOTA_MSG_DECRYPT_PKG), static_cast<int>(FOTA_RC_FULL_FOTA_IN_PROGRESS));
    leave_result({.code = 409});
    end(SIGTERM, 0);
    start();
    EXPECT_EQ(stored_record(1).status, 409u);

    // A side-loaded full image is installed: the side-load's cookie outlives the start that records it, not
    // the next.
    put_file("/opt/go", "");
    fs::remove(FOTA_RESULT_PROCESSED);
    download();
    ASSERT_EQ(start_sideload(), SUCCESS);
    EXPECT_EQ(await_installation(true, TIMEOUT_MS), "device state manager: reset");
    EXPECT_TRUE(log_has("\nflashed\n"));
    leave_result({});
    reboot();
    EXPECT_EQ(stored_record(2).status, 200u);
    for (int event = 1; event <= 32; ++event) {
        EXPECT_EQ(simple(event), event == 30 ? SUCCESS : static_cast<int>(FOTA_RC_SIDELOAD_IN_PROGRESS));
    }
    end(SIGTERM, 0);
    start();
    expect_idle("history.bin result_processed update_check");
}

}  // namespace
