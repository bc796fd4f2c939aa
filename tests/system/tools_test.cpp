// The command line on a sandboxed device, as people and scripts meet it.
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/wait.h>

#include <tuple>

#include "support/daemon_fixture.h"
#include "tools/play/sandbox.h"

namespace {

using nlohmann::json;
struct printed {
    int exit_code;
    std::string text;
    json data, obstacles = json::array();
};

// A fotactl command with --json, in /tmp; for a user who may not everything, with `as`.
printed fotactl(const std::string& arguments, const std::string& as = "") {
    const std::string program = as + sandbox_program_folder() + "/fotactl --json ";
    FILE* const pipe = popen(("cd /tmp; " + program + arguments + " 2>/run/stderr").c_str(), "re");
    printed shown = {};
    for (int byte = 0; (byte = fgetc(pipe)) != EOF;) shown.text += static_cast<char>(byte);
    shown.exit_code = WEXITSTATUS(pclose(pipe));
    shown.data = json::parse(shown.text)["data"];
    for (const json& check : shown.data.value("checks", json::array()))
        if (check["verdict"] == "obstacle") shown.obstacles.push_back(check["name"]);
    return shown;
}

constexpr char OTHER_USER[] = "setpriv --bounding-set=-all --inh-caps=-all ";
using Tools = DaemonTest;

TEST_F(Tools, JsonIsOneSafeLineForEveryText) {
    put_history({make_record(1, FOTA_REC_UPDATE, 404, "a\xFF\x1B[1m\xC3\xA9")});
    start();
    const printed shown = fotactl("history"), refused = fotactl("history show 9");
    EXPECT_EQ(shown.text.find('\n'), shown.text.size() - 1);
    for (const char c : shown.text) ASSERT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << shown.text;
    EXPECT_EQ(shown.data["records"][0]["agent"], "a\uFFFD\x1B[1m\u00E9");
    EXPECT_EQ(shown.data["records"][0]["status_meaning"], "package not valid");
    EXPECT_TRUE(refused.text.starts_with(R"({"command":"history show","ok":false,"code":656373,"name":)"
                                         R"("FOTA_RC_RECORD_NOT_FOUND","meaning":")"));
}

TEST_F(Tools, StatusTellsTheStageAndChangesNothing) {
    put_history({make_record(1, FOTA_REC_UPDATE, 200), make_record(2)});
    put_file(FOTA_TRACKING, "2");
    const std::vector<std::tuple<const char*, const char*, json>> rows = {
        {FOTA_RESULT_PROCESSED, "recorded", nullptr},
        {FOTA_SESSION_LOCK, "session_open", "over_the_air"},
        {FOTA_UPGRADE_PKG, "downloaded", "over_the_air"},
        {FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "validated", "over_the_air"},
        {FOTA_STAGING_UPDATE_PRE_INSTALL, "installing", "over_the_air"},
    };
    for (const auto& [file, stage, path] : rows) {
        put_file(file, "dm");
        const printed shown = fotactl("status");
        EXPECT_EQ(shown.data["stage"], stage);
        EXPECT_EQ(shown.data["path"], path);
    }
    start();
    put_file(FOTA_SIDELOAD_COOKIE, "");
    const std::string before = list_folder(FOTA_DATA_DIR);
    const printed shown = fotactl("status");
    EXPECT_EQ(shown.exit_code, 0);
    EXPECT_EQ(shown.data["path"], "side_load");
    EXPECT_EQ(shown.data["pending_record"]["id"], 2);
    EXPECT_EQ(shown.data["last_outcome"]["id"], 1);
    EXPECT_TRUE(shown.data["max_bytes"].is_null());  // the daemon dropped the question
    EXPECT_EQ(list_folder(FOTA_DATA_DIR), before);
    sh(std::string("chmod 0 ") + FOTA_STAGING_DIR + " " + FOTA_SESSION_LOCK + " /dev/mqueue/fota_mq");
    const printed other = fotactl("status", OTHER_USER);
    EXPECT_EQ(other.exit_code, 3);
    EXPECT_EQ(other.data["unknown"], json({"session_owner", "stage", "full_image"}));
}

TEST_F(Tools, CheckNamesEveryObstacleAndChangesNothing) {
    sh("mkdir /tmp/c; echo new >/tmp/c/file; cd /tmp; truncate -s 80M big.zip\n"
       "make() { fotapkg package --content c --keys $K --source $1 --target 2 --description d -o $2; }\n"
       "make MDM2.1.07-4.14.98-5.2.1 good.zip; make 1 other.zip; fotapkg bundle other.zip --keys $K -o "
       "parts.zip");
    start();
    const json none = json::array();
    const std::vector<std::tuple<const char*, const char*, int, json>> rows = {
        {":", "other.zip", 0, none},
        {":", "other.zip --sideload", 1, {"source version"}},
        {":", "parts.zip", 1, {"source version"}},
        {"fotactl lock dm", "good.zip --agent dm", 0, none},
        {":", "big.zip", 1, {"session", "size", "member"}},
        {"chmod 0 /opt/qast/etc/fota/device.pem", "good.zip --agent dm", 1, none},  // not known
        {": >/opt/qast/data/fota/sl_cookie", "good.zip --agent web", 1, {"other update", "session"}},
    };
    for (const auto& [command, package, exit_code, obstacles] : rows) {
        SCOPED_TRACE(package);
        sh(command);
        const std::string before = list_folder("/tmp") + list_folder(FOTA_DATA_DIR);
        const printed shown = fotactl(std::string("check ") + package, OTHER_USER);
        EXPECT_EQ(shown.exit_code, exit_code);
        EXPECT_EQ(shown.obstacles, obstacles);
        EXPECT_EQ(shown.data["would_be_taken"].is_null(), exit_code == 1 && obstacles.empty());
        EXPECT_EQ(list_folder("/tmp") + list_folder(FOTA_DATA_DIR), before);
    }
    EXPECT_EQ(fotactl("check none.zip").exit_code, 2);
    end(SIGTERM, 0);
    EXPECT_EQ(fotactl("check good.zip").exit_code, 3);
}

}  // namespace
