// The ground that all stand on: state files, commands, texts, the session lock, flash space.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <tuple>

#include "common/command.h"
#include "common/file_helpers.h"
#include "common/flash_space.h"
#include "common/session_lock.h"
#include "common/text.h"
#include "common/wake_lock.h"
#include "core/config.h"
#include "results/session_cleanup.h"
#include "support/device_files.h"
#include "support/recording_platform.h"

namespace {

int failing_syncs = 0;
ino_t not_synced;

}  // namespace

extern "C" {
int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    if (failing_syncs == 0) return __real_fsync(fd);
    --failing_syncs;
    struct stat info = {};
    fstat(fd, &info);
    not_synced = info.st_ino;
    errno = EIO;
    return -1;
}
}

namespace {

using Common = CleanDevice;

TEST_F(Common, FirstLinesAsTextAndAsNumber) {
    const std::string long_line(300, 'x');
    const struct {
        std::string content, text;
        uint32_t number;
    } rows[] = {
        {"0x1F", "0x1F", 31},
        {"010", "010", 8},
        {"abc", "abc", 0},
        {"", "", 0},
        {"7\nsecond\n", "7\n", 7},
        {long_line, long_line.substr(0, 254), 0},
        {"4294967295", "4294967295", UINT32_MAX},
        {"4294967297", "4294967297", UINT32_MAX},
        {"0xfffffffffffffffff", "0xfffffffffffffffff", UINT32_MAX},
        {"-2", "-2", UINT32_MAX - 1},
        {"-4294967297", "-4294967297", UINT32_MAX},
    };
    const std::string path = std::string(FOTA_DATA_DIR) + "/file";
    for (const auto& row : rows) {
        put_file(path, row.content);
        char text[255];
        memset(text, 'z', sizeof text);
        uint32_t number = 99;
        EXPECT_EQ(fota_read_str_from_file(path.c_str(), text), FOTA_RC_SUCCESS);
        EXPECT_EQ(text, row.text);
        EXPECT_EQ(fota_read_str_conv_to_uint32(path.c_str(), &number), FOTA_RC_SUCCESS);
        EXPECT_EQ(number, row.number) << row.content;
    }
    // A folder, nothing, and a pipe without a writer, which must not hold the daemon up.
    char text[255] = "old";
    uint32_t number = 99;
    ASSERT_EQ(mkfifo("/opt/pipe", 0600), 0);
    for (const char* wrong : {"/opt/none", "/opt/pipe", FOTA_DATA_DIR}) {
        EXPECT_EQ(fota_read_str_from_file(wrong, text) == FOTA_RC_SUCCESS, exists(wrong)) << wrong;
        EXPECT_STREQ(text, "");
    }
    EXPECT_EQ(fota_read_str_conv_to_uint32("/opt/none", &number), FOTA_RC_FILE_NOT_FOUND);
    EXPECT_EQ(number, 0u);
    EXPECT_EQ(fota_get_file_size("/opt/pipe"), 0);
    EXPECT_EQ(fota_is_regular_file(FOTA_DATA_DIR), FOTA_RC_FAILURE);
}

TEST_F(Common, FilesAreCreatedWholeOrNotAtAll) {
    ASSERT_EQ(mount("none", "/opt/qast/log", "tmpfs", 0, "size=16k"), 0);
    const std::string big(20000, 'b');
    EXPECT_EQ(fota_create_a_file("/opt/qast/log/big", big.data(), big.size()), FOTA_RC_FILE_WRITE_FAILED);
    EXPECT_FALSE(exists("/opt/qast/log/big"));
    umount("/opt/qast/log");

    put_file("/opt/flag", "old content");
    EXPECT_EQ(fota_create_a_file("/opt/flag", nullptr, 0), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file("/opt/flag"), "");
    EXPECT_EQ(fota_write_uint32("/opt/number", 4294967295u), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file("/opt/number"), "4294967295");

    // Nobody ever sees a part of the new content, and the file stays whose it was. A sync that fails is said;
    // the file is written once more, elsewhere, and has its name when that fails too.
    ASSERT_EQ(chmod("/opt/number", 0600), 0);
    for (const int fails : {0, 1, 100}) {
        const int old = open("/opt/number", O_RDONLY | O_CLOEXEC);
        failing_syncs = fails;
        EXPECT_EQ(fota_write_uint32("/opt/number", 70 + static_cast<unsigned>(fails)), FOTA_RC_SUCCESS);
        failing_syncs = 0;
        char text[16] = "";
        EXPECT_EQ(read(old, text, sizeof text), fails > 0 ? 2 : 10);
        close(old);
        EXPECT_EQ(get_file("/opt/number"), std::to_string(70 + fails));
        struct stat info = {};
        EXPECT_TRUE(fails != 1 || (stat("/opt/number", &info) == 0 && info.st_ino != not_synced));
        EXPECT_EQ(std::filesystem::status("/opt/number").permissions(), std::filesystem::perms(0600));
        EXPECT_EQ(list_folder("/opt"), "flag number qast/");
        EXPECT_EQ(logged("fsync failed, errno:5 for:/opt/number\n"), fails > 0);
    }
    // Another name of a file, or a link to it, goes on naming it.
    ASSERT_EQ(link("/opt/number", "/opt/other") + symlink("other", "/opt/link"), 0);
    EXPECT_EQ(fota_write_uint32("/opt/link", 8), FOTA_RC_SUCCESS);
    EXPECT_EQ(fota_write_uint32("/opt/other", 9), FOTA_RC_SUCCESS);
    EXPECT_EQ(get_file("/opt/number") + get_file("/opt/link"), "99");
    // The data directory itself gone: the file is there, but its durability is not.
    std::filesystem::remove_all(FOTA_DATA_DIR);
    EXPECT_EQ(fota_create_a_file("/opt/flag", nullptr, 0), FOTA_RC_EMPTY_OR_SYNC_FAILED);
    EXPECT_TRUE(exists("/opt/flag"));
}

TEST_F(Common, OnlyPlainPathsReachTheShell) {
    for (const char* safe : {FOTA_UPGRADE_PKG, "/opt/a_b-c+d,e:f@g%h=i", "/opt/paket-\xc3\xa4"}) {
        EXPECT_TRUE(is_shell_safe(safe)) << safe;
    }
    for (const char* unsafe : {"", "-x.zip", "/a b", "/a;b", "/a$(b)", "/a`b`", "/a|b", "/a\nb", "/a*", "/a?",
                               "/a[b]", "/a'b", "/a\"b", "/a\\b", "/~b", "/a&b", "/a>b", "/a<b"}) {
        EXPECT_FALSE(is_shell_safe(unsafe)) << unsafe;
    }
}

TEST_F(Common, CommandsStartAsFromAPlainShell) {
    static int interrupts;
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, [](int) { ++interrupts; });
    const int open_here = open("/opt", O_RDONLY | O_DIRECTORY);
    const std::tuple<const char*, int, const char*> rows[] = {
        {"exit 7", 7, ""},
        {"kill -9 $$", 137, ""},
        {"/no/such/program 2>/dev/null", 127, ""},
        {"set -e; echo one; echo two >&2; echo three", 0, "one\ntwo\nthree\n"},
        {"kill -PIPE $$; echo deaf", 141, ""},
        {"kill -INT $$; echo deaf", 130, ""},
        {"for fd in 3 4 5 6 7 8 9; do [ ! -e /proc/self/fd/$fd ] || echo $fd; done", 0, ""},
        {"kill -INT $PPID; sleep 0.1; echo not me", 0, "not me\n"},
    };
    for (const auto& [command, exit_code, output] : rows) {
        std::filesystem::remove(FOTA_COMMAND_LOG);
        EXPECT_EQ(run_command(command), exit_code) << command;
        EXPECT_EQ(get_file(FOTA_COMMAND_LOG), output) << command;
    }
    EXPECT_EQ(interrupts, 1) << "a command makes nobody deaf";
    close(open_here);
    // Output that has nowhere to go ends no script.
    std::filesystem::remove(FOTA_COMMAND_LOG);
    std::filesystem::create_directories(FOTA_COMMAND_LOG);
    put_file("/opt/script", "#!/bin/sh\nset -e\necho lost\numask >/opt/umask\n");
    umask(S_IWOTH);
    EXPECT_EQ(run_script("/opt/script"), 0);
    umask(S_IWGRP | S_IWOTH);
    EXPECT_EQ(get_file("/opt/umask"), "0022\n");
    std::filesystem::remove(FOTA_COMMAND_LOG);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

TEST_F(Common, NoStaleByteStaysBehindAText) {
    char wide[8];
    memset(wide, 'z', sizeof wide);
    text_copy(wide, {'a', 'b', 'c', 'd'});
    EXPECT_EQ(std::string_view(wide, 8), std::string_view("abcd\0\0\0\0", 8));
}

TEST_F(Common, SessionBelongsToOneAgent) {
    // A text that never ends is cut to the same 254 characters each time.
    const std::string longest(254, 'a');
    const std::tuple<int32_t, std::string, std::string> rows[] = {
        {FOTA_MSG_CLEAR_SESSION_LOCK, "a", "(none)"},
        {FOTA_MSG_CREATE_SESSION_LOCK, std::string(2844, 'a'), longest},
        {FOTA_MSG_CREATE_SESSION_LOCK, longest, longest},
        {FOTA_MSG_CLEAR_SESSION_LOCK, std::string(300, 'a'), "(none)"},
    };
    for (const auto& [event, agent, owner_after] : rows) {
        EXPECT_EQ(serve(make_request(event, agent)).result, FOTA_RC_SUCCESS) << agent;
        EXPECT_EQ(get_file(FOTA_SESSION_LOCK), owner_after);
    }
    // One that cannot be read for a moment is nobody's to take.
    ASSERT_EQ(symlink("/proc/self/mem", FOTA_SESSION_LOCK), 0);
    EXPECT_EQ(fota_check_session_owner(""), FOTA_RC_LOCK_NOT_AVAILABLE);
    EXPECT_EQ(fota_clear_session_lock("a"), FOTA_RC_LOCK_NOT_AVAILABLE);
    std::filesystem::remove(FOTA_SESSION_LOCK);
    put_file(std::string(FOTA_SESSION_LOCK) + "/x", "");
    EXPECT_EQ(create_session_lock("a"), FOTA_RC_FAILURE);
}

TEST_F(Common, FileOperations) {
    put_file("/opt/number", "300");
    put_file("/opt/text", "line\nmore");
    const std::string zeros(7, '\0');
    const struct {
        uint32_t code;
        const char* path;
        uint32_t length;
        fota_rc result;
        uint32_t length_after;
        std::string data_after;  // the first bytes of fops_data
    } rows[] = {
        {FOTA_FOPS_CREATE_AND_WRITE, "/opt/full", 256, FOTA_RC_SUCCESS, 256, "payload"},
        {FOTA_FOPS_CREATE_AND_WRITE, "/opt/too_long", 257, FOTA_RC_INVALID_PARAM, 257, "payload"},
        {FOTA_FOPS_READ_STR, "/opt/text", 9, FOTA_RC_SUCCESS, 5, "line\n"},
        {FOTA_FOPS_READ_STR, "/opt/none", 9, FOTA_RC_FILE_NOT_FOUND, 9, zeros},
        {FOTA_FOPS_READ_UINT32, "/opt/number", 9, FOTA_RC_SUCCESS, 4, std::string("\x2c\x01\0\0", 4)},
        {FOTA_FOPS_READ_UINT32, "/opt/none", 9, FOTA_RC_FILE_NOT_FOUND, 9, zeros.substr(3) + "oad"},
        {5, "/opt/number", 9, FOTA_RC_INVALID_PARAM, 9, "payload"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        fota_event_msg msg = make_request(FOTA_MSG_FILE_OPS);
        fota_file_ops& ops = msg.payload.file_ops;
        ops.fops_code = row.code;
        strcpy(ops.fops_path, row.path);
        strcpy(ops.fops_data, "payload");
        ops.fops_data_len = row.length;
        msg = serve(msg);
        EXPECT_EQ(msg.result, row.result);
        EXPECT_EQ(ops.fops_data_len, row.length_after);
        EXPECT_EQ(std::string(ops.fops_data, row.data_after.size()), row.data_after);
    }
    EXPECT_EQ(list_folder("/opt"), "full number qast/ text");
    EXPECT_EQ(get_file("/opt/full"), "payload" + std::string(249, '\0'));
}

TEST_F(Common, RoomForPackages) {
    constexpr uint32_t MIB = 1 << 20;
    const struct {
        const char* name;
        const char* size;  // of the file system; 4 KiB of it are taken by the session and the package
        uint32_t limit;
        uint32_t package;   // bytes of the package asked about, 0: none
        int session_files;  // the lock, and the package
        fota_rc result;
    } rows[] = {
        {"no more than the reserve", "size=4m", 1 * MIB, 0, 0, FOTA_RC_NO_FLASH_SPACE},
        {"just room for the largest package", "size=39m", 35 * MIB, 0, 0, FOTA_RC_SUCCESS},
        {"not quite", "size=38m", 35 * MIB, 0, 0, FOTA_RC_NO_FLASH_SPACE},
        {"a session's package has its room already", "size=2m", 35 * MIB, 0, 2, FOTA_RC_SUCCESS},
        {"without its package it has not", "size=2m", 35 * MIB, 0, 1, FOTA_RC_NO_FLASH_SPACE},
        {"package of twice the limit", "size=16m", 2 * MIB, 4 * MIB, 0, FOTA_RC_SUCCESS},
        {"package beyond twice the limit", "size=16m", 2 * MIB, 4 * MIB + 1, 0, FOTA_RC_PKG_TOO_BIG},
        {"package without room", "size=6m", 2 * MIB, 3 * MIB, 0, FOTA_RC_NO_FLASH_SPACE},
        {"2 GiB and more free", "size=8g", 35 * MIB, 0, 0, FOTA_RC_SUCCESS},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(mount("none", FOTA_DATA_DIR, "tmpfs", 0, row.size), 0);
        fota_config.maximum_pkg_size = fota_config.sideload_maximum_pkg_size = row.limit;
        if (row.session_files > 0) put_file(FOTA_SESSION_LOCK, "a");
        if (row.session_files > 1) put_file(FOTA_UPGRADE_PKG, "p");
        if (row.package == 0) {
            const fota_event_msg msg = serve(make_request(FOTA_MSG_GET_MAX_PKG_SIZE));
            EXPECT_EQ(msg.result, row.result);
            EXPECT_EQ(msg.payload.value, row.result == FOTA_RC_SUCCESS ? row.limit : 0u);
            // The side-load's limit is always measured.
            EXPECT_EQ(serve(make_request(FOTA_MSG_GET_SIDELOAD_MAX_PKG_SIZE)).result,
                      row.session_files > 0 ? fota_rc{FOTA_RC_NO_FLASH_SPACE} : row.result);
        } else {
            put_file("/opt/package", "");
            ASSERT_EQ(truncate("/opt/package", row.package), 0);
            uint32_t size = 0;
            EXPECT_EQ(fota_check_free_space("/opt/package", &size), row.result);
            EXPECT_EQ(size, row.result == FOTA_RC_PKG_TOO_BIG ? 0 : row.package);
        }
        ASSERT_EQ(umount(FOTA_DATA_DIR), 0);
    }
    EXPECT_EQ(fota_check_free_space("/opt/none", nullptr), FOTA_RC_FAILURE);
    std::filesystem::remove_all(FOTA_DATA_DIR);
    EXPECT_EQ(get_available_flash_space(), -1);
}

TEST_F(Common, WakeLockGoesStraightToTheService) {
    recording_platform().results["powersave_wakelock_release"] = 0xD0001;
    EXPECT_EQ(fota_wakelock_release(), FOTA_RC_FAILURE);
    fota_features.power_saving = 0;
    EXPECT_EQ(fota_wakelock_acquire(), FOTA_RC_SUCCESS);
    EXPECT_EQ(recording_platform().calls.size(), 1u);
}

}  // namespace
