// Tools of the staging directory, checksum lists and progress flags.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "package/checksum_list.h"
#include "package/progress_flags.h"
#include "package/staging_tools.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace fs = std::filesystem;

namespace {

struct Package : testing::Test {
    void SetUp() override {
        wipe_device();
        recording_platform_reset();
    }
};

// A zip with one member at its root and one in a folder.
void make_zip(const std::string& path) {
    put_file("/tmp/zip/member", "root");
    put_file("/tmp/zip/folder/inner", "inner");
    ASSERT_EQ(system(("cd /tmp/zip && zip -qr " + path + " .").c_str()), 0);
}

TEST_F(Package, TreesAreSyncedAndRemovedWithoutFollowingLinks) {
    put_file("/opt/keep/file", "kept");
    put_file("/opt/tree/a/b/deep", "x");
    put_file("/opt/tree/top", "x");
    ASSERT_EQ(symlink("/opt/keep", "/opt/tree/a/link"), 0);
    ASSERT_EQ(mkfifo("/opt/tree/pipe", 0600), 0);
    EXPECT_EQ(dir_sync_up("/opt/tree"), 0);
    ASSERT_EQ(symlink("/opt/nowhere", "/opt/tree/dangling"), 0);
    EXPECT_EQ(dir_sync_up("/opt/tree"), 1);
    EXPECT_EQ(dir_sync_up("/opt/none"), 0);
    for (const auto walk : {dir_sync_up, dir_clean_up}) {
        std::filesystem::remove("/opt/link");
        ASSERT_EQ(symlink("/opt/keep", "/opt/link"), 0);
        EXPECT_EQ(walk("/opt/link"), 0);
        EXPECT_FALSE(logged("Opened dir:/opt/link"));
        EXPECT_EQ(exists("/opt/link"), walk == dir_sync_up) << "removed as a link";
    }

    EXPECT_EQ(dir_clean_up("/opt/tree"), 0);
    EXPECT_FALSE(exists("/opt/tree"));

    // A path as long as the buffers is left, not walked in circles.
    std::string deep = "/opt/tree";
    while (deep.size() + 201 < 1000) deep.append("/").append(200, 'd');
    deep.append("/").append(1022 - deep.size() - 1, 'd');
    put_file(deep + "/file", "x");
    EXPECT_EQ(dir_clean_up("/opt/tree"), 1);
    fs::remove_all("/opt/tree");
    EXPECT_EQ(get_file("/opt/keep/file"), "kept");
    EXPECT_EQ(dir_clean_up("/opt/none"), 0);
}

TEST_F(Package, FreshFolderWhateverWasThere) {
    put_file("/opt/was_folder/old/file", "x");
    put_file("/opt/was_file", "x");
    for (const char* path : {"/opt/was_folder", "/opt/was_file", "/opt/with/parents"}) {
        EXPECT_EQ(create_a_fresh_dir(path), FOTA_RC_SUCCESS);
        struct stat info = {};
        ASSERT_EQ(stat(path, &info), 0);
        EXPECT_EQ(info.st_mode, S_IFDIR | 0700u);
        EXPECT_EQ(list_folder(path), "");
    }
    EXPECT_EQ(create_a_fresh_dir("/opt/was_file;touch /opt/ran"), FOTA_RC_FAILURE);
    EXPECT_FALSE(exists("/opt/ran"));
    put_file("/opt/file", "");
    EXPECT_EQ(create_a_fresh_dir("/opt/file/below"), FOTA_RC_FAILURE);
    // A mount of its own is emptied and shut to others; one that cannot be is refused, and that is said.
    for (const bool writable : {true, false}) {
        fs::create_directories(FOTA_SIDELOAD_TMP_DIR);
        ASSERT_EQ(mount("none", FOTA_SIDELOAD_TMP_DIR, "tmpfs", 0, "mode=0755"), 0);
        put_file(FOTA_SIDELOAD_PKG_LIST, "old");
        if (!writable) {
            ASSERT_EQ(mount("none", FOTA_SIDELOAD_TMP_DIR, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        }
        EXPECT_EQ(create_a_private_dir(FOTA_SIDELOAD_TMP_DIR), writable ? FOTA_RC_SUCCESS : FOTA_RC_FAILURE);
        struct stat info = {};
        ASSERT_EQ(stat(FOTA_SIDELOAD_TMP_DIR, &info), 0);
        EXPECT_EQ(info.st_mode & 0777, writable ? 0700u : 0755u);
        EXPECT_EQ(list_folder(FOTA_SIDELOAD_TMP_DIR), writable ? "" : "pkg_list");
        EXPECT_EQ(logged("Refused, not a folder of this user's own:/dev/sideload_tmp\n"), !writable);
        umount(FOTA_SIDELOAD_TMP_DIR);
    }
}

TEST_F(Package, Unzipping) {
    make_zip("/opt/good.zip");
    put_file("/opt/out/member", "stale");
    EXPECT_EQ(unzip_a_file("/opt/good.zip", "/opt/out"), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file("/opt/out/member"), "root");
    EXPECT_EQ(get_file("/opt/out/folder/inner"), "inner");

    fs::create_directories("/opt/one");
    EXPECT_EQ(unzip_a_specific_file("/opt/good.zip", "folder/inner", "/opt/one"), FOTA_RC_SUCCESS);
    EXPECT_EQ(list_folder("/opt/one"), "inner");
    EXPECT_EQ(unzip_a_specific_file("/opt/good.zip", "inner", "/opt/one"), FOTA_RC_FAILURE);
    put_file("/opt/bad.zip", "no archive");
    EXPECT_EQ(unzip_a_file("/opt/bad.zip", "/opt/out"), FOTA_RC_FAILURE);
    EXPECT_EQ(unzip_a_file("/opt/good.zip /opt/bad.zip", "/opt/out"), FOTA_RC_FAILURE);
    EXPECT_TRUE(logged("error code:9")) << "unzip's own code tells why";
}

TEST_F(Package, PiecesAreAppendedAndMoved) {
    put_file("/opt/target", "one,");
    put_file("/opt/piece", std::string(3000, 'p'));
    EXPECT_EQ(append_file_and_delete_source("/opt/target", "/opt/piece"), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file("/opt/target"), "one," + std::string(3000, 'p'));
    EXPECT_FALSE(exists("/opt/piece"));
    put_file("/opt/empty", "");
    EXPECT_EQ(append_file_and_delete_source("/opt/target", "/opt/empty"), FOTA_RC_EMPTY_OR_SYNC_FAILED);
    EXPECT_TRUE(exists("/opt/empty"));
    EXPECT_EQ(append_file_and_delete_source("/opt/none/target", "/opt/target"), FOTA_RC_FILE_NOT_FOUND);
    EXPECT_EQ(append_file_and_delete_source("/dev/full", "/opt/target"), FOTA_RC_FILE_WRITE_FAILED);
    EXPECT_TRUE(exists("/opt/target"));

    EXPECT_EQ(move_file("/opt/target", "/opt/empty"), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file("/opt/empty").size(), 3004u);
    EXPECT_EQ(move_file("/opt/empty", "/opt/none/target"), FOTA_RC_FAILURE);
    EXPECT_EQ(move_file("/opt/empty", "/opt/a b"), FOTA_RC_FAILURE);
    // A command that does not fit is not run, and fails like any other.
    const std::string longest = "/opt/" + std::string(1000, 'x');
    EXPECT_EQ(move_file("/opt/empty", (longest + "yyyy").c_str()), FOTA_RC_FAILURE);
    EXPECT_TRUE(logged("Moving file from /opt/empty to " + longest + "yyyy is failed\n"));
    EXPECT_EQ(unzip_a_file(longest.c_str(), "/opt/out"), FOTA_RC_FAILURE);
    EXPECT_EQ(create_a_fresh_dir(longest.c_str()), FOTA_RC_FAILURE);
    EXPECT_TRUE(logged("error code:255"));
}

TEST_F(Package, ChecksumLists) {
    // md5sum of "abc" and of the empty file.
    const std::string abc = "900150983cd24fb0d6963f7d28e17f72";
    const std::string empty = "d41d8cd98f00b204e9800998ecf8427e";
    const struct {
        const char* name;
        std::string list;
        int result;
    } rows[] = {
        {"all good", abc + "  abc\n" + empty + " sub/empty trailing words\n", 0},
        {"no line end", abc + " abc", 0},
        {"only blank lines", "\n   \n" + abc + "\n", 0},
        {"no list entries", "", 0},
        {"upper case", "900150983CD24FB0D6963F7D28E17F72 abc", -1},
        {"digest too short", abc.substr(0, 31) + " abc", -1},
        {"another file's digest", empty + " abc", -1},
        {"missing file", abc + " none", -1},
        {"second line fails", abc + " abc\n" + abc + " sub/empty\n", -1},
        {"a folder", empty + " sub", -1},
        {"a pipe never holds the daemon up", empty + " pipe", -1},
        {"a device without an end", empty + " ../../../../../dev/zero", -1},
        {"a line longer than its buffer", abc + " abc" + std::string(2000, ' ') + "x\n", 0},
    };
    put_file(std::string(FOTA_STAGING_DIR) + "/abc", "abc");
    put_file(std::string(FOTA_STAGING_DIR) + "/sub/empty", "");
    ASSERT_EQ(mkfifo((std::string(FOTA_STAGING_DIR) + "/pipe").c_str(), 0600), 0);
    for (const auto& row : rows) {
        put_file(FOTA_STAGING_CHECKSUM_LIST, row.list);
        EXPECT_EQ(verify_checksum(FOTA_STAGING_DIR, FOTA_STAGING_CHECKSUM_LIST), row.result) << row.name;
    }
    EXPECT_EQ(verify_checksum(FOTA_STAGING_DIR, "/opt/none"), -1);
    EXPECT_EQ(verify_checksum(FOTA_STAGING_DIR, "/dev/zero"), -1) << "a package may bring its list as a link";
    EXPECT_EQ(verify_checksum(FOTA_STAGING_DIR, "/proc/self/mem"), -1) << "a list that cannot be read";
    EXPECT_EQ(verify_file_md5(FOTA_STAGING_CHECKSUM_LIST, nullptr), -1);
}

TEST_F(Package, ProgressFlags) {
    EXPECT_EQ(set_progress_files(FOTA_STAGE_PKG_VERIFIED), FOTA_RC_FAILURE) << "no staging folder";
    put_file(FOTA_STAGING_FULL_FOTA, "");
    EXPECT_EQ(is_pre_install_flag_set(), FOTA_RC_FAILURE);
    EXPECT_EQ(set_progress_files(FOTA_STAGE_PRE_INSTALL), FOTA_RC_SUCCESS);
    EXPECT_EQ(is_pre_install_flag_set(), FOTA_RC_SUCCESS);
    EXPECT_EQ(set_progress_files(3), FOTA_RC_FAILURE);
    EXPECT_EQ(list_folder(FOTA_STAGING_DIR), "full_fota update_pre_full_fota_install");
}

}  // namespace
