// The other paths of an update, end to end with the real daemon: side-load, script-driven, full image.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "sandbox.h"
#include "support/daemon_fixture.h"

namespace fs = std::filesystem;

namespace {

constexpr char RUN_LEVEL[] = "/run/vexa/dsm/persistent_mode";
constexpr char RESET[] = "/run/vexa/dsm/reset_device";
constexpr char WAKE_LOCK[] = "/run/vexa/powersave/fota";
constexpr char AGENT[] = "web-ui";

int send(fota_event_msg* msg) {
    return fota_client_request(msg, TIMEOUT_MS);
}

int simple(int32_t event, std::string_view text = "") {
    fota_event_msg msg = make_request(event, text);
    return send(&msg);
}

int start_sideload(const char* agent, const char* path, uint32_t* estimate = nullptr) {
    fota_event_msg msg = make_request(FOTA_MSG_SIDELOAD_START_INSTALLATION, agent);
    strcpy(msg.payload.sideload.pkg_path, path);
    const int result = send(&msg);
    if (estimate != nullptr) *estimate = msg.payload.sideload.est_update_time;
    return result;
}

int start_script_driven() {
    fota_event_msg msg = make_request(FOTA_MSG_SUA_UPATE_START, "MDM2.1.07 x");
    strcpy(msg.payload.device_info.os_version, "5.2.1");
    strcpy(msg.payload.device_info.imei, "004999010640000");
    memset(msg.payload.device_info.model, 'M', sizeof msg.payload.device_info.model);
    return send(&msg);
}

int validate_package() {
    fota_pkg_info info = {};
    strcpy(info.agent_name, AGENT);
    uint32_t id = 0;
    return fota_client_validate_update_pkg(FOTA_UPGRADE_PKG, &info, &id, TIMEOUT_MS);
}

struct Paths : DaemonTest {
    std::string device_version;

    void SetUp() override {
        DaemonTest::SetUp();
        sh("sed -i 's#>VX<#>\\n VX <#' " + std::string(FOTA_CONFIG_FILE));
        start();
        fota_event_msg msg = make_request(FOTA_MSG_GET_KERNEL_VERSION);
        ASSERT_EQ(send(&msg), SUCCESS);
        device_version = std::string("MDM2.1.07-") + msg.payload.text + "-5.2.1";
        sh("mkdir -p /opt/bench/content /opt/qast/data/webui/uploads; cd /opt/bench; echo one >content/a");
    }

    static void package(const std::string& source, const std::string& options = "") {
        sh("cd /opt/bench; fotapkg package --content content --keys $K --source 0.9 --source " + source +
           " --target 2.0 --description Text --estimate 600 " + options + " -o upgrade.zip");
    }

    // Uploads a bundle of three pieces; `spoil` changes its folder first.
    static void upload(const std::string& spoil = ":") {
        sh("rm -rf /opt/bench/b; mkdir /opt/bench/b; cd /opt/bench/b; split -n 3 -d ../upgrade.zip piece; "
           "for p in piece*; do openssl dgst -sha256 -sign $K/build_key.pem -out $p.sign $p; "
           "printf '%s \\r\\n\\n' $p.sign >>pkg_list; done; " +
           spoil + "; rm -f ../b.zip; zip -q $Y ../b.zip *; cp ../b.zip " + FOTA_WEBUI_UPLOAD);
    }

    void reboot() {
        if (daemon > 0) end(SIGTERM, 0);
        device_reboot();
        start();
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
        const char* name;
        const char* spoil;
        int result;
        const char* log;
        const char* joined;  // the pieces in upgrade.zip afterwards
        std::string left;    // in the side-load folder
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
    EXPECT_EQ(simple(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, "/opt/none"),
              static_cast<int>(FOTA_RC_PKG_NOT_FOUND));
}

TEST_F(Paths, SideloadsThatDoNotStart) {
    const struct {
        const char* name;
        const char* path;
        const char* agent;
        int result;
        uint32_t status;  // of the record made, 0: none
        const char* reason;
    } rows[] = {
        {"no agent", FOTA_UPGRADE_PKG, "", FOTA_RC_INVALID_PARAM, 0, ""},
        {"no package", "/opt/none", AGENT, FOTA_RC_PKG_NOT_FOUND, 0, ""},
        {"a path that no command may see", "/opt/bench/a b", AGENT, FOTA_RC_FAILURE, 0, ""},
        {"too big", "/opt/bench/big", AGENT, FOTA_RC_PKG_TOO_BIG, 0, ""},
        {"invalid", "/opt/bench/content/a", AGENT, FOTA_RC_PKG_VALIDATION_FAILED, 404, "Signature failed"},
        {"for another version", FOTA_WEBUI_UPLOAD, AGENT, FOTA_RC_SRC_VERSION_MISMATCH, 403,
         "Version mismatch during scout"},
    };
    sh("cd /opt/bench; echo x >'a b'; truncate -s 100M big");
    uint32_t records = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        package(row.status == 403 ? "1.0" : device_version);
        sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_WEBUI_UPLOAD);
        EXPECT_EQ(start_sideload(row.agent, row.path), row.result);
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

    ASSERT_EQ(fota_client_create_session_lock("other", TIMEOUT_MS), SUCCESS);
    EXPECT_EQ(start_sideload(AGENT, FOTA_UPGRADE_PKG), static_cast<int>(FOTA_RC_INVALID_PARAM));
    EXPECT_FALSE(exists(FOTA_SIDELOAD_COOKIE));
    EXPECT_EQ(get_file(FOTA_SESSION_LOCK), "other");
}

TEST_F(Paths, SideloadEndToEnd) {
    package(device_version);
    upload();
    ASSERT_EQ(simple(FOTA_MSG_SIDELOAD_PREPARE_PACKAGE, FOTA_WEBUI_UPLOAD), SUCCESS);
    uint32_t estimate = 0;
    // Another spelling of its own place.
    ASSERT_EQ(start_sideload(AGENT, "/opt/qast/data/fota//./upgrade.zip", &estimate), SUCCESS);
    EXPECT_EQ(estimate, 600u);
    EXPECT_TRUE(exists(WAKE_LOCK));
    EXPECT_TRUE(exists(FOTA_STAGING_UPDATE_PRE_INSTALL));
    for (int event = 1; event <= 32; ++event) {
        EXPECT_EQ(simple(event), event == 30 ? SUCCESS : static_cast<int>(FOTA_RC_SIDELOAD_IN_PROGRESS))
            << event;
    }
    ASSERT_TRUE(appears(RUN_LEVEL));
    EXPECT_EQ(get_file(RUN_LEVEL), "5");
    EXPECT_EQ(get_file("/run/vexa/msgbus/fota.backup_before_update"), std::string("\1\0\0\0", 4));
    put_file(FOTA_STAGING_UPDATE_SUCCESS, "");
    reboot();
    fota_history_rec record = {};
    ASSERT_EQ(fota_client_get_update_status(AGENT, &record, TIMEOUT_MS), SUCCESS);
    EXPECT_EQ(record.status, 200u);
    EXPECT_STREQ(record.pkg_info.update_method, "Sideload");
    EXPECT_EQ(record.pkg_info.pkg_size, fs::file_size("/opt/bench/upgrade.zip"));
    expect_idle("history.bin update_check");
}

TEST_F(Paths, ScriptDrivenEndToEnd) {
    ASSERT_EQ(fota_client_create_session_lock("other", TIMEOUT_MS), SUCCESS);
    put_file(FOTA_STAGING_LPM, "of before");
    ASSERT_EQ(start_script_driven(), SUCCESS);
    EXPECT_EQ(get_file(FOTA_SESSION_LOCK), "SUA");
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "device_info/ update_dlpkg_verified");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_SWV), "VX-MDM2.1.07-5.2.1");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_IMEI), "004999010640000");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_MDN), "");
    EXPECT_EQ(get_file(FOTA_DEVICE_DETAILS_MODEL), std::string(254, 'M'));
    EXPECT_EQ(fota_client_create_session_lock("other", TIMEOUT_MS), LOCKED);
    put_file(FOTA_STAGING_SUA_PKG_VER, "3.0");
    ASSERT_TRUE(appears(RUN_LEVEL));
    EXPECT_TRUE(exists(FOTA_STAGING_SUA_COOKIE));
    EXPECT_TRUE(exists(FOTA_STAGING_UPDATE_PRE_INSTALL));
    put_file(FOTA_STAGING_UPDATE_FAILURE, "-2147483635");
    reboot();
    fota_history_rec record = {};
    ASSERT_EQ(fota_client_get_update_status("SUA", &record, TIMEOUT_MS), SUCCESS);
    EXPECT_EQ(record.status, 402u);
    EXPECT_STREQ(record.pkg_info.pkg_ver, "3.0");
    expect_idle("history.bin update_check");
}

TEST_F(Paths, FactoryResetDuringTheScriptDrivenWait) {
    ASSERT_EQ(start_script_driven(), SUCCESS);
    EXPECT_EQ(simple(FOTA_MSG_FACTORY_RESET), SUCCESS);
    for (int look = 0; look < 500 && !log_has("sua_preinstall_wait: Exit"); ++look) usleep(10000);
    EXPECT_TRUE(log_has("sua_preinstall_wait: Start of the installation given up\n"));
    EXPECT_FALSE(exists(WAKE_LOCK));
    EXPECT_FALSE(exists(RUN_LEVEL));
    expect_idle("");
}

TEST_F(Paths, FullImage) {
    const struct {
        const char* name;
        const char* script;  // null: the package lacks it
        uint32_t status;     // of the record once it is over
        const char* reason;
        const char* telinit;
    } rows[] = {
        {"installs itself",
         "#!/bin/sh\nset -e\necho to flash\nwhile [ ! -e /opt/go ]; do sleep 0.01; done\necho flashed >&2\n",
         200, "FW Upgrade success", "(none)"},
        {"fails", "#!/bin/sh\necho 502 >/opt/qast/data/fota/staging/result_failure\nexit 3\n", 502,
         "cannot map error - (502)", "telinit 6\n"},
        {"has no script", nullptr, 409, "cannot map error - (409)", "(none)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const bool works = row.status == 200;
        const bool telinit = row.telinit[0] == 't';
        TearDown();
        SetUp();
        if (telinit) fs::remove_all(DEVICE_DSM_FOLDER);
        put_file("/opt/bench/full", row.script != nullptr ? row.script : "#!/bin/sh\n");
        package("1.0", "--full-image full");
        sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_UPGRADE_PKG);
        ASSERT_EQ(fota_client_create_session_lock(AGENT, TIMEOUT_MS), SUCCESS);
        ASSERT_EQ(validate_package(), SUCCESS);
        if (row.script == nullptr) fs::remove(FOTA_STAGING_FULL_FOTA_SCRIPT);
        ASSERT_EQ(fota_client_start_installation(AGENT, 0, 0, TIMEOUT_MS), SUCCESS);
        if (works) {
            EXPECT_EQ(fota_client_create_session_lock(AGENT, TIMEOUT_MS),
                      static_cast<int>(FOTA_RC_FULL_FOTA_IN_PROGRESS));
            put_file("/opt/go", "");
            ASSERT_TRUE(appears(RESET));
            EXPECT_TRUE(log_has("\nto flash\n") && log_has("\nflashed\n"));
            EXPECT_EQ(get_file("/run/vexa/msgbus/fota.upgrade_status")[0], 2);
            // The flag stays over the reset, and files of a side-load with it; the PRI configurations are
            // upgraded meanwhile.
            put_file(FOTA_SIDELOAD_COOKIE, "");
            reboot();
            EXPECT_TRUE(fs::remove(FOTA_SIDELOAD_COOKIE));
            int32_t status = 0;
            EXPECT_EQ(fota_client_get_upgrade_status(&status, TIMEOUT_MS), SUCCESS);
            EXPECT_EQ(status, 1);
            put_file(FOTA_STAGING_UPDATE_SUCCESS, "");
            reboot();
        } else if (row.script != nullptr) {
            ASSERT_TRUE(appears(telinit ? SANDBOX_COMMAND_LOG : RESET));
        } else {
            ASSERT_TRUE(appears(FOTA_RESULT_PROCESSED));
            for (int look = 0; look < 500 && exists(FOTA_STAGING_DIR); ++look) usleep(10000);
            EXPECT_FALSE(exists(RESET)) << "the device stays up";
        }
        EXPECT_EQ(get_file(SANDBOX_COMMAND_LOG), row.telinit);
        fota_history_rec record = {};
        ASSERT_EQ(fota_client_get_update_status(AGENT, &record, TIMEOUT_MS), SUCCESS);
        EXPECT_EQ(record.status, row.status);
        EXPECT_STREQ(record.reason, row.reason);
        expect_idle("history.bin update_check");
    }
}

TEST_F(Paths, AThreadThatCannotBeMadeEndsASideload) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer takes more address space than any limit that this could set";
#endif
    package(device_version);
    sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_UPGRADE_PKG);
    // Room for all but a thread's stack.
    const std::string mapped = get_file("/proc/" + std::to_string(daemon) + "/statm");
    const rlimit limit = {std::stoul(mapped) * 4096 + (6 << 20), RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon, RLIMIT_AS, &limit, nullptr), 0);
    EXPECT_EQ(start_sideload(AGENT, FOTA_UPGRADE_PKG), static_cast<int>(FOTA_RC_INSTALL_START_FAILED));
    EXPECT_TRUE(log_has("errno:11\n")) << "EAGAIN";
    EXPECT_EQ(stored_record(1).status, 409u);
    EXPECT_FALSE(exists(WAKE_LOCK));
    expect_idle("history.bin update_check");
}

TEST_F(Paths, StopsAndKillsDuringTheWaits) {
    for (const int signal_number : {SIGTERM, SIGKILL}) {
        package(device_version);
        sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_UPGRADE_PKG);
        ASSERT_EQ(start_sideload(AGENT, FOTA_UPGRADE_PKG), SUCCESS);
        end(signal_number, signal_number == SIGKILL ? 128 + SIGKILL : 0);
        EXPECT_TRUE(exists(FOTA_SIDELOAD_COOKIE)) << "ended without waiting for its thread";
        reboot();
        EXPECT_FALSE(exists(RUN_LEVEL));
        expect_idle("history.bin update_check");

        ASSERT_EQ(start_script_driven(), SUCCESS);
        end(signal_number, signal_number == SIGKILL ? 128 + SIGKILL : 0);
        reboot();
        expect_idle("history.bin update_check");
    }
}

// What docs/state-files.md tells a client to do when the files hold each other up.
TEST_F(Paths, WaysOutOfATightSpot) {
    put_file("/opt/bench/full", "#!/bin/sh\nwhile [ ! -e /opt/go ]; do sleep 0.01; done\n");
    package(device_version, "--full-image full");
    // A full image is interrupted: its flag stays until there is a result.
    sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_UPGRADE_PKG);
    ASSERT_EQ(start_sideload(AGENT, FOTA_UPGRADE_PKG), SUCCESS);
    for (int look = 0; look < 500 && !log_has("started executing full fota script"); ++look) usleep(10000);
    end(SIGKILL, 128 + SIGKILL);
    start();
    fs::remove(FOTA_SIDELOAD_COOKIE);
    EXPECT_EQ(simple(FOTA_MSG_DECRYPT_PKG), static_cast<int>(FOTA_RC_FULL_FOTA_IN_PROGRESS));
    put_file(FOTA_STAGING_UPDATE_FAILURE, "409");
    end(SIGTERM, 0);
    start();
    EXPECT_EQ(stored_record(1).status, 409u);

    // A side-loaded full image is installed: the side-load's cookie outlives the start that records it, not
    // the next.
    put_file("/opt/go", "");
    fs::remove(FOTA_RESULT_PROCESSED);
    sh(std::string("cp /opt/bench/upgrade.zip ") + FOTA_UPGRADE_PKG);
    ASSERT_EQ(start_sideload(AGENT, FOTA_UPGRADE_PKG), SUCCESS);
    ASSERT_TRUE(appears(RESET));
    put_file(FOTA_STAGING_UPDATE_SUCCESS, "");
    reboot();
    EXPECT_EQ(stored_record(2).status, 200u);
    EXPECT_EQ(simple(FOTA_MSG_DECRYPT_PKG), static_cast<int>(FOTA_RC_SIDELOAD_IN_PROGRESS));
    end(SIGTERM, 0);
    start();
    expect_idle("history.bin result_processed update_check");
}

}  // namespace
