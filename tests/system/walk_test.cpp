// The commands of fotactl that make several requests, or none: whole updates, the watch, the codes.
#include <signal.h>

#include <set>

#include "install/engine_errors.h"
#include "support/daemon_fixture.h"
#include "tools/play/sandbox.h"

namespace {

// Runs a command, whose output ends up in /opt/out and holds `part`.
void run(const std::string& command, int expected_status, const std::string& part) {
    sh("cd /opt; s=0; (" + command + ") >out 2>&1 || s=$?; cat out; [ $s = " +
       std::to_string(expected_status) + " ]; grep -F -- '" + part + "' out");
}

struct Walk : DaemonTest {
    void SetUp() override {
        DaemonTest::SetUp();
        sh("cd /opt; mkdir c; echo 1 >c/a; echo 1 >'c/*'; fotapkg package -o p --content c --keys $K "
           "--target 2 "
           "--source MDM2.1.07-4.14.98-5.2.1 --description T; fotapkg bundle p --keys $K -o b");
    }
};

TEST_F(Walk, UpdatesWhileAWatchLooksOn) {
    FILE* watch = popen(("echo $$; exec " + sandbox_program_folder() + "/fotactl watch").c_str(), "re");
    pid_t watcher = -1;
    ASSERT_EQ(fscanf(watch, "%d", &watcher), 1);
    // In whatever order: one that lags behind sees only how things stand.
    const auto expect_lines = [watch](std::set<std::string> parts) {
        for (char line[4096]; !parts.empty();) {
            ASSERT_NE(fgets(line, sizeof line, watch), nullptr) << *parts.begin();
            std::erase_if(parts, [&](const auto& part) { return strstr(line, part.c_str()) != nullptr; });
        }
    };
    start();
    run(": >qast/data/fota/session; fotactl lock me || fotactl unlock ''", 0, "has no owner");
    run("fotactl lock other; fotactl update p", 1, "held by other: ask it");
    expect_lines({"daemon started", "session lock taken by other"});
    run("fotactl unlock other; fotactl update c/\\*", 2, "blank");
    run("fotactl update c/a --agent me; fotactl history", 0, "404   package not valid  Signature failed");
    kill(daemon, SIGSTOP);  // an interrupted update says how things stand
    run("fotactl update p & until ls /dev/mqueue | grep reply; do sleep .1; done; kill $!; wait $!", 143,
        "unlock fotactl");
    EXPECT_EQ(list_folder("/dev/mqueue"), "fota_mq");
    kill(daemon, SIGCONT);
    run("fotactl update p --no-install; fotactl abort fotactl --status 401 --reason x", 0, "goes on");
    run("fotactl update p --no-install; export FOTA_AGENT=fotactl; fotactl unlock", 1, "thrown away");
    run("fotactl unlock --force; fotactl validate --agent me p", 1, "NO_SESSION");
    run("fotactl update p --agent me --boot lpm --json", 0, R"(done","data":{"record_id":4,)");
    run("fotactl watch --json >w & until grep watching w; do sleep .1; done; kill $!; cat w", 0,
        R"("data":{"record_id":4})");
    expect_lines({"by me", "package validated", "low-power", "status: 1,", "tion started", "level 5"});
    sh("cd /opt/qast/data/fota; rm -r staging; mkdir staging; echo -7 >staging/result_failure");
    end(SIGTERM, 0);
    expect_lines({"with code -7", "daemon ended"});
    kill(watcher, SIGINT);
    expect_lines({"Watching has ended"});
    EXPECT_EQ(pclose(watch), 0);
}

TEST_F(Walk, SideloadsACopy) {
    start();
    put_file(FOTA_WEBUI_UPLOAD, "of the user");
    run("fotactl sideload run b; cat qast/data/webui/uploads/*", 0, "of the user");
    run("rm qast/data/webui/uploads/*; fotactl sideload run c/a", 1, "has been ended");
    EXPECT_EQ(list_folder("/opt/qast/data/webui/uploads") + list_folder(FOTA_DATA_DIR), "");
    run("fotactl sideload run b && ls b", 0, "waiting time");
    EXPECT_NE(await_installation(false, TIMEOUT_MS), "");
}

TEST_F(Walk, TakesEveryOtherRequestByHand) {
    put_history({make_record(1, FOTA_REC_UPDATE, 200), make_record(2, FOTA_REC_UPDATE, 404)});
    start();
    const std::tuple<const char*, int, const char*> rows[] = {
        {"file create f; fotactl file write /opt/f -- 41; fotactl file read-number /opt/f", 0, "41"},
        {"file read f --json", 0, R"("data":{"text":"41"})"},
        {"file remove f && fotactl file read f", 1, "(FOTA_RC_FILE_NOT_FOUND, 0xA03F7)"},
        {"file remove qast/data/../data//fota/history.bin", 1, "history of all updates"},
        {"log -n 1 --json; fotactl help log", 0, "--follow"},
        {"kernel-version", 0, "98"},
        {"recovery maybe", 2, "STATE"},
        {"recovery on && fotactl recovery off", 0, "no longer stays"},
        {"decrypt", 0, "does nothing"},
        {"history count --json", 0, R"({"count":2})"},
        {"history index 1", 0, "404"},
        {"history show 9", 1, "shows which there are"},
        {"last-success", 0, "200"},
        {"modify 2", 2, "what to change"},
        {"modify 2 --name Spring --estimate 90", 0, "Spring"},
        {"check-time set noon && fotactl check-time get", 0, "noon"},
        {"config show", 1, "RECORD_NOT_FOUND"},
        {"config save --date d --version 7 --firmware 5.2.1 && fotactl config show", 0, "5.2.1"},
        {"max-size && fotactl sideload-max-size", 0, "35.0 MiB"},
        {"revert-status", 0, "No return"},
        {"factory-reset", 2, "--yes"},
        {"factory-reset --yes", 0, "ready"},
        {"sideload prepare b && fotactl sideload start web /opt/qast/data/fota/upgrade.zip", 0, "estimated"},
        {"sua --modem 1 --os 2 --imei 3", 1, "SIDELOAD_IN_PROGRESS"},
        {"decrypt --timeout 0", 2, "timeout"},
    };
    for (const auto& [command, status, part] : rows) run(std::string("fotactl ") + command, status, part);
    EXPECT_TRUE(eventually([] { return exists("/run/vexa/dsm/persistent_mode"); }));
    EXPECT_STREQ(stored_record(2).pkg_info.pkg_name, "Spring");
}

TEST_F(Walk, ExplainsEveryCode) {
    run("fotactl explain --list", 0, "# Codes");
    const std::string page = get_file("/opt/out");
    EXPECT_EQ(page, get_file(FOTA_TEST_SOURCE "/docs/codes.md")) << "make it anew: fotactl explain --list";
    EXPECT_EQ(page.find("|  |"), std::string::npos);
    std::set<std::string> rows;
    for (int code = -64; code < 0xA1000; ++code) {
        for (const char* name : {fota_result_name(code), fota_event_name(code)})
            if (name != nullptr) rows.insert("| `" + std::string(name) + "` |");
    }
    for (uint32_t code = 0x80000000; code < 0x80020000; ++code) {
        char text[ENGINE_ERROR_TEXT_SIZE] = "";
        const long fumo = map_engine_error_code(code, text, sizeof text);
        if (fumo > 0) rows.insert(std::string(text) + "; recorded as " + std::to_string(fumo) + ", ");
    }
    for (const std::string& row : rows) EXPECT_NE(page.find(row), std::string::npos) << row;
    run("fotactl explain -2147483635 && fotactl explain 3; fotactl explain 65636", 1,
        "exit status 3 of fota");
}

}  // namespace
